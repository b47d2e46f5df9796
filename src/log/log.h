// Leveled logging with a per-thread stack of contexts, and helpers that log
// durations and rates. Every stage logs, so this depends on nothing else in
// the project.
#pragma once

#include <cstdint>
#include <cstdio>
#include <ctime>

enum log_level : int {
  LOG_FAILURE = 0,
  LOG_ERROR = 1,
  LOG_INFO = 2,
  LOG_STAT = 3,
  LOG_DEBUG = 4,
  LOG_DETAIL = 5,
  LOG_TRACE = 6,
};

inline constexpr int LOG_CONTEXT_SLOTS = 100;
inline constexpr int LOG_PREFIX_CUT = 37;

void log_init();
void log_context_push();
void log_context_pop();
int log_context_depth();

void log_set_level(int level);
int log_get_level();
FILE* log_get_stream();
void log_set_stream(FILE* stream);
const char* log_get_prefix();

// Formats the prefix; an empty format clears it.
void log_set_prefix(const char* format, ...) __attribute__((format(printf, 1, 2)));
// Uses `text` verbatim as the prefix (no conversions), with the same cut and ": ".
void log_set_prefix_text(const char* text);

void log_printf(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));
// True when a message at `level` would be written.
inline bool log_enabled(int level) { return level <= log_get_level(); }

const char* log_level_name(int level);
int log_level_parse(const char* text);

void log_duration(int level, const char* label, int64_t seconds, int64_t nanoseconds);
void log_interval(int level, const char* label, const timespec& start, const timespec& end);
void log_rate(int level, const char* label, uint64_t count, int64_t seconds, int64_t nanoseconds);
