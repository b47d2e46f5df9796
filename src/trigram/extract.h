// Trigram extraction: from a parse tree to the trigram query that selects
// candidate lines from the index.
//
// Invariant: the query is a necessary condition. For every key that the
// confirming pattern matches, the key's trigrams, cut exactly as the index
// cuts keys (both ends padded with '^'), satisfy the query. A query that
// cannot be made selective is left out (null) rather than guessed.
//
// The analysis works on the index's own alphabet: every byte becomes its
// trigram symbol (letters folded, anything outside the alphabet one shared
// symbol), every class becomes the set of symbols of its members, and the
// pads of an anchored start or end are a separate symbol, so that a pad can
// be told from a literal '^' (the index gives both the same code). A key of
// fewer than two characters has no trigram of the form (pad, x, pad), so no
// such trigram is ever required.
//
// For every node of the tree the analysis computes:
//  - complete: strings that are whole matches of the node (exact, small);
//  - long:     a description that every other match of the node satisfies:
//      prefix  strings of at most 2 symbols, one of which starts the match;
//      suffix  strings of at most 2 symbols, one of which ends the match;
//      match   a query the match satisfies on its own.
//    A prefix or suffix shorter than 2 symbols says no more than itself
//    ("" says nothing).
// Sequences combine neighbours: complete strings multiply, and where a
// suffix meets the next prefix the trigrams across the junction are required
// (as an OR over the possible pairs). Alternations unite. A repetition of at
// least m copies is described by its first min(m, 3) copies. Budgets bound
// every set; over a budget, complete strings become long descriptions (their
// trigrams move into the match query) and affix sets are cut to fewer
// symbols, which only weakens the query.
//
// An any-string element (every byte, {0,unbounded}) is a gap: no trigram is
// formed across it, even though it may match the empty string. The rewriting
// passes rely on this when they keep a head and a tail piece of a run that
// may overlap in a short match.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "reparse/reparse.h"
#include "trigram/trigram_query.h"

// The query for a fixed-up tree, or null when no trigram can be required.
// Runs the analysis with the first budgets and, when that yields nothing,
// once more with wider ones (any-byte classes expanded, larger sets). The
// analysis itself cannot fail; `error_out` (may be null) is cleared before
// the second attempt.
trigram_query_ptr extract_trigrams(const re_elem& tree, std::string* error_out);

// One run of the analysis; `second_attempt` selects the wider budgets.
trigram_query_ptr extract_query(const re_elem& tree, bool second_attempt);

// Prepares a tree for extraction: classes are set to exactly the bytes their
// written form matches, the tree is normalized (normalize_tree), and a
// literal of one or two characters repeated a bounded number of times has
// its first copies written out. Consumes `tree`; null means failure, logged.
re_elem_ptr fixup_tree(re_elem_ptr tree);

// The normalization rules, applied to `element` and recursively below it
// (elements with min 0 are left as they are):
//  1. a class is brought onto the trigram alphabet (upper case folded, other
//     bytes outside the alphabet replaced by '@'; '^' kept);
//  2. a sequence matched once passes its anchors to its first and last child;
//  3. a child sequence or group of one element is replaced by that element
//     with multiplied bounds;
//  4. a variable class run in a sequence becomes head, any-string, tail;
//  5. a repeated short literal has its first copies written out;
//  6. an empty sequence child becomes an empty literal;
//  7. other children are normalized; a class of more than 30 members then
//     becomes the universal class.
// Every rule keeps or widens what the element matches.
void normalize_tree(re_elem& element);

// The class bytes that the written form of a class matches (the writer
// leaves out all but the first byte of a run that reaches byte 255).
re_class_bits class_written_bits(const re_class_bits& bits);

// The trigrams across the boundary of literal `text` and a literal
// neighbour (after it when `neighbour_after`), cut from a window of up to
// four characters. `counter` is raised by the neighbour characters used (1
// or 2). Null when either text is empty.
trigram_query_ptr literal_pair_junction(const re_elem& neighbour, std::string_view text, size_t& counter,
                                        bool neighbour_after);

// The trigrams that a class repeated at least twice forces where it meets a
// literal run (the class first when `class_first`): a union of one set per
// pair of class members. Null unless `literal` is a non-empty literal and
// `klass` a class of at most 22 members. The class is expected on the
// trigram alphabet (normalize_tree rule 1).
trigram_query_ptr class_pair_junction(const re_elem& literal, const re_elem& klass, bool class_first);
