#include "libmy/my_alloc.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

void my_assert_fail(const char* text, const char* file, int line) {
  fprintf(stderr, "%s:%d: Assertion `%s' failed.\n", file, line, text);
  abort();
}

void my_fatal_errno(const char* what) {
  perror(what);
  exit(1);
}

void* my_malloc(size_t size) {
  void* ptr = malloc(size);
  my_assert(ptr != NULL, "ptr != NULL");
  return ptr;
}

void* my_calloc(size_t count, size_t size) {
  void* ptr = calloc(count, size);
  my_assert(ptr != NULL, "ptr != NULL");
  return ptr;
}

void* my_realloc(void* old, size_t size) {
  void* ptr = realloc(old, size);
  my_assert(ptr != NULL, "ptr != NULL");
  return ptr;
}

char* my_strdup(const char* text) {
  char* ptr = strdup(text);
  my_assert(ptr != NULL, "ptr != NULL");
  return ptr;
}
