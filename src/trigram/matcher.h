// The confirming matcher: the search's pattern compiled into a Hyperscan
// database, an optional exclude database, and the scan of one candidate.
#pragma once

#include <hs/hs.h>

#include <cstddef>
#include <memory>
#include <optional>
#include <string>

#include "trigram/search_context.h"

// Compile flags: caseless, single match, empty matches allowed.
inline constexpr unsigned MATCHER_FLAGS = HS_FLAG_CASELESS | HS_FLAG_SINGLEMATCH | HS_FLAG_ALLOWEMPTY;
static_assert(MATCHER_FLAGS == 25);

// Prepares a search: the trigram query into ctx.query, the written pattern
// into ctx.pattern, compiled into database 0. `status_out` (may be null)
// gets the driver's status; `error_out` (may be null) the failure message.
bool compile_search(search_context& ctx, const char* expression, bool is_glob, int* status_out, std::string* error_out);

// Prepares the exclude database (slot 1): a confirmed line that this pattern
// also matches is dropped. No trigram query is made from it.
bool compile_exclude(search_context& ctx, const char* expression, bool is_glob, std::string* error_out);

// Compiles `pattern` into the given slots, replacing what they held. A
// compile error names `message_pattern` (the main pattern text).
bool compile_pattern(const std::optional<std::string>& message_pattern, hs_database_ptr& database,
                     hs_scratch_ptr& scratch, const char* pattern, std::string* error_out);

// True when the main pattern matches somewhere in the line and the exclude
// pattern nowhere; true at once without a main database. Allocates nothing.
bool match_line(search_context& ctx, const char* data, size_t length);

// Hyperscan's match event: marks the flag `context` points to and stops the scan.
int match_callback(unsigned int id, unsigned long long from, unsigned long long to, unsigned int flags, void* context);

// Ends a search: releases the context (databases, scratches, query, texts).
void free_search_context(std::unique_ptr<search_context>& ctx);
