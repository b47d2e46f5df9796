// Wall-clock helpers. Time stamps are timespec values taken from
// gettimeofday (microseconds times 1000 as nanoseconds).
#pragma once

#include <cstdint>
#include <ctime>
#include <optional>
#include <string_view>

using my_clock_fn = timespec (*)();

// The current wall-clock time; tests may replace the clock.
timespec my_time_now();
void my_time_set_clock(my_clock_fn clock);  // nullptr restores the real clock

// Sum of two normalised times (nanoseconds below a second); the seconds stop
// at the largest value instead of wrapping.
timespec my_time_add(timespec a, timespec b);
timespec my_time_sub(timespec end, timespec start);  // nanoseconds borrowed from the seconds
// True when `a` is strictly earlier than `b`.
bool my_time_before(const timespec& a, const timespec& b);
double my_time_seconds(const timespec& t);

// The span of a time-out given in seconds, truncated to whole nanoseconds.
// None when the value is not a positive number (negative, zero, not a
// number) or truncates to zero. Spans beyond MY_TIME_FAR_AWAY seconds,
// infinity included, are cut to it: a deadline that far away never comes.
inline constexpr int64_t MY_TIME_FAR_AWAY = int64_t{1} << 50;  // some 35 million years
std::optional<timespec> my_time_span(double seconds);

// Parses an ISO 8601 time: "YYYY-MM-DD", then optionally 'T' or a space and
// "HH:MM[:SS[.fraction]]", then optionally "Z" or an offset "+HH:MM", "+HHMM"
// or "+HH" (or '-'). Without an offset the time is UTC. False unless the
// whole text is such a time with valid fields.
bool parse_iso_time(std::string_view text, int64_t& out);

// Parses a time argument (vornsearch -A/-B, ixbake --time) into seconds since
// the epoch: "YYYY-MM-DD HH:MM:SS" or "YYYY-MM-DD" (UTC), any ISO 8601 form
// that parse_iso_time takes, empty for now, a number (absolute seconds, or
// seconds ago when negative), or an age such as "1h30m". `now` is the current
// time in seconds, used by the relative forms.
bool parse_time_spec(const char* text, int64_t& out, int64_t now);
bool parse_time_spec(const char* text, int64_t& out);
