#include "tgdb/n_iter.h"

#include <limits>
#include <utility>

#include "libmy/heap.h"
#include "libmy/my_alloc.h"

namespace {

// An exhausted child sorts as if its position were infinite.
uint64_t est_key(n_iter& it) {
  uint64_t v = 0;
  return it.op_est(v) ? v : std::numeric_limits<uint64_t>::max();
}

struct smallest_first {
  int operator()(const n_iter_ptr& a, const n_iter_ptr& b) const {
    uint64_t x = est_key(*a), y = est_key(*b);
    return x < y ? -1 : x > y ? 1 : 0;
  }
};

struct largest_first {
  int operator()(const n_iter_ptr& a, const n_iter_ptr& b) const {
    uint64_t x = est_key(*a), y = est_key(*b);
    return x > y ? -1 : x < y ? 1 : 0;
  }
};

class function_iter final : public n_iter {
 public:
  function_iter(std::function<void(uint64_t)> seek, std::function<bool(uint64_t&)> get,
                std::function<bool(uint64_t&)> est, std::function<void()> free)
      : seek_(std::move(seek)), get_(std::move(get)), est_(std::move(est)), free_(std::move(free)) {}
  ~function_iter() override { free_(); }
  void op_seek(uint64_t target) override { seek_(target); }
  bool op_get(uint64_t& out) override { return get_(out); }
  bool op_est(uint64_t& out) override { return est_(out); }

 private:
  std::function<void(uint64_t)> seek_;
  std::function<bool(uint64_t&)> get_;
  std::function<bool(uint64_t&)> est_;
  std::function<void()> free_;
};

// Every value that any child yields, once, ascending.
class union_iter final : public n_iter {
 public:
  explicit union_iter(std::vector<n_iter_ptr> children) {
    heap_.elements() = std::move(children);
    heap_.heapify();
  }

  void op_seek(uint64_t target) override {
    if (target > current_) {
      current_ = target;
      found_ = false;
    }
  }

  bool op_est(uint64_t& out) override {
    out = current_;
    return !heap_.empty();
  }

  bool op_get(uint64_t& out) override {
    while (!found_ && !heap_.empty()) {
      n_iter& top = **heap_.peek();
      uint64_t v;
      if (!top.op_est(v)) {
        heap_.pop();
        continue;
      }
      if (v > current_) current_ = v;
      top.op_seek(current_);
      if (!top.op_est(v)) {
        heap_.pop();
        continue;
      }
      if (v > current_) {
        heap_.siftup(0);
        continue;
      }
      if (!top.op_get(v)) {
        heap_.pop();
        continue;
      }
      if (v == current_) {
        found_ = true;
        break;
      }
      heap_.siftup(0);
    }
    out = current_;
    return !heap_.empty();
  }

 private:
  uint64_t current_ = 0;
  bool found_ = false;
  heap<n_iter_ptr, smallest_first> heap_;
};

// Every value that all children yield, ascending (a leapfrog join).
class intersection_iter final : public n_iter {
 public:
  explicit intersection_iter(std::vector<n_iter_ptr> children) {
    exhausted_ = children.empty();
    heap_.elements() = std::move(children);
    heap_.heapify();
  }

  void op_seek(uint64_t target) override {
    if (exhausted_ || current_ >= target) return;
    found_ = false;
    n_iter& largest = **heap_.peek();
    largest.op_seek(target);
    if (!largest.op_est(current_)) exhausted_ = true;
  }

  bool op_est(uint64_t& out) override {
    out = current_;
    return !exhausted_;
  }

  bool op_get(uint64_t& out) override {
    while (!found_ && !exhausted_) {
      if (!agree(false)) continue;
      if (exhausted_) break;
      if (!agree(true)) continue;
      if (!exhausted_) found_ = true;
    }
    out = current_;
    return !exhausted_;
  }

 private:
  // One pass over the children in vector order, seeking and estimating or
  // settling. False when a child raised the bound (start again); true when
  // all agreed or one ran out.
  bool agree(bool settle) {
    auto& kids = heap_.elements();
    for (size_t i = 0; i < kids.size(); ++i) {
      n_iter& child = *kids[i];
      uint64_t v;
      bool ok;
      if (settle) {
        ok = child.op_get(v);
      } else {
        child.op_seek(current_);
        ok = child.op_est(v);
      }
      if (!ok) {
        exhausted_ = true;
        return true;
      }
      if (v > current_) {
        current_ = v;
        heap_.siftup(i);
        return false;
      }
    }
    return true;
  }

  uint64_t current_ = 0;
  bool found_ = false;
  bool exhausted_ = false;
  heap<n_iter_ptr, largest_first> heap_;
};

}  // namespace

n_iter_ptr n_iter_init(std::function<void(uint64_t)> op_seek, std::function<bool(uint64_t&)> op_get,
                       std::function<bool(uint64_t&)> op_est, std::function<void()> op_free) {
  my_assert(op_seek != nullptr, "op_seek != NULL");
  my_assert(op_get != nullptr, "op_get != NULL");
  my_assert(op_est != nullptr, "op_est != NULL");
  my_assert(op_free != nullptr, "op_free != NULL");
  return std::make_unique<function_iter>(std::move(op_seek), std::move(op_get), std::move(op_est),
                                         std::move(op_free));
}

n_iter_builder::~n_iter_builder() = default;

void n_iter_builder::add(n_iter_ptr child) { children_.push_back(std::move(child)); }

n_iter_ptr n_iter_builder::finish() {
  std::vector<n_iter_ptr> kids = std::move(children_);
  children_.clear();
  if (kids.size() == 1) return std::move(kids[0]);
  if (kind_ == kind::union_of) return std::make_unique<union_iter>(std::move(kids));
  return std::make_unique<intersection_iter>(std::move(kids));
}
