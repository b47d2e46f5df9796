#include "tgdb/tgdb_check.h"

#include <cinttypes>
#include <limits>
#include <memory>
#include <vector>

#include "libmy/my_text.h"
#include "libmy/ubuf.h"
#include "tgdb/posting_list.h"
#include "tgdb/kind_lines.h"
#include "tgdb/tgdb.h"

namespace {

constexpr uint64_t NONE = std::numeric_limits<uint64_t>::max();

std::string list_region(int32_t trigram) {
  char name[4];
  trigram_name(trigram, name);
  return std::string("posting list of trigram '") + name + "'";
}

// Reads one posting list front to back, checking that it decodes and
// ascends.
class posting_reader {
 public:
  explicit posting_reader(const posting_list& list) : list_(list) {}

  // The next line number; NONE at the end or at a fault (fault() says).
  uint64_t next() {
    if (at_ < count_) return entry_.packed_count ? entry_.packed[at_++] : entry_.first + at_++;
    if (next_entry_ >= list_.count || fault_ != posting_fault::none) return NONE;
    fault_entry_ = next_entry_;
    fault_ = decode_posting_entry(list_, next_entry_, entry_);
    if (fault_ == posting_fault::none && values_ > 0 && entry_.first <= last_) fault_ = posting_fault::descending;
    if (fault_ != posting_fault::none) return NONE;
    next_entry_ = entry_.end + 1;
    at_ = 0;
    count_ = entry_.packed_count ? entry_.packed_count : entry_.last - entry_.first + 1;
    values_ += count_;
    last_ = entry_.last;
    return next();
  }

  // The decoder's words for the fault met, if any.
  std::string fault(int32_t trigram) const {
    if (fault_ == posting_fault::none) return "";
    return describe_posting_fault(list_, fault_entry_, fault_, trigram, last_).front();
  }
  uint64_t values() const { return values_; }

 private:
  posting_list list_;
  uint64_t next_entry_ = 0;
  posting_entry entry_;
  uint64_t at_ = 0, count_ = 0;  // within the decoded entry
  uint64_t last_ = 0;            // the decoded entry's last line
  uint64_t values_ = 0;
  posting_fault fault_ = posting_fault::none;
  uint64_t fault_entry_ = 0;
};

class checker {
 public:
  explicit checker(const tgdb& db) : db_(db), table_(db.string_table()) {}

  std::optional<std::string> run() {
    if (!open_lists()) return fault_;
    uint64_t n = 0;
    for (size_t at = 0; at < table_.size(); ++n) {
      const size_t nl = std::min(table_.find('\n', at), table_.size());
      if (!check_line(n, at, table_.substr(at, nl - at))) return fault_;
      at = nl + 1;
    }
    if (!check_line_index(n) || !close_lists(n)) return fault_;
    return std::nullopt;
  }

 private:
  bool fail(const std::string& region, const std::string& what) {
    fault_ = visible_text(db_.path()) + ": " + region + ": " + what;
    return false;
  }

  bool open_lists() {
    readers_.resize(size_t(TRIGRAM_COUNT));
    pending_.assign(size_t(TRIGRAM_COUNT), NONE);
    for (int32_t t = 0; t < TRIGRAM_COUNT; ++t) {
      const posting_list list = db_.posting(t);
      if (list.empty()) continue;
      readers_[size_t(t)] = std::make_unique<posting_reader>(list);
      if (!advance(t)) return false;
    }
    return true;
  }

  bool advance(int32_t t) {
    posting_reader& r = *readers_[size_t(t)];
    pending_[size_t(t)] = r.next();
    const std::string fault = r.fault(t);
    return fault.empty() || fail(list_region(t), fault);
  }

  // One line at byte `at` of the string table: its kind, its order, its
  // time range, and the posting lists of its trigrams.
  bool check_line(uint64_t n, size_t at, std::string_view line) {
    const std::string region = ubuf_fmt("line %" PRIu64, n);
    if (n % TGDB_LINES_PER_CHECKPOINT == 0) starts_.push_back(at);
    if (line.empty()) return fail(region, "empty line");
    const size_t tab = line.find('\t');
    if (tab == std::string_view::npos) return fail(region, "no tab after the key");
    const std::vector<search_entry> entries = kind_line_entries(db_.kind(), line);
    if (entries.empty()) return fail(region, not_a_line());
    if (n > 0 && kind_line_order(db_.kind())(previous_, line) > 0)
      return fail(region, "orders before the line above it");
    previous_ = line;
    for (const search_entry& e : entries) {
      if (db_.has_time_range() && (e.time_first < db_.first_seen() || e.time_last > db_.last_seen()))
        return fail(region, ubuf_fmt("seen %" PRId64 " to %" PRId64 ", outside the file's time range", e.time_first,
                                     e.time_last));
    }
    for (int32_t t : tgdb_line_trigrams(line)) {
      const uint64_t next = pending_[size_t(t)];
      if (next == n) {
        if (!advance(t)) return false;
      } else if (next < n) {
        return fail(list_region(t), ubuf_fmt("names line %" PRIu64 ", which does not hold the trigram", next));
      } else {
        return fail(list_region(t), ubuf_fmt("does not name line %" PRIu64 ", which holds the trigram", n));
      }
    }
    return true;
  }

  std::string not_a_line() const {
    switch (db_.kind()) {
      case tgdb_kind::rrname:
        return "not an owner-name record line";
      case tgdb_kind::rdata:
        return "not an rdata record line";
      default:
        return std::string("not a ") + tgdb_kind_name(db_.kind()) + " record line";
    }
  }

  // Every list is used up, and the nref table counts what each held.
  bool close_lists(uint64_t lines) {
    for (int32_t t = 0; t < TRIGRAM_COUNT; ++t) {
      const uint64_t next = pending_[size_t(t)];
      if (next != NONE && next >= lines)
        return fail(list_region(t), ubuf_fmt("names line %" PRIu64 ", past the last line", next));
      if (next != NONE)
        return fail(list_region(t), ubuf_fmt("names line %" PRIu64 ", which does not hold the trigram", next));
      const uint64_t held = readers_[size_t(t)] ? readers_[size_t(t)]->values() : 0;
      if (db_.layout().nref_offset && db_.posting(t).nref != held)
        return fail("nref table", ubuf_fmt("counts %" PRIu64 " lines for trigram %d, its list %" PRIu64,
                                           db_.posting(t).nref, t, held));
    }
    return true;
  }

  // Each entry of the line index leads, through its checkpoint chain, to
  // the lines 64k, 64k+16, 64k+32 and 64k+48, and to nothing else.
  bool check_line_index(uint64_t lines) {
    const std::span<const uint8_t> index = db_.line_index();
    const uint64_t blocks = (lines + TGDB_LINES_PER_ENTRY - 1) / TGDB_LINES_PER_ENTRY;
    if (index.size() != blocks * TGDB_LINE_ENTRY_SIZE)
      return fail("line index", ubuf_fmt("holds %zu bytes for %" PRIu64 " lines", index.size(), lines));
    for (uint64_t k = 0; k < blocks; ++k) {
      const tgdb_line_entry e = tgdb_line_entry_at(index, k);
      uint64_t reached = e.offset;
      for (unsigned j = 0; j < 4; ++j) {
        const size_t mark = size_t(4 * k + j);
        if (j > 0 && e.half_distance[j - 1] == 0) break;
        if (j > 0) reached += 2 * uint64_t{e.half_distance[j - 1]};
        const bool newline_before = reached < table_.size() && table_[reached] == '\n';
        if (mark >= starts_.size() || reached + newline_before != starts_[mark])
          return fail("line index", ubuf_fmt("entry %" PRIu64 " does not lead to the start of line %zu", k, mark * 16));
      }
    }
    return true;
  }

  const tgdb& db_;
  std::string_view table_;
  std::string fault_;
  std::vector<std::unique_ptr<posting_reader>> readers_;
  std::vector<uint64_t> pending_;  // each list's next line; NONE: used up
  std::vector<size_t> starts_;     // where every 16th line starts
  std::string_view previous_;
};

}  // namespace

std::optional<std::string> tgdb_check(const char* path) {
  std::string err;
  tgdb_ptr db = tgdb_load(path, err);
  if (!db) return visible_text(path) + ": " + err;
  return checker(*db).run();
}
