// Binary heap over a vector of elements, smallest first under a three-way
// comparison. The sift names follow this module's own convention: siftdown
// moves an element toward the root, siftup moves it away from the root.
// Elements are typically (smart) pointers; a default-constructed element
// stands for "none".
#pragma once

#include <cstddef>
#include <functional>
#include <utility>
#include <vector>

#include "libmy/my_alloc.h"

template <class T, class Compare = std::function<int(const T&, const T&)>>
class heap {
 public:
  explicit heap(Compare cmp = Compare()) : cmp_(std::move(cmp)) {}

  size_t size() const { return vec_.size(); }
  bool empty() const { return vec_.empty(); }

  T& element(size_t i) {
    my_assert(i < vec_.size(), "i < (vec)->_n");
    return vec_[i];
  }

  // The smallest element, or null when empty.
  T* peek() { return vec_.empty() ? nullptr : &vec_[0]; }

  // Appends without restoring heap order (call heapify afterwards).
  void append(T x) { vec_.push_back(std::move(x)); }

  void push(T x) {
    vec_.push_back(std::move(x));
    siftdown(0, vec_.size() - 1);
  }

  // Removes and returns the smallest element; T{} when empty.
  T pop() {
    if (vec_.empty()) return T{};
    T top = std::move(vec_.back());
    vec_.pop_back();
    if (!vec_.empty()) {
      std::swap(top, vec_[0]);
      siftup(0);
    }
    return top;
  }

  // Puts `x` at the top, sifts it into place and returns the element it
  // replaced. On an empty heap nothing changes, `x` is left untouched and T{}
  // is returned.
  T replace_top(T&& x) {
    if (vec_.empty()) return T{};
    T old = std::exchange(vec_[0], std::move(x));
    siftup(0);
    return old;
  }

  void heapify() {
    for (size_t i = vec_.size() / 2; i-- > 0;) siftup(i);
  }

  // Moves the element at `pos` toward the root while it compares below its
  // parent, never above index `start`.
  void siftdown(size_t start, size_t pos) {
    my_assert(pos < vec_.size(), "pos < ptrvec_size(h->vec)");
    T item = std::move(vec_[pos]);
    while (pos > start) {
      size_t parent = (pos - 1) / 2;
      if (cmp_(item, vec_[parent]) < 0) {
        vec_[pos] = std::move(vec_[parent]);
        pos = parent;
        continue;
      }
      break;
    }
    vec_[pos] = std::move(item);
  }

  // Moves the smaller child up into the hole until the hole is a leaf (ties
  // go to the right child), then brings the element back up from there.
  void siftup(size_t pos) {
    const size_t n = vec_.size();
    my_assert(pos < n, "pos < ptrvec_size(h->vec)");
    const size_t start = pos;
    T item = std::move(vec_[pos]);
    size_t child = 2 * pos + 1;
    while (child < n) {
      size_t right = child + 1;
      if (right < n && cmp_(vec_[child], vec_[right]) >= 0) child = right;
      vec_[pos] = std::move(vec_[child]);
      pos = child;
      child = 2 * pos + 1;
    }
    vec_[pos] = std::move(item);
    siftdown(start, pos);
  }

  // The underlying vector, in heap order.
  std::vector<T>& elements() { return vec_; }

 private:
  std::vector<T> vec_;
  Compare cmp_;
};
