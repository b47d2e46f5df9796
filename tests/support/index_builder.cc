#include "tests/support/index_builder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>

#include "tgdb/record_line.h"
#include "tgdb/tgdb_writer.h"

namespace {

std::vector<search_entry> entries_of(const std::string& line, bool rdata) {
  const size_t tab = line.find('\t');
  if (tab == std::string::npos) return {};
  const std::string_view value = std::string_view(line).substr(tab + 1);
  if (!rdata) return parse_rrname_value(value);
  if (auto v = parse_rdata_value(value)) return {v->entry};
  return {};
}

uint32_t clamp(int64_t t) {
  return uint32_t(std::clamp<int64_t>(t, 0, std::numeric_limits<uint32_t>::max()));
}

}  // namespace

std::string write_index(const std::string& path, std::vector<std::string> lines, const index_options& opts) {
  const auto order = opts.rdata ? compare_rdata_lines : compare_rrname_lines;
  std::stable_sort(lines.begin(), lines.end(), [&](const std::string& a, const std::string& b) {
    return order(a, b) < 0;
  });

  tgdb_write_options w{.rdata = opts.rdata, .sync = false};
  int64_t first = std::numeric_limits<int64_t>::max(), last = 0;
  for (const std::string& line : lines)
    for (const search_entry& e : entries_of(line, opts.rdata)) {
      if (e.time_first == 0) continue;
      first = std::min(first, e.time_first);
      last = std::max(last, e.time_last);
    }
  if (opts.time_range && (first <= last || opts.first_seen || opts.last_seen)) {
    w.has_time_range = true;
    w.first_seen = opts.first_seen.value_or(clamp(first));
    w.last_seen = opts.last_seen.value_or(clamp(last));
  }

  std::vector<std::string_view> views(lines.begin(), lines.end());
  std::string err;
  if (!tgdb_write(path, views, w, &err)) ADD_FAILURE() << "writing " << path << ": " << err;
  return path;
}
