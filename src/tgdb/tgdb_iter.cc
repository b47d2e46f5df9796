#include "tgdb/tgdb_iter.h"

#include <cinttypes>
#include <cstring>

#include "libmy/my_alloc.h"
#include "log/log.h"
#include "tgdb/deadline.h"

namespace {

constexpr uint64_t KIND_BITS = TGDB_REF_RANGE_START | TGDB_REF_RANGE_END | TGDB_REF_PACKED;

// Decodes the deltas of packed entry `v` against `base`; returns how many
// line numbers it produced (0: no delta flagged).
int unpack(uint64_t v, uint64_t base, uint64_t out[4]) {
  const uint8_t b[4] = {uint8_t(v >> 24), uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)};
  bool present[5];
  for (int i = 0; i < 4; ++i) present[i] = (v >> (35 - i)) & 1;
  present[4] = false;
  int last = -1;
  for (int i = 0; i < 4; ++i)
    if (present[i]) last = i;
  const bool short_last = v & TGDB_REF_PACKED_SHORT;
  int n = 0;
  uint64_t line = base;
  for (int i = 0; i < 4; ++i) {
    if (!present[i]) continue;
    bool wide = i < 3 && !present[i + 1] && !(short_last && i == last);
    uint64_t delta = wide ? (uint64_t{b[i]} << 8 | b[i + 1]) : b[i];
    line += delta;
    out[n++] = line;
  }
  return n;
}

class query_source final : public candidate_source {
 public:
  query_source(std::shared_ptr<const tgdb> index, n_iter_ptr root)
      : candidate_source(std::move(index)), root_(std::move(root)) {}

  bool get(std::string_view& line) override {
    if (done_) return false;
    uint64_t n;
    const char* p = nullptr;
    const bool more = n_iter_next(*root_, n);
    if (more) p = tgdb_line(*index_, n);
    // Line numbers ascend, so once one lies past the table none follows.
    if (!p) {
      // Said aloud: the lines after it are lost to this search.
      if (more)
        log_printf(LOG_ERROR, "Error: trigram index names line %" PRIu64 " past its end, corrupt file: %s", n,
                   index_->path().c_str());
      done_ = true;
      return false;
    }
    line = tgdb_line_text(*index_, p);
    return true;
  }

 private:
  n_iter_ptr root_;
  bool done_ = false;
};

class scan_source final : public candidate_source {
 public:
  scan_source(std::shared_ptr<const tgdb> index, search_context& ctx)
      : candidate_source(std::move(index)), ctx_(ctx) {
    std::string_view table = index_->string_table();
    cursor_ = table.data();
    end_ = table.data() + table.size();
  }

  bool get(std::string_view& line) override {
    deadline_check(ctx_);
    if (!cursor_ || cursor_ >= end_) return false;
    const char* p = cursor_;
    const char* nl = static_cast<const char*>(memchr(p + 1, '\n', size_t(end_ - p - 1)));
    cursor_ = nl ? nl + 1 : nullptr;
    line = *p == '\n' ? std::string_view(p, 0) : std::string_view(p, size_t((nl ? nl : end_) - p));
    return true;
  }

 private:
  search_context& ctx_;
  const char* cursor_ = nullptr;
  const char* end_ = nullptr;
};

n_iter_ptr fill(const std::shared_ptr<const tgdb>& index, search_context& ctx, const trigram_query* node,
                bool& failed) {
  if (!node || !index) return nullptr;
  const bool is_union = node->type == TQ_UNION;
  n_iter_builder builder(is_union ? n_iter_builder::kind::union_of
                                  : n_iter_builder::kind::intersection_of);
  const size_t items = node->count();
  if (items == 0) return nullptr;
  const auto give_up = [&] {
    log_printf(LOG_DEBUG, "Warning: tracker was empty after fill (%zu items)", items);
    return nullptr;
  };

  if (node->type == TQ_SET) {
    for (int32_t id : node->ids) {
      if (index->posting(id).empty()) {
        // The trigram does not occur in this file: no line can match.
        log_printf(LOG_DEBUG, "Warning: could not add trigram to tracker (%u)!", unsigned(id));
        return give_up();
      }
      auto t = std::make_unique<tracker>(index, ctx, id);
      if (!t->load()) {
        log_printf(LOG_ERROR, "Error: could not update trigram tracker.");
        failed = true;
        log_printf(LOG_DEBUG, "Warning: could not add trigram to tracker (%u)!", unsigned(id));
        return give_up();
      }
      builder.add(std::move(t));
      failed = false;
    }
  } else {
    for (const trigram_query_ptr& member : node->members) {
      if (!member) continue;
      n_iter_ptr child = fill(index, ctx, member.get(), failed);
      if (!child) {
        if (!is_union || failed) {
          log_printf(LOG_DEBUG, "Warning: could not add subtracker!");
          return give_up();
        }
        log_printf(LOG_DETAIL, "Warning: could not add subtracker!");
        continue;
      }
      builder.add(std::move(child));
    }
  }
  if (builder.size() == 0) {
    log_printf(LOG_DETAIL, "Warning: tracker was empty after fill (%zu items)", items);
    return nullptr;
  }
  return builder.finish();
}

}  // namespace

tracker::tracker(std::shared_ptr<const tgdb> index, search_context& ctx, int32_t trigram)
    : index_(std::move(index)), ctx_(ctx), trigram_(trigram) {
  tgdb_posting p = index_->posting(trigram);
  if (!p.empty()) {
    entries_ = p.entries;
    count_ = p.count;
  }
}

tracker::tracker(std::span<const uint8_t> entries, search_context& ctx, int32_t trigram)
    : ctx_(ctx), entries_(entries.data()), count_(entries.size() / TGDB_REF_SIZE), trigram_(trigram) {}

bool tracker::load() {
  my_assert(entry_ < count_, "!IS_TRACKER_FINISHED(ti)");
  const uint64_t v = ref(entry_);
  current_ = v;
  if (v & TGDB_REF_PACKED) {
    // The first entry has nothing before it to count from.
    if (entry_ == 0) {
      log_printf(LOG_ERROR, "Unknown error occurred parsing trigram index offset values: %lx", v);
      return false;
    }
    const uint64_t prev = ref(entry_ - 1);
    if (prev & (TGDB_REF_RANGE_START | TGDB_REF_PACKED)) {
      log_printf(LOG_ERROR,
                 "Error: trigram index(%d) reference(@%lu) offset values pointed back to bad value: %lx",
                 trigram_, entry_, prev);
      return false;
    }
    const int n = unpack(v, prev & ~KIND_BITS, packed_);
    if (n == 0) {
      log_printf(LOG_ERROR, "Unknown error occurred parsing trigram index offset values: %lx", current_);
      return false;
    }
    packed_count_ = uint8_t(n);
    packed_cursor_ = 0;
    current_ = packed_[0];
    last_ = packed_[n - 1];
    return true;
  }
  if (v & TGDB_REF_RANGE_END) {
    char name[4];
    trigram_name(trigram_, name);
    log_printf(LOG_ERROR, "Error: trigram index reference contained bad start value: %lx (%s) @ %lu/%zu", v,
               name, entry_, size_t(count_));
    for (uint64_t back = 1; back <= 2 && back <= entry_; ++back)
      log_printf(LOG_ERROR, " + prev ref @ %lu was %lx", entry_ - back, ref(entry_ - back));
    return false;
  }
  packed_count_ = 0;
  if (!(v & TGDB_REF_RANGE_START)) {
    last_ = v;
    return true;
  }
  if (entry_ + 1 >= count_) {
    log_printf(LOG_ERROR, "Error: trigram index reference was missing range end value");
    return false;
  }
  const uint64_t end = ref(entry_ + 1);
  if (!(end & TGDB_REF_RANGE_END)) {
    log_printf(LOG_ERROR, "Error: trigram index reference had bad range end value: %lx", end);
    return false;
  }
  ++entry_;
  current_ = v & ~TGDB_REF_RANGE_START;
  last_ = end & ~TGDB_REF_RANGE_END;
  return true;
}

bool tracker::load_at(uint64_t i) {
  while (i > 0 && is_range_end(i)) --i;
  entry_ = i;
  if (!load()) {
    finished_ = true;
    return false;
  }
  return true;
}

void tracker::place(uint64_t t) {
  if (t <= current_) return;
  if (packed_count_ == 0) {
    current_ = t;
    return;
  }
  for (uint8_t i = 0; i < packed_count_; ++i) {
    if (packed_[i] >= t) {
      packed_cursor_ = i;
      current_ = packed_[i];
      return;
    }
  }
  current_ = t;
}

bool tracker::op_get(uint64_t& out) {
  out = current_;
  return !finished();
}

void tracker::op_seek(uint64_t t) {
  deadline_check(ctx_);
  if (finished() || t <= current_) return;
  if (t <= last_) {
    place(t);
    return;
  }
  // The next entry usually holds the target.
  if (entry_ + 1 >= count_) {
    entry_ = count_;
    finished_ = true;
    return;
  }
  if (!load_at(entry_ + 1)) return;
  if (t <= last_) {
    place(t);
    return;
  }
  // Gallop ahead, then bisect between the last probe below t and the first
  // probe whose entry reaches t.
  uint64_t lo = entry_, hi;
  for (uint64_t step = 1;; step *= 2) {
    const bool at_end = step >= count_ - 1 - lo;
    const uint64_t probe = at_end ? count_ - 1 : lo + step;
    if (!load_at(probe)) return;
    if (t <= last_) {
      hi = probe;
      break;
    }
    if (at_end) {
      finished_ = true;
      return;
    }
    lo = entry_;
  }
  if (current_ <= t) {
    place(t);
    return;
  }
  while (lo < hi) {
    uint64_t mid = lo + (hi - lo) / 2;
    if (mid <= lo) mid = lo + 1;
    while (mid < hi && is_range_end(mid)) ++mid;
    if (mid >= hi) break;
    if (!load_at(mid)) return;
    if (current_ <= t && t <= last_) {
      place(t);
      return;
    }
    if (t > last_)
      lo = entry_;
    else
      hi = mid;
  }
  load_at(hi);
}

n_iter_ptr tracker_tree_fill(const std::shared_ptr<const tgdb>& index, search_context& ctx,
                             const trigram_query* query, bool& failed) {
  return fill(index, ctx, query, failed);
}

std::unique_ptr<candidate_source> make_candidate_source(std::shared_ptr<const tgdb> index,
                                                        search_context& ctx, bool& failed) {
  failed = false;
  if (!index) return nullptr;
  if (!ctx.query) return std::make_unique<scan_source>(std::move(index), ctx);
  n_iter_ptr root = fill(index, ctx, ctx.query.get(), failed);
  if (!root) return nullptr;
  return std::make_unique<query_source>(std::move(index), std::move(root));
}
