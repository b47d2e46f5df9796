// Class permutation: expanding character classes into the literal strings
// they stand for, and the reduction pass that keeps those expansions small.
//
// The reduction pass rewrites the parse tree that feeds the trigram
// extraction only (the confirming pattern is written out before it runs).
// Every rewrite widens what the tree matches, so the trigram query built from
// the reduced tree stays a necessary condition for a match.
#pragma once

#include <cstddef>
#include <cstdint>

#include "reparse/reparse.h"

// A sequence's classes and groups may multiply to at most this many strings.
inline constexpr size_t PERMUTATION_THRESHOLD = 8192;
// A bounded class run longer than this is cut down to it.
inline constexpr uint32_t PERMUTE_RUN_CUT = 3;
// An unbounded class repeated at least twice with this many members is split.
inline constexpr size_t PERMUTE_UNBOUNDED_LIMIT = 11;
// A repeated class expands to strings of at most this many characters.
inline constexpr uint32_t PERMUTE_RUN_CAP = 8;
// An unforced group extension yields at most this many strings.
inline constexpr size_t GROUP_EXTENSION_THRESHOLD = 64;
// A literal longer than this is not extended.
inline constexpr size_t PERMUTE_LITERAL_LIMIT = 4092;

// The reduction pass over a root element: classes whose runs would expand to
// too many strings, and the largest classes and groups of a sequence whose
// product exceeds PERMUTATION_THRESHOLD, are replaced by elements that match
// more. Consumes `tree` and returns the tree to use (possibly the same
// record); null means failure.
re_elem_ptr reduce_permutations(re_elem_ptr tree);

// The any-string element: every byte, repeated {0,unbounded}.
re_elem_ptr any_string_element();

// All two-character strings whose first character is a member of `first`
// and whose second is a member of `second`, as a group of literals. Null
// unless both are classes and neither is universal.
re_elem_ptr permute_class_pair(const re_elem& first, const re_elem& second);

enum permute_side {
  PERMUTE_APPEND,   // the class character follows each string
  PERMUTE_PREPEND,  // the class character precedes each string
};

// Every literal alternative of `group` combined with every member of
// `klass` on `side`, as a new group. Null when an alternative is not a
// literal or is too long, or (unless `force`) when the result would exceed
// GROUP_EXTENSION_THRESHOLD strings.
re_elem_ptr extend_literal_group(const re_elem& group, const re_elem& klass, permute_side side, bool force);

// All strings of length min(klass.min, PERMUTE_RUN_CAP) over the class's
// members, as a group of literals; null below length 2 or when an extension
// step is refused.
re_elem_ptr permute_class_run(const re_elem& klass);
