#include "libmy/my_time.h"

#include <sys/time.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <string_view>

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

// Days from 1970-01-01 to the given civil date (proleptic Gregorian).
int64_t days_from_civil(int64_t y, unsigned m, unsigned d) {
  y -= m <= 2;
  const int64_t era = (y >= 0 ? y : y - 399) / 400;
  const unsigned yoe = static_cast<unsigned>(y - era * 400);
  const unsigned doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + static_cast<int64_t>(doe) - 719468;
}

bool leap_year(int64_t y) { return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0; }

unsigned days_in_month(int64_t y, unsigned m) {
  static constexpr unsigned days[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return m == 2 && leap_year(y) ? 29 : days[m - 1];
}

// Reads exactly `width` decimal digits at `pos`.
bool read_digits(std::string_view s, size_t& pos, size_t width, unsigned& out) {
  if (s.size() - pos < width) return false;
  out = 0;
  for (size_t i = 0; i < width; ++i) {
    const char c = s[pos + i];
    if (c < '0' || c > '9') return false;
    out = out * 10 + static_cast<unsigned>(c - '0');
  }
  pos += width;
  return true;
}

bool read_char(std::string_view s, size_t& pos, char c) {
  if (pos >= s.size() || s[pos] != c) return false;
  ++pos;
  return true;
}

// "Z", "+HH:MM", "+HHMM" or "+HH" (or '-'): seconds east of UTC.
bool read_offset(std::string_view s, size_t& pos, int64_t& east) {
  east = 0;
  if (pos == s.size()) return true;
  if (read_char(s, pos, 'Z') || read_char(s, pos, 'z')) return pos == s.size();
  const char sign = s[pos];
  if (sign != '+' && sign != '-') return false;
  ++pos;
  unsigned hours = 0, minutes = 0;
  if (!read_digits(s, pos, 2, hours)) return false;
  if (pos < s.size()) {
    read_char(s, pos, ':');
    if (!read_digits(s, pos, 2, minutes)) return false;
  }
  if (pos != s.size() || hours > 23 || minutes > 59) return false;
  east = (sign == '-' ? -1 : 1) * int64_t{hours * 3600 + minutes * 60};
  return true;
}

}  // namespace

bool parse_iso_time(std::string_view s, int64_t& out) {
  size_t pos = 0;
  unsigned year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
  if (!read_digits(s, pos, 4, year) || !read_char(s, pos, '-') || !read_digits(s, pos, 2, month) ||
      !read_char(s, pos, '-') || !read_digits(s, pos, 2, day))
    return false;
  if (month < 1 || month > 12 || day < 1 || day > days_in_month(year, month)) return false;
  if (pos < s.size()) {
    if (!read_char(s, pos, 'T') && !read_char(s, pos, 't') && !read_char(s, pos, ' ')) return false;
    if (!read_digits(s, pos, 2, hour) || !read_char(s, pos, ':') || !read_digits(s, pos, 2, minute)) return false;
    if (read_char(s, pos, ':')) {
      if (!read_digits(s, pos, 2, second)) return false;
      // A fraction of a second is dropped: the index keeps whole seconds.
      if (read_char(s, pos, '.') || read_char(s, pos, ',')) {
        const size_t digits_start = pos;
        while (pos < s.size() && s[pos] >= '0' && s[pos] <= '9') ++pos;
        if (pos == digits_start) return false;
      }
    }
    if (hour > 23 || minute > 59 || second > 60) return false;
  }
  int64_t east = 0;
  if (!read_offset(s, pos, east)) return false;
  out = days_from_civil(year, month, day) * 86400 + hour * 3600 + minute * 60 + second - east;
  return true;
}

timespec my_time_now() { return active_clock(); }

void my_time_set_clock(my_clock_fn clock) { active_clock = clock ? clock : real_clock; }

timespec my_time_add(timespec a, timespec b) {
  constexpr long second = 1000000000;
  const long carry = a.tv_nsec + b.tv_nsec >= second ? 1 : 0;
  timespec r{0, a.tv_nsec + b.tv_nsec - carry * second};
  if (__builtin_add_overflow(a.tv_sec, b.tv_sec, &r.tv_sec) || __builtin_add_overflow(r.tv_sec, carry, &r.tv_sec)) {
    r.tv_sec = std::numeric_limits<time_t>::max();
    r.tv_nsec = second - 1;
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

std::optional<timespec> my_time_span(double seconds) {
  // Written so that not-a-number fails the test too.
  if (!(seconds > 0)) return std::nullopt;
  if (seconds >= static_cast<double>(MY_TIME_FAR_AWAY)) return timespec{MY_TIME_FAR_AWAY, 0};
  const double whole = std::trunc(seconds);
  const long nanos = std::min(static_cast<long>((seconds - whole) * 1e9), 999999999L);
  const timespec span{static_cast<time_t>(whole), nanos};
  if (span.tv_sec == 0 && span.tv_nsec == 0) return std::nullopt;
  return span;
}

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
  if (parse_iso_time(text, out)) return true;
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
