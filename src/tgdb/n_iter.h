// Iterators over ascending sequences of unsigned 64-bit values, and the
// union and intersection iterators that combine them. Leaves walk posting
// lists; combining nodes pass their current bound down with op_seek so that
// children can skip ahead instead of enumerating.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

class n_iter {
 public:
  virtual ~n_iter() = default;
  // Moves to the first value that is at least `target`; never moves back.
  virtual void op_seek(uint64_t target) = 0;
  // Settles on the exact current value; false when exhausted.
  virtual bool op_get(uint64_t& out) = 0;
  // The current position without settling (a lower bound of the next
  // value); false when exhausted. Must be cheap: heaps compare by it.
  virtual bool op_est(uint64_t& out) = 0;
};
using n_iter_ptr = std::unique_ptr<n_iter>;

// An iterator made of four operations, for adapters and tests. The free
// operation runs once, when the iterator is destroyed. A missing operation
// is a fatal error.
n_iter_ptr n_iter_init(std::function<void(uint64_t)> op_seek, std::function<bool(uint64_t&)> op_get,
                       std::function<bool(uint64_t&)> op_est, std::function<void()> op_free);

// Reports the current value and steps past it; false at the end.
inline bool n_iter_next(n_iter& it, uint64_t& out) {
  if (!it.op_get(out)) return false;
  it.op_seek(out + 1);
  return true;
}

// Collects children for a union or an intersection. Destroying a builder
// frees the children it still holds.
class n_iter_builder {
 public:
  enum class kind { union_of, intersection_of };
  explicit n_iter_builder(kind k) : kind_(k) {}
  ~n_iter_builder();
  n_iter_builder(const n_iter_builder&) = delete;
  n_iter_builder& operator=(const n_iter_builder&) = delete;

  void add(n_iter_ptr child);
  size_t size() const { return children_.size(); }
  kind type() const { return kind_; }

  // The combined iterator; a single child is returned as it is. The builder
  // is left empty.
  n_iter_ptr finish();

 private:
  kind kind_;
  std::vector<n_iter_ptr> children_;
};
