// The confirming matcher: the search's pattern compiled into a Hyperscan
// database, an optional exclude database, and the scan of one candidate.
#pragma once

#include <hs/hs.h>

#include <cstddef>
#include <memory>
#include <optional>
#include <string>

#include "trigram/trigram_query.h"

struct hs_database_deleter {
  void operator()(hs_database_t* db) const { hs_free_database(db); }
};
struct hs_scratch_deleter {
  void operator()(hs_scratch_t* s) const { hs_free_scratch(s); }
};
using hs_database_ptr = std::unique_ptr<hs_database_t, hs_database_deleter>;
using hs_scratch_ptr = std::unique_ptr<hs_scratch_t, hs_scratch_deleter>;

// The match half of a search: the trigram query that selects candidates and
// the compiled patterns that confirm them. compile_search fills it.
struct search_match {
  // Slot 0: the main pattern; slot 1: the exclude pattern. A null main
  // database confirms every candidate.
  hs_database_ptr databases[2];
  hs_scratch_ptr scratches[2];
  trigram_query_ptr query;  // null: no trigram filter (table scan)

  std::optional<std::string> pattern;          // serialized main pattern
  std::optional<std::string> exclude_pattern;  // serialized exclude pattern
};

// Compile flags: caseless, single match, empty matches allowed.
inline constexpr unsigned MATCHER_FLAGS = HS_FLAG_CASELESS | HS_FLAG_SINGLEMATCH | HS_FLAG_ALLOWEMPTY;
static_assert(MATCHER_FLAGS == 25);

// Prepares a search: the trigram query into ctx.query, the written pattern
// into ctx.pattern, compiled into database 0. `status_out` (may be null)
// gets the driver's status; `error_out` (may be null) the failure message.
bool compile_search(search_match& ctx, const char* expression, bool is_glob, int* status_out, std::string* error_out);

// Prepares the exclude database (slot 1): a confirmed line that this pattern
// also matches is dropped. No trigram query is made from it.
bool compile_exclude(search_match& ctx, const char* expression, bool is_glob, std::string* error_out);

// Compiles `pattern` into the given slots, replacing what they held. A
// compile error names `message_pattern` (the main pattern text).
bool compile_pattern(const std::optional<std::string>& message_pattern, hs_database_ptr& database,
                     hs_scratch_ptr& scratch, const char* pattern, std::string* error_out);

// True when the main pattern matches somewhere in the line and the exclude
// pattern nowhere; true at once without a main database. Allocates nothing.
bool match_line(search_match& ctx, const char* data, size_t length);

// Hyperscan's match event: marks the flag `context` points to and stops the scan.
int match_callback(unsigned int id, unsigned long long from, unsigned long long to, unsigned int flags, void* context);
