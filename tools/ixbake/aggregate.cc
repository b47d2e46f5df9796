#include "aggregate.h"

#include <algorithm>
#include <limits>
#include <thread>

#include "tgdb/record_line.h"

void sort_record_lines(std::vector<std::string_view>& v, bool rdata, unsigned parts) {
  const auto less = [rdata](std::string_view a, std::string_view b) {
    return (rdata ? compare_rdata_lines(a, b) : compare_rrname_lines(a, b)) < 0;
  };
  constexpr size_t min_part = 1 << 16;  // below this a thread costs more than it saves
  if (parts == 0) parts = unsigned(std::min<size_t>(std::max(1u, std::thread::hardware_concurrency()), v.size() / min_part));
  parts = unsigned(std::clamp<size_t>(parts, 1, std::max<size_t>(1, v.size())));
  if (parts == 1) {
    std::sort(v.begin(), v.end(), less);
    return;
  }
  // Parts sorted concurrently, then merged. Keys are distinct, so the
  // result is the one std::sort gives.
  std::vector<size_t> bounds;
  for (size_t i = 0; i <= parts; ++i) bounds.push_back(v.size() * i / parts);
  std::vector<std::thread> threads;
  for (size_t i = 1; i < parts; ++i) {
    threads.emplace_back([&, i] { std::sort(v.begin() + long(bounds[i]), v.begin() + long(bounds[i + 1]), less); });
  }
  std::sort(v.begin(), v.begin() + long(bounds[1]), less);
  for (auto& t : threads) t.join();
  for (size_t i = 1; i < parts; ++i) {
    std::inplace_merge(v.begin(), v.begin() + long(bounds[i]), v.begin() + long(bounds[i + 1]), less);
  }
}

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
  // The two tables are independent: merge them side by side. Node handover
  // moves what only `other` has; keys both hold are folded.
  std::thread owners([&] {
    owners_.merge(other.owners_);
    for (auto& [owner, entries] : other.owners_) {
      auto& mine = owners_[owner];
      for (const auto& e : entries) fold_into(mine, e);
    }
    other.owners_.clear();
  });
  rdata_.merge(other.rdata_);
  for (auto& [key, value] : other.rdata_) {
    auto& mine = rdata_[key];
    fold(mine.entry, value.entry);
    // Different texts for one wire form only come from record-line inputs;
    // keeping the smaller makes the result independent of input order.
    if (value.text < mine.text) mine.text = std::move(value.text);
  }
  other.rdata_.clear();
  owners.join();
}

namespace {

// Views of the lines at `ends` (each line's end offset) in `out.text`.
void make_views(sorted_lines& out, const std::vector<size_t>& ends) {
  out.lines.reserve(ends.size());
  size_t start = 0;
  for (size_t end : ends) {
    out.lines.emplace_back(out.text.data() + start, end - start);
    start = end;
  }
}

}  // namespace

sorted_lines aggregator::take_rrname_lines() {
  sorted_lines out;
  std::vector<size_t> ends;
  ends.reserve(owners_.size());
  // Room for every line up front (an item and its space take at most 42 bytes), so the
  // buffer is never copied while the table still holds everything.
  size_t room = 0;
  for (const auto& [owner, entries] : owners_) room += owner.size() + 1 + 42 * entries.size();
  out.text.reserve(room);
  for (auto it = owners_.begin(); it != owners_.end(); it = owners_.erase(it)) {
    auto& entries = it->second;
    std::sort(entries.begin(), entries.end(),
              [](const search_entry& a, const search_entry& b) { return a.rrtype < b.rrtype; });
    out.text += rrname_line(it->first, entries);
    ends.push_back(out.text.size());
  }
  make_views(out, ends);
  sort_record_lines(out.lines, false);
  return out;
}

sorted_lines aggregator::take_rdata_lines() {
  sorted_lines out;
  std::vector<size_t> ends;
  ends.reserve(rdata_.size());
  size_t room = 0;
  for (const auto& [key, value] : rdata_) room += value.text.size() + 2 * key.size() + 48;
  out.text.reserve(room);
  for (auto it = rdata_.begin(); it != rdata_.end(); it = rdata_.erase(it)) {
    const std::string& key = it->first;
    const auto wire = std::span(reinterpret_cast<const uint8_t*>(key.data()) + 2, key.size() - 2);
    out.text += rdata_line(it->second.text, wire, it->second.entry);
    ends.push_back(out.text.size());
  }
  make_views(out, ends);
  sort_record_lines(out.lines, true);
  return out;
}
