// Loads mutated index files and walks every posting list and line.
//
// Index files are at least 1.1 MB, mostly an empty posting directory, so the
// input is a compact form that expands into a whole file:
//   'R' file...                  the file verbatim
//   other byte, then:
//     header[48]                 copied to offset 0
//     k (1 byte), k x {u32 trigram, u64 count, u64 offset}
//                                directory entries; offset 0 stays 0, any
//                                other is taken relative to P1 - 1
//     body...                    placed at P1 (string table, line index and
//                                posting lists)
// The seeds seed0..seed2 in the corpus are files of the index writer in this
// form (all their posting lists, bodies verbatim).
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "log/log.h"
#include "tgdb/tgdb.h"
#include "tgdb/tgdb_iter.h"

namespace {

constexpr size_t MAX_NREF = 1 << 24;
constexpr uint64_t WALK_CAP = 20000;

// Writes the file an input stands for into the memory file `fd`. Only the
// parts that differ from zero are written.
bool expand(const uint8_t* data, size_t size, int fd) {
  const auto put = [fd](const void* p, size_t n, uint64_t at) {
    return n == 0 || pwrite(fd, p, n, off_t(at)) == ssize_t(n);
  };
  if (ftruncate(fd, 0) != 0) return false;
  if (size == 0) return true;
  if (data[0] == 'R') return put(data + 1, size - 1, 0);
  std::vector<uint8_t> in(data + 1, data + size);
  in.resize(std::max<size_t>(in.size(), TGDB_HEADER_SIZE + 1), 0);
  const uint8_t* h = in.data();
  const uint64_t r = tgdb_header_decode(h).nref_size();
  if (r > MAX_NREF) return false;
  const uint64_t p1 = tgdb_string_table_offset(r);
  if (ftruncate(fd, off_t(p1)) != 0 || !put(h, TGDB_HEADER_SIZE, 0)) return false;
  size_t pos = TGDB_HEADER_SIZE;
  size_t k = in[pos++];
  for (; k > 0 && pos + 20 <= in.size(); --k, pos += 20) {
    const uint8_t* e = h + pos;
    uint32_t t = tgdb_get_u32(e) % TRIGRAM_COUNT;
    uint64_t offset = tgdb_get_u64(e + 12);
    if (offset != 0) offset += p1 - 1;
    uint8_t entry[16];
    memcpy(entry, e + 4, 8);
    for (int i = 0; i < 8; ++i) entry[8 + i] = uint8_t(offset >> (8 * i));
    if (!put(entry, 16, TGDB_HEADER_SIZE + r + TGDB_DIR_ENTRY_SIZE * uint64_t{t})) return false;
  }
  return pos >= in.size() || put(h + pos, in.size() - pos, p1);
}

void exercise(const tgdb_ptr& db) {
  index_walk walk;
  std::vector<int32_t> present;
  uint64_t budget = WALK_CAP;
  for (int32_t t = 0; t < TRIGRAM_COUNT; ++t) {
    const posting_list list = db->posting(t);
    if (list.empty()) continue;
    present.push_back(t);
    // Hostile lists can hold ranges of billions of lines: share one budget.
    tracker walker(list, walk, t);
    if (!walker.load()) continue;
    uint64_t v;
    while (budget > 0 && n_iter_next(walker, v)) --budget;
    tracker seeker(list, walk, t);
    seeker.load();
    for (uint64_t target = 0, step = 1; budget > 0 && seeker.op_get(v); step = step * 3 + 1, --budget) {
      target = std::max(target + step, v + 1);
      seeker.op_seek(target);
    }
  }
  // A query over the first few lists, as unions and intersections.
  if (present.size() >= 2) {
    auto query = trigram_query_create(TQ_UNION, 2, TQ_SET, 1);
    query->members[0]->ids = {present[0], present[1]};
    query->members[1]->ids = {present.back()};
    bool failed;
    if (auto src = make_candidate_source(db, query.get(), nullptr, failed)) {
      std::string_view line;
      for (uint64_t n = 0; n < WALK_CAP && src->get(line); ++n) {
      }
    }
  }
  bool failed;
  auto scan = make_candidate_source(db, nullptr, nullptr, failed);
  std::string_view line;
  uint64_t lines = 0;
  while (scan->get(line)) ++lines;
  // Lines in order (stepping on), then backwards (through the line index).
  tgdb_line_cursor cursor(*db);
  uint64_t n = 0;
  for (; n < WALK_CAP && cursor.line(n); ++n) {
  }
  for (uint64_t i = n + 70; i-- > 0;) cursor.line(i);
}

int memfd = -1;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  log_set_level(LOG_FAILURE);  // keep the fuzzer's output readable
  memfd = memfd_create("tgdb-fuzz", MFD_CLOEXEC);
  return memfd < 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (!expand(data, size, memfd)) return 0;
  const std::string path = "/proc/self/fd/" + std::to_string(memfd);
  if (auto db = tgdb_open(path.c_str())) exercise(db);
  return 0;
}
