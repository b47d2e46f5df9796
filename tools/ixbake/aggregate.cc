#include "aggregate.h"

#include <algorithm>
#include <limits>

#include "tgdb/record_line.h"

void time_range::widen(int64_t f, int64_t l) {
  if (!set) {
    set = true;
    first = uint32_t(f);
    last = uint32_t(l);
    return;
  }
  first = std::min(first, uint32_t(f));
  last = std::max(last, uint32_t(l));
}

void time_range::widen(const time_range& o) {
  if (o.set) widen(o.first, o.last);
}

void aggregator::fold(search_entry& into, const search_entry& e) {
  // Counts saturate rather than wrap.
  into.count = e.count > std::numeric_limits<uint64_t>::max() - into.count ? std::numeric_limits<uint64_t>::max()
                                                                              : into.count + e.count;
  into.time_first = std::min(into.time_first, e.time_first);
  into.time_last = std::max(into.time_last, e.time_last);
}

void aggregator::fold_into(std::vector<search_entry>& entries, const search_entry& e) {
  for (auto& have : entries) {
    if (have.rrtype == e.rrtype) {
      fold(have, e);
      return;
    }
  }
  entries.push_back(e);
}

void aggregator::add_rrname(std::string_view owner, const search_entry& entry) {
  rrname_times_.widen(entry.time_first, entry.time_last);
  key_scratch_.assign(owner);
  auto [it, fresh] = owners_.try_emplace(key_scratch_);
  fold_into(it->second, entry);
}

void aggregator::merge(aggregator&& other) {
  rrname_times_.widen(other.rrname_times_);
  rdata_times_.widen(other.rdata_times_);
  // Node handover: only keys both sides hold need folding.
  owners_.merge(other.owners_);
  for (auto& [owner, entries] : other.owners_) {
    auto& mine = owners_[owner];
    for (const auto& e : entries) fold_into(mine, e);
  }
  other.owners_.clear();
  rdata_.merge(other.rdata_);
  for (auto& [key, value] : other.rdata_) {
    auto& mine = rdata_[key];
    fold(mine.entry, value.entry);
    // Different texts for one wire form only come from record-line inputs;
    // keeping the smaller makes the result independent of input order.
    if (value.text < mine.text) mine.text = std::move(value.text);
  }
  other.rdata_.clear();
}

std::vector<std::string> aggregator::take_rrname_lines() {
  std::vector<std::string> lines;
  lines.reserve(owners_.size());
  for (auto it = owners_.begin(); it != owners_.end(); it = owners_.erase(it)) {
    auto& entries = it->second;
    std::sort(entries.begin(), entries.end(),
              [](const search_entry& a, const search_entry& b) { return a.rrtype < b.rrtype; });
    lines.push_back(rrname_line(it->first, entries));
  }
  std::sort(lines.begin(), lines.end(),
            [](const std::string& a, const std::string& b) { return compare_rrname_lines(a, b) < 0; });
  return lines;
}

std::vector<std::string> aggregator::take_rdata_lines() {
  std::vector<std::string> lines;
  lines.reserve(rdata_.size());
  for (auto it = rdata_.begin(); it != rdata_.end(); it = rdata_.erase(it)) {
    const std::string& key = it->first;
    const auto wire = std::span(reinterpret_cast<const uint8_t*>(key.data()) + 2, key.size() - 2);
    lines.push_back(rdata_line(it->second.text, wire, it->second.entry));
  }
  std::sort(lines.begin(), lines.end(),
            [](const std::string& a, const std::string& b) { return compare_rdata_lines(a, b) < 0; });
  return lines;
}
