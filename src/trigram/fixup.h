// The tree fix-up: the last rewriting pass before trigram extraction. It
// brings classes onto the trigram alphabet and into the shapes the
// extraction cuts best (anchors on the outer children, variable class runs
// as head, gap, tail, short repeated literals written out).
//
// Invariant: every rewrite keeps or widens what an element matches, judged
// by trigrams: a key the original tree matches has the trigrams that some
// match of the rewritten tree requires. The confirming pattern is written
// before this pass, so nothing here changes what a search finds.
#pragma once

#include "reparse/reparse.h"

// Prepares a tree for extraction: classes are set to exactly the bytes their
// written form matches, the tree is normalized (normalize_tree), and a
// literal of one or two characters repeated a bounded number of times has
// its first copies written out. Consumes `tree`; null means failure, logged.
re_elem_ptr fixup_tree(re_elem_ptr tree);

// The normalization rules, applied to `element` and recursively below it
// (elements with min 0 are left as they are):
//  1. a class is brought onto the trigram alphabet (each member replaced by
//     the byte that shows its trigram symbol: capitals fold, bytes outside
//     the alphabet become '@');
//  2. a sequence matched once passes its anchors to its first and last child;
//  3. a child sequence or group of one element is replaced by that element
//     with multiplied bounds;
//  4. a variable class run in a sequence becomes head, any-string, tail;
//  5. a repeated short literal has its first copies written out;
//  6. an empty sequence child becomes an empty literal;
//  7. other children are normalized; a class of more than 30 members then
//     becomes the universal class.
void normalize_tree(re_elem& element);

// The class bytes that the written form of a class matches (the writer
// leaves out all but the first byte of a run that reaches byte 255).
re_class_bits class_written_bits(const re_class_bits& bits);
