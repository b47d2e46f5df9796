// How many cases a randomised property test tries: VORN_PROPERTY_COUNT when
// set, else the suite's own default (sized to keep the suite fast).
#pragma once

#include <cstddef>
#include <cstdlib>

inline size_t property_count(size_t fallback) {
  const char* s = getenv("VORN_PROPERTY_COUNT");
  return s && *s ? strtoull(s, nullptr, 10) : fallback;
}
