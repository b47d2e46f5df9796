#include "tgdb/tgdb_merger.h"

#include <algorithm>
#include <cstdint>
#include <vector>

#include "libmy/my_text.h"
#include "libmy/my_time.h"
#include "log/log.h"
#include "tgdb/kind_lines.h"
#include "tgdb/linked_line.h"
#include "tgdb/record_line.h"

namespace {

constexpr size_t npos = std::string_view::npos;

// The key is what the pattern is matched against: the text before the tab.
std::string_view key_of(std::string_view line) { return line.substr(0, line.find('\t')); }

std::string_view value_of(std::string_view line) {
  const size_t tab = line.find('\t');
  return tab == npos ? line : line.substr(tab + 1);
}

}  // namespace

// One added file: its candidate stream and the line it currently offers. The
// line points into the file's mapping, which the source keeps alive.
struct tgdb_merger::file_entry {
  std::unique_ptr<candidate_source> source;
  std::string_view line;
  uint64_t last_page = 0;  // last 4,096-byte page counted for this file
};

int tgdb_merger::entry_order::operator()(const entry_ptr& a, const entry_ptr& b) const {
  return compare(a->line, b->line);
}

tgdb_merger::merge_fn tgdb_merger::merge_of(tgdb_kind kind) {
  switch (kind) {
    case tgdb_kind::rrname:
      return merge_rrname;
    case tgdb_kind::rdata:
      return merge_rdata;
    case tgdb_kind::byname:
    case tgdb_kind::byvalue:
      break;
  }
  return merge_linked;
}

tgdb_merger::tgdb_merger(search_context& ctx, tgdb_kind kind)
    : ctx_(ctx), compare_(kind_line_order(kind)), merge_(merge_of(kind)), heap_(entry_order{compare_}), kind_(kind) {}

tgdb_merger::~tgdb_merger() = default;

void tgdb_merger::add_file(tgdb_ptr index) {
  if (!index || index->kind() != kind_ || finished_) return;
  if (index->has_time_range()) {
    const int64_t first = index->first_seen(), last = index->last_seen();
    // Widened before the filter, so that a skipped file still bounds the
    // complete-mode checks of next().
    if (earliest_first_seen_ == 0 || earliest_first_seen_ > first) earliest_first_seen_ = first;
    if (last > latest_last_seen_) latest_last_seen_ = last;
    if (!file_time_filter(ctx_.filters, first, last)) {
      if (log_enabled(LOG_DEBUG))
        log_printf(LOG_DEBUG, "Skipping %s due to time filter", visible_text(index->path()).c_str());
      return;
    }
  }
  if (log_enabled(LOG_DETAIL)) log_printf(LOG_DETAIL, "Adding %s to merger", visible_text(index->path()).c_str());

  try {
    bool failed = false;
    auto source = make_candidate_source(index, ctx_.match.query.get(), &ctx_.deadline, failed);
    if (!source) {
      if (failed) {
        if (!index->lost()) log_printf(LOG_ERROR, "Error: failed to initialize tracker!");
        file_failed();
      } else {
        log_printf(LOG_DEBUG, "Warning: search yielded no possible answers.");
      }
      return;
    }
    auto entry = std::make_unique<file_entry>(file_entry{std::move(source), {}});
    if (!advance(*entry)) return;
    heap_.push(std::move(entry));
  } catch (const search_timeout&) {
    finished_ = true;
  }
}

std::unique_ptr<search_result> tgdb_merger::next() {
  if (finished_) return nullptr;
  // No file can hold a record lying wholly inside the requested range.
  if (ctx_.filters.has_time_first_after && ctx_.filters.time_first_after > latest_last_seen_) {
    log_printf(LOG_DEBUG, "time_first_after out of range, finishing query");
    finished_ = true;
    return nullptr;
  }
  if (ctx_.filters.has_time_last_before && ctx_.filters.time_last_before < earliest_first_seen_) {
    log_printf(LOG_DEBUG, "time_last_before out of range, finishing query");
    finished_ = true;
    return nullptr;
  }
  ctx_.counters = {};
  try {
    return gather();
  } catch (const search_timeout&) {
    // The result being gathered is dropped; the heap stays consistent.
    return nullptr;
  }
}

std::unique_ptr<search_result> tgdb_merger::gather() {
  std::unique_ptr<search_result> pending;
  bool rejected = false;  // the current key's first line did not match
  while (entry_ptr* slot = heap_.peek()) {
    file_entry* top = slot->get();
    bool first_of_key = false;
    if (!has_key_ || compare_(current_key_, top->line) != 0) {
      current_key_.assign(top->line);
      has_key_ = true;
      if (pending) {
        // The top line opens the next call's key and stays in the heap.
        if (auto kept = finish(std::move(pending))) return kept;
      }
      rejected = false;
      first_of_key = true;
    } else if (rejected) {
      // Not matched again: a key is matched once, on its first line.
    } else if (pending) {
      merge_(pending, top->line);
    } else {
      // The key a previous call stopped at, or one whose earlier lines did
      // not parse.
      first_of_key = true;
    }

    if (first_of_key) {
      if (key_matches(key_of(top->line))) {
        merge_(pending, top->line);
        rejected = false;
      } else {
        rejected = true;
      }
    }

    if (!advance(*top)) {
      heap_.pop();
      continue;
    }
    heap_.siftup(0);
  }
  if (pending) return finish(std::move(pending));
  return nullptr;
}

bool tgdb_merger::key_matches(std::string_view key) {
  if (has_matched_key_ && key == matched_key_) return key_matched_;
  search_counters& c = ctx_.counters;
  ++c.candidates;
  key_matched_ = match_line(ctx_.match, key.data(), key.size());
  if (key_matched_) {
    if (c.pattern_matches == 0) c.first_match = my_time_now();
    ++c.pattern_matches;
  }
  matched_key_.assign(key);
  has_matched_key_ = true;
  return key_matched_;
}

std::unique_ptr<search_result> tgdb_merger::finish(std::unique_ptr<search_result> res) const {
  res->kind = kind_;
  if (!finish_result(ctx_.filters, *res)) return nullptr;
  return res;
}

bool tgdb_merger::advance(file_entry& entry) {
  std::string_view line;
  if (!entry.source->get(line)) {
    if (entry.source->failed()) file_failed();
    return false;
  }
  entry.line = line;
  count_read(entry);
  return true;
}

void tgdb_merger::count_read(file_entry& entry) {
  // Pages are counted per file on the assumption that its lines ascend in
  // memory, so a page shared by two consecutive lines counts once.
  const uint64_t n = entry.line.size();
  const uint64_t a = reinterpret_cast<uintptr_t>(entry.line.data());
  const uint64_t first = a / TGDB_PAGE, last = (a + n + 1) / TGDB_PAGE;
  ctx_.counters.bytes_read += n + 1;
  ctx_.counters.pages_read += first > entry.last_page ? last - first + 1 : last - first;
  entry.last_page = last;
}

void merge_rrname(std::unique_ptr<search_result>& slot, std::string_view line) {
  const bool created = !slot;
  if (created) {
    slot = std::make_unique<search_result>();
    slot->name = key_of(line);
  }
  std::vector<search_entry> parsed = parse_rrname_value(value_of(line));
  if (parsed.empty()) {
    if (created) slot.reset();
    return;
  }
  std::vector<search_entry>& entries = slot->entries;
  if (entries.empty()) {
    entries = std::move(parsed);
    return;
  }
  for (const search_entry& e : parsed) {
    auto same =
        std::find_if(entries.begin(), entries.end(), [&](const search_entry& x) { return x.rrtype == e.rrtype; });
    if (same != entries.end()) {
      fold_entry(*same, e);
    } else {
      entries.push_back(e);
    }
  }
}

void merge_rdata(std::unique_ptr<search_result>& slot, std::string_view line) {
  const bool created = !slot;
  if (created) {
    slot = std::make_unique<search_result>();
    slot->name = key_of(line);
  }
  const std::string_view value = value_of(line);
  if (slot->rdata.empty()) {
    slot->rdata = decode_rdata(value);
    if (slot->rdata.empty()) {
      if (created) slot.reset();
      return;
    }
  }
  const auto parsed = parse_rdata_value(value);
  if (!parsed) {
    if (created) slot.reset();
    return;
  }
  if (slot->entries.empty()) {
    slot->entries.push_back(parsed->entry);
    slot->wildcard = parsed->entry.rrtype == 6;
    return;
  }
  // The rdata ordering groups only lines of one type, unless a line it
  // could not parse sits in the group: such a file is corrupt, and the line
  // of the other type is left out.
  search_entry& existing = slot->entries.front();
  if (existing.rrtype != parsed->entry.rrtype) return;
  fold_entry(existing, parsed->entry);
}
