// The search deadline, checked by the index's iterators before every step.
// When it has passed and the time-out callback does not extend it, the check
// throws search_timeout, which the merger catches at the start of the step it
// is running. Everything on the way is RAII, so nothing leaks.
#pragma once

#include <cstdint>
#include <ctime>
#include <functional>

// Called when the deadline has passed, with the deadline (which it may move)
// and the current seconds; true lets the search continue.
using timeout_callback_fn = std::function<bool(timespec& deadline, int64_t now_seconds)>;

struct search_timeout {};

struct search_deadline {
  timespec at{};
  bool armed = false;
  timeout_callback_fn timeout_callback;

  // Throws search_timeout once the deadline has passed (unless the callback
  // lets the search go on).
  void check();
};
