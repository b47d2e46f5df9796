// Arithmetic on counts and sizes that stops at the type's largest value
// instead of wrapping, so that a product of budgets or a sum of counts can
// only ever look too large.
#pragma once

#include <concepts>
#include <limits>

template <std::unsigned_integral T>
constexpr T saturating_add(T a, T b) {
  const T sum = static_cast<T>(a + b);
  return sum < a ? std::numeric_limits<T>::max() : sum;
}

template <std::unsigned_integral T>
constexpr T saturating_mul(T a, T b) {
  if (a != 0 && b > std::numeric_limits<T>::max() / a) return std::numeric_limits<T>::max();
  return static_cast<T>(a * b);
}
