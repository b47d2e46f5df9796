#include "libmy/my_alloc.h"

#include <cstdio>
#include <cstdlib>

void my_assert_fail(const char* text, const char* file, int line) {
  fprintf(stderr, "%s:%d: Assertion `%s' failed.\n", file, line, text);
  abort();
}

void my_fatal_errno(const char* what) {
  perror(what);
  exit(1);
}
