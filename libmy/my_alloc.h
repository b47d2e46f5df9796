// Fatal checks for broken invariants and failed allocations. Containers do
// the allocating; these keep the process's assertion texts.
#pragma once

[[noreturn]] void my_assert_fail(const char* text, const char* file, int line);
// Prints the system error for `what` (as perror does) and exits with status 1.
[[noreturn]] void my_fatal_errno(const char* what);

#define my_assert(cond, text)                                \
  do {                                                       \
    if (!(cond)) my_assert_fail((text), __FILE__, __LINE__); \
  } while (0)
