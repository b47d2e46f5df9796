// Trigram extraction, the per-node analysis: from a fixed-up parse tree to
// the trigram query that selects candidate lines from the index. The query
// itself is built, and simplified, by the constructors of trigram_query.h.
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

#include <string>

#include "reparse/reparse.h"
#include "trigram/trigram_query.h"

// The query for a fixed-up tree (fixup.h), or null when no trigram can be
// required. Runs the analysis with the first budgets and, when that yields
// nothing, once more with wider ones (larger sets, every symbol of a class
// kept). The analysis itself cannot fail; `error_out` (may be null) is
// cleared before the second attempt.
trigram_query_ptr extract_trigrams(const re_elem& tree, std::string* error_out);
