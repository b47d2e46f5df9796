#include "libmy/my_time.h"

#include <sys/time.h>

#include "libmy/my_alloc.h"

namespace {

timespec real_clock() {
  timeval tv;
  int res = gettimeofday(&tv, nullptr);
  my_assert(res == 0, "res == 0");
  return timespec{tv.tv_sec, static_cast<long>(tv.tv_usec) * 1000};
}

my_clock_fn active_clock = real_clock;

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
