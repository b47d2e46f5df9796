#include "tests/support/index_builder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>

#include "tgdb/kind_lines.h"
#include "tgdb/tgdb_writer.h"

std::string write_index(const std::string& path, std::vector<std::string> lines, const index_options& opts) {
  const tgdb_kind kind = opts.rdata ? tgdb_kind::rdata : opts.kind;
  const line_order order = kind_line_order(kind);
  std::stable_sort(lines.begin(), lines.end(), [&](auto& a, auto& b) { return order(a, b) < 0; });
  int64_t first = std::numeric_limits<uint32_t>::max(), last = 0;
  for (const std::string& line : lines) {
    for (const search_entry& e : kind_line_entries(kind, line))
      if (e.time_first != 0) first = std::min(first, e.time_first), last = std::max(last, e.time_last);
  }
  tgdb_write_options w{.kind = kind, .sync = false};
  if (opts.time_range && first <= last) {
    w.has_time_range = true;
    w.first_seen = uint32_t(first);
    w.last_seen = uint32_t(std::min<int64_t>(last, std::numeric_limits<uint32_t>::max()));
  }
  std::vector<std::string_view> views(lines.begin(), lines.end());
  std::string err;
  if (!tgdb_write(path, views, w, &err)) ADD_FAILURE() << "writing " << path << ": " << err;
  return path;
}
