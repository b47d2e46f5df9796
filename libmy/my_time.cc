#include "libmy/my_time.h"

#include <sys/time.h>

#include <cstdlib>

#include "libmy/my_alloc.h"

namespace {

timespec real_clock() {
  timeval tv;
  int res = gettimeofday(&tv, nullptr);
  my_assert(res == 0, "res == 0");
  return timespec{tv.tv_sec, static_cast<long>(tv.tv_usec) * 1000};
}

my_clock_fn active_clock = real_clock;

uint64_t unit_seconds(char unit) {
  switch (unit) {
    case 's': case 'S': return 1;
    case 'm': case 'M': return 60;
    case 'h': case 'H': return 3600;
    case 'd': case 'D': return 86400;
    case 'w': case 'W': return 604800;
    default: return 0;
  }
}

// Sums groups such as "1h30m"; false unless the whole text is such groups.
bool parse_unit_groups(const char* text, uint64_t& total) {
  total = 0;
  const char* p = text;
  while (*p) {
    if (*p < '0' || *p > '9') return false;
    uint64_t value = 0;
    while (*p >= '0' && *p <= '9') value = value * 10 + static_cast<uint64_t>(*p++ - '0');
    uint64_t unit = unit_seconds(*p);
    if (unit == 0) return false;
    total += value * unit;
    ++p;
  }
  return true;
}

}  // namespace

timespec my_time_now() { return active_clock(); }

void my_time_set_clock(my_clock_fn clock) { active_clock = clock ? clock : real_clock; }

timespec my_time_add(timespec a, timespec b) {
  timespec r{a.tv_sec + b.tv_sec, a.tv_nsec + b.tv_nsec};
  while (r.tv_nsec > 999999999) {
    r.tv_nsec -= 1000000000;
    r.tv_sec += 1;
  }
  return r;
}

timespec my_time_sub(timespec end, timespec start) {
  timespec r{end.tv_sec - start.tv_sec, end.tv_nsec - start.tv_nsec};
  if (r.tv_nsec < 0) {
    r.tv_nsec += 1000000000;
    r.tv_sec -= 1;
  }
  return r;
}

bool my_time_before(const timespec& a, const timespec& b) {
  return a.tv_sec < b.tv_sec || (a.tv_sec == b.tv_sec && a.tv_nsec < b.tv_nsec);
}

double my_time_seconds(const timespec& t) { return t.tv_sec + t.tv_nsec / 1e9; }

bool parse_time_spec(const char* text, int64_t& out, int64_t now) {
  tm fields{};
  const char* end = strptime(text, "%F %T", &fields);
  if (end && *end == '\0') {
    out = timegm(&fields);
    return true;
  }
  end = strptime(text, "%F", &fields);
  if (end && *end == '\0') {
    out = timegm(&fields);
    return true;
  }
  if (*text == '\0') {
    out = now;
    return true;
  }
  char* number_end = nullptr;
  long long n = strtoll(text, &number_end, 10);
  if (*number_end == '\0') {
    out = n < 0 ? now + n : n;
    return true;
  }
  uint64_t ago = 0;
  if (!parse_unit_groups(text, ago)) return false;
  out = static_cast<int64_t>(static_cast<uint64_t>(now) - ago);
  return true;
}

bool parse_time_spec(const char* text, int64_t& out) {
  return parse_time_spec(text, out, my_time_now().tv_sec);
}
