#include "reporter.h"

#include <cinttypes>
#include <cstdio>
#include <cstring>

namespace {
// Bad records are each reported up to this many; the summary counts them all.
constexpr uint64_t SHOWN_BAD_RECORDS = 100;
}  // namespace

void reporter::bad(const std::string& input, uint64_t line, const std::string& reason, uint64_t n) {
  skipped += n;
  std::lock_guard lock(mu_);
  if (strict_) {
    if (stop.exchange(true)) return;  // only the first one counts
  }
  if (++bad_shown_ > SHOWN_BAD_RECORDS) {
    if (bad_shown_ == SHOWN_BAD_RECORDS + 1) put("further bad records are counted but not shown");
    return;
  }
  put(input + ":" + std::to_string(line) + ": " + reason);
}

void reporter::fatal(const std::string& text) {
  std::lock_guard lock(mu_);
  if (!fatal_.empty()) return;
  fatal_ = text;
  stop = true;
}

void reporter::say(const std::string& text) {
  std::lock_guard lock(mu_);
  put(text);
}

void reporter::start_progress() {
  if (!progress_) return;
  started_ = std::chrono::steady_clock::now();
  ticker_ = std::thread([this] {
    std::unique_lock lock(mu_);
    while (!done_) {
      tick_cv_.wait_for(lock, std::chrono::milliseconds(250));
      if (done_) break;
      tick(std::chrono::duration<double>(std::chrono::steady_clock::now() - started_).count());
    }
  });
}

// Called with mu_ held.
void reporter::tick(double secs) {
  const uint64_t n = records.load();
  const char* phase = phase_.load();
  if (strcmp(phase, "reading") == 0) {
    fprintf(stderr, "\r\033[Kixbake: reading: %" PRIu64 " records, %.0f records/s, %.0fs", n,
            secs > 0 ? double(n) / secs : 0.0, secs);
  } else {
    fprintf(stderr, "\r\033[Kixbake: %s: %" PRIu64 " records read, %.0fs", phase, n, secs);
  }
  fflush(stderr);
  shown_ = true;
}

void reporter::end_progress() {
  if (!ticker_.joinable()) return;
  {
    std::lock_guard lock(mu_);
    done_ = true;
    clear_line();
  }
  tick_cv_.notify_all();
  ticker_.join();
}

void reporter::clear_line() {
  if (shown_) fputs("\r\033[K", stderr);
  shown_ = false;
}

void reporter::put(const std::string& text) {
  clear_line();
  fprintf(stderr, "ixbake: %s\n", text.c_str());
}
