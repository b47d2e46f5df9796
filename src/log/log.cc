#include "log/log.h"

#include <cstdarg>
#include <cstring>
#include <strings.h>

namespace {

struct log_context {
  FILE* stream = nullptr;
  int32_t level = 0;
  bool initialized = false;
  char prefix[LOG_PREFIX_CUT + 3] = {};  // 37 characters, ": ", NUL
};

struct level_entry {
  const char* name;
  int value;
};

constexpr level_entry level_table[] = {
    {"failure", 0}, {"error", 1}, {"info", 2},   {"stat", 3},
    {"debug", 4},   {"detail", 5}, {"trace", 6}, {nullptr, -1},
};

log_context process_context;
thread_local log_context context_stack[LOG_CONTEXT_SLOTS];
thread_local int32_t context_depth = -1;

log_context& current() {
  if (context_depth < 0) {
    if (!process_context.initialized) log_init();
    return process_context;
  }
  return context_stack[context_depth < LOG_CONTEXT_SLOTS ? context_depth : LOG_CONTEXT_SLOTS - 1];
}

void store_prefix(log_context& ctx, const char* text, bool clear) {
  if (clear) {
    ctx.prefix[0] = '\0';
    return;
  }
  size_t n = strnlen(text, LOG_PREFIX_CUT);
  memcpy(ctx.prefix, text, n);
  memcpy(ctx.prefix + n, ": ", 3);
}

double as_seconds(int64_t seconds, int64_t nanoseconds) { return seconds + nanoseconds / 1e9; }

}  // namespace

void log_init() {
  process_context.stream = stderr;
  setlinebuf(stderr);
  process_context.level = 0;
  process_context.prefix[0] = '\0';
  process_context.initialized = true;
}

void log_context_push() {
  if (context_depth < 0) {
    if (!process_context.initialized) log_init();
    context_depth = 0;
    context_stack[0] = process_context;
    return;
  }
  int32_t old = context_depth++;
  if (old < LOG_CONTEXT_SLOTS - 1) context_stack[old + 1] = context_stack[old];
}

void log_context_pop() { --context_depth; }

int log_context_depth() { return context_depth; }

void log_set_level(int level) {
  if (static_cast<unsigned>(level) < 7) current().level = level;
}

int log_get_level() { return current().level; }
FILE* log_get_stream() { return current().stream; }
const char* log_get_prefix() { return current().prefix; }

void log_set_stream(FILE* stream) {
  current().stream = stream;
  setlinebuf(stream);
}

void log_set_prefix(const char* format, ...) {
  char text[LOG_PREFIX_CUT + 1] = "";
  if (format[0] != '\0') {
    va_list ap;
    va_start(ap, format);
    vsnprintf(text, sizeof text, format, ap);
    va_end(ap);
  }
  store_prefix(current(), text, format[0] == '\0');
}

void log_set_prefix_text(const char* text) { store_prefix(current(), text, text[0] == '\0'); }

void log_printf(int level, const char* format, ...) {
  log_context& ctx = current();
  if (level > ctx.level) return;
  // One buffered line per message, so concurrent writers never interleave.
  char small[512];
  va_list ap;
  va_start(ap, format);
  int n = vsnprintf(small, sizeof small, format, ap);
  va_end(ap);
  if (n < 0) return;
  flockfile(ctx.stream);
  fputs(ctx.prefix, ctx.stream);
  if (static_cast<size_t>(n) < sizeof small) {
    fwrite(small, 1, n, ctx.stream);
  } else {
    va_start(ap, format);
    vfprintf(ctx.stream, format, ap);
    va_end(ap);
  }
  fputc('\n', ctx.stream);
  funlockfile(ctx.stream);
}

const char* log_level_name(int level) {
  if (static_cast<unsigned>(level) > 6) return "<invalid>";
  return level_table[level].name;
}

int log_level_parse(const char* text) {
  for (const level_entry* e = level_table; e->name; ++e)
    if (strcasecmp(text, e->name) == 0) return e->value;
  return -1;
}

void log_duration(int level, const char* label, int64_t seconds, int64_t nanoseconds) {
  log_printf(level, "%s: %f s", label, as_seconds(seconds, nanoseconds));
}

void log_interval(int level, const char* label, const timespec& start, const timespec& end) {
  double value = 0.0;
  if (end.tv_sec + end.tv_nsec > 0 && start.tv_sec + start.tv_nsec > 0) {
    int64_t sec = end.tv_sec - start.tv_sec;
    int64_t nsec = end.tv_nsec - start.tv_nsec;
    if (nsec < 0) {
      nsec += 1000000000;
      sec -= 1;
    }
    value = as_seconds(sec, nsec);
  }
  log_printf(level, "%s: %f s", label, value);
}

void log_rate(int level, const char* label, uint64_t count, int64_t seconds, int64_t nanoseconds) {
  double t = as_seconds(seconds, nanoseconds);
  double rate = t > 0 ? count / t : 0;
  log_printf(level, "%s: %lu (%f /s)", label, static_cast<unsigned long>(count), rate);
}
