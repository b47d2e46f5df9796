#include "tgdb/tgdb_iter.h"

#include <cinttypes>
#include <cstring>

#include "libmy/my_alloc.h"
#include "libmy/my_text.h"
#include "log/log.h"

namespace {

void log_lost(const tgdb& index) {
  log_printf(LOG_ERROR, "Error: index file %s shrank while in use; its part of this search ends",
             visible_text(index.path()).c_str());
}

std::string posting_region(int32_t trigram) {
  char name[4];
  trigram_name(trigram, name);
  return std::string("posting list of trigram '") + name + "'";
}

class query_source final : public candidate_source {
 public:
  query_source(tgdb_ptr index, search_deadline* deadline)
      : candidate_source(std::move(index)), walk_(deadline), lines_(*index_) {}

  // Builds the tracker tree; false when it comes out empty.
  bool build(const trigram_query* query, bool& failed);

  bool get(std::string_view& line) override {
    if (done_ || failed_) return false;
    uint64_t n = 0;
    const bool more = n_iter_next(*root_, n);
    std::optional<std::string_view> found;
    if (more && !walk_.damaged()) found = lines_.line(n);
    done_ = !found;
    // Checked after the reads: a lost page reads as zeros or tabs.
    if (index_->lost()) return fail_lost();
    if (walk_.damaged()) return fail_damaged(walk_.region());
    if (!more) return false;
    if (lines_.damaged()) return fail_damaged("line index");
    if (!found) {
      // Line numbers ascend, so once one lies past the table none follows.
      log_printf(LOG_ERROR, "Error: trigram index names line %" PRIu64 " past its end, corrupt file: %s", n,
                 visible_text(index_->path()).c_str());
      failed_ = true;
      return false;
    }
    line = *found;
    return true;
  }

 private:
  index_walk walk_;
  tgdb_line_cursor lines_;
  n_iter_ptr root_;
  bool done_ = false;
};

class scan_source final : public candidate_source {
 public:
  scan_source(tgdb_ptr index, search_deadline* deadline) : candidate_source(std::move(index)), walk_(deadline) {
    std::string_view table = index_->string_table();
    cursor_ = table.data();
    end_ = table.data() + table.size();
  }

  bool get(std::string_view& line) override {
    walk_.check_deadline();
    if (!cursor_ || cursor_ >= end_) return false;
    const char* p = cursor_;
    const char* nl = static_cast<const char*>(memchr(p + 1, '\n', size_t(end_ - p - 1)));
    cursor_ = nl ? nl + 1 : nullptr;
    line = *p == '\n' ? std::string_view(p, 0) : std::string_view(p, size_t((nl ? nl : end_) - p));
    if (index_->lost()) {
      cursor_ = nullptr;
      return fail_lost();
    }
    return true;
  }

 private:
  index_walk walk_;
  const char* cursor_ = nullptr;
  const char* end_ = nullptr;
};

// Builds the iterator tree for `node` over one index: unions and
// intersections of trackers. Null when the index cannot hold an answer;
// `failed` is set when that is because the index is damaged.
n_iter_ptr fill(const tgdb& index, index_walk& walk, const trigram_query* node, bool& failed) {
  if (!node) return nullptr;
  const bool is_union = node->type == TQ_UNION;
  n_iter_builder builder(is_union ? n_iter_builder::kind::union_of : n_iter_builder::kind::intersection_of);
  const size_t items = node->count();
  if (items == 0) return nullptr;
  const auto give_up = [&] {
    log_printf(LOG_DEBUG, "Warning: tracker was empty after fill (%zu items)", items);
    return nullptr;
  };

  if (node->type == TQ_SET) {
    for (int32_t id : node->ids) {
      const posting_list list = index.posting(id);
      if (list.empty()) {
        // The trigram does not occur in this file: no line can match.
        log_printf(LOG_DEBUG, "Warning: could not add trigram to tracker (%u)!", unsigned(id));
        return give_up();
      }
      auto t = std::make_unique<tracker>(list, walk, id);
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
      n_iter_ptr child = fill(index, walk, member.get(), failed);
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

bool query_source::build(const trigram_query* query, bool& failed) {
  root_ = fill(*index_, walk_, query, failed);
  if (walk_.damaged() && failed) fail_damaged(walk_.region());
  return root_ != nullptr;
}

}  // namespace

tracker::tracker(const posting_list& list, index_walk& walk, int32_t trigram)
    : list_(list), walk_(walk), trigram_(trigram) {
  if (list_.empty()) list_.count = 0;
}

bool tracker::load() {
  my_assert(entry_ < list_.count, "!IS_TRACKER_FINISHED(ti)");
  return decode(entry_);
}

bool tracker::decode(uint64_t i) {
  const uint64_t before_first = decoded_entry_.first, before_last = decoded_entry_.last;
  const uint64_t before_start = start_, before_end = entry_;
  posting_fault fault = decode_posting_entry(list_, i, decoded_entry_);
  // Each entry's lines lie beyond those of the entries before it: checked
  // against the entry decoded before, whichever side of it this one lies
  // (the first decode, of entry 0, has nothing to compare with).
  const posting_entry& e = decoded_entry_;
  if (fault == posting_fault::none &&
      ((i > before_end && e.first <= before_last) || (e.end < before_start && e.last >= before_first)))
    fault = posting_fault::descending;
  if (fault != posting_fault::none) {
    const uint64_t neighbour = i > before_end ? before_last : before_first;
    for (const std::string& text : describe_posting_fault(list_, i, fault, trigram_, neighbour))
      log_printf(LOG_ERROR, "%s", text.c_str());
    walk_.damage(posting_region(trigram_));
    return false;
  }
  start_ = i;
  entry_ = e.end;
  current_ = e.first;
  packed_cursor_ = 0;
  return true;
}

bool tracker::load_at(uint64_t i) {
  while (i > 0 && list_.is_range_end(i)) --i;
  if (!decode(i)) {
    finished_ = true;
    return false;
  }
  return true;
}

void tracker::place(uint64_t t) {
  if (t <= current_) return;
  const posting_entry& e = decoded_entry_;
  if (e.packed_count == 0) {
    current_ = t;
    return;
  }
  for (uint8_t i = 0; i < e.packed_count; ++i) {
    if (e.packed[i] >= t) {
      packed_cursor_ = i;
      current_ = e.packed[i];
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
  walk_.check_deadline();
  if (finished() || t <= current_) return;
  const uint64_t count = list_.count;
  if (t <= decoded_entry_.last) {
    place(t);
    return;
  }
  // The next entry usually holds the target.
  if (entry_ + 1 >= count) {
    entry_ = count;
    finished_ = true;
    return;
  }
  if (!load_at(entry_ + 1)) return;
  if (t <= decoded_entry_.last) {
    place(t);
    return;
  }
  // Gallop ahead, then bisect between the last probe below t and the first
  // probe whose entry reaches t.
  uint64_t lo = entry_, hi;
  for (uint64_t step = 1;; step *= 2) {
    const bool at_end = step >= count - 1 - lo;
    const uint64_t probe = at_end ? count - 1 : lo + step;
    if (!load_at(probe)) return;
    if (t <= decoded_entry_.last) {
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
    while (mid < hi && list_.is_range_end(mid)) ++mid;
    if (mid >= hi) break;
    if (!load_at(mid)) return;
    if (current_ <= t && t <= decoded_entry_.last) {
      place(t);
      return;
    }
    if (t > decoded_entry_.last)
      lo = entry_;
    else
      hi = mid;
  }
  load_at(hi);
}

bool candidate_source::fail_lost() {
  log_lost(*index_);
  failed_ = true;
  return false;
}

bool candidate_source::fail_damaged(const std::string& region) {
  log_printf(LOG_ERROR, "Error: index file %s is damaged in its %s; its part of this search ends",
             visible_text(index_->path()).c_str(), region.c_str());
  failed_ = true;
  return false;
}

std::unique_ptr<candidate_source> make_candidate_source(tgdb_ptr index, const trigram_query* query,
                                                        search_deadline* deadline, bool& failed) {
  failed = false;
  if (!index) return nullptr;
  if (!query) return std::make_unique<scan_source>(std::move(index), deadline);
  auto source = std::make_unique<query_source>(index, deadline);
  const bool built = source->build(query, failed);
  // A list that read as empty may have been lost with its page.
  if (index->lost()) {
    log_lost(*index);
    failed = true;
    return nullptr;
  }
  if (!built) return nullptr;
  return source;
}
