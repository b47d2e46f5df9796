// The trigramization driver: one search expression in, the trigram query
// that selects candidate lines and the pattern text that confirms them out.
//
// The stages, in the order the tree passes through them:
//   parse (reparse)          expression -> parse tree, within its budgets
//   write (reparse)          parse tree -> pattern text for the matcher
//   reduce (permute.h)       classes too large to expand are widened
//   fix up (fixup.h)         classes onto the trigram alphabet, runs split
//   analyse (extract.h)      per node: exact strings, ends, query so far
//   build (trigram_query.h)  the query, simplified by its constructors
// Each rewriting stage only widens what the tree matches, so the query stays
// a necessary condition for the pattern text.
#pragma once

#include <optional>
#include <string>

#include "trigram/trigram_query.h"

// Status codes of a failed parse.
inline constexpr int TRIGRAMIZE_REGEX_ERROR = 2;
inline constexpr int TRIGRAMIZE_GLOB_ERROR = 4;

// Parses `expression` (a glob when `is_glob`), writes the parse tree back out
// as the pattern to confirm with, and builds the simplified trigram query.
//
// - `pattern_out` (may be null): the written pattern, stored on every path
//   past parsing; left alone when parsing failed. Null: nothing is written.
// - `status_out` (may be null): 0, or 2 / 4 when the regex / glob parser failed.
// - `error_out` (may be null): cleared, then the message of the failing stage.
//
// Null with a message is a failure; null without one means no trigram
// filter: every line is a candidate (table scan).
trigram_query_ptr trigramize(const char* expression, std::optional<std::string>* pattern_out, int* status_out,
                             std::string* error_out, bool is_glob);
