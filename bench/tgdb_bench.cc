// Index benchmarks: intersecting and merging posting lists of a million
// entries, and scanning and looking up lines of a large string table.
// Usage: tgdb_bench [--scan-mb N] [--tmp DIR]   (defaults: 1024 MB in /tmp)
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "tgdb/posting_list.h"
#include "tgdb/tgdb.h"
#include "tgdb/tgdb_iter.h"
#include "tgdb/tgdb_writer.h"

namespace {

using clock_type = std::chrono::steady_clock;

double seconds_since(clock_type::time_point t) {
  return std::chrono::duration<double>(clock_type::now() - t).count();
}

// Best time of `reps` runs of `f`, which returns a checksum.
template <class F>
double best_of(int reps, F f, uint64_t& check) {
  double best = 1e30;
  for (int i = 0; i < reps; ++i) {
    auto t = clock_type::now();
    check = f();
    best = std::min(best, seconds_since(t));
  }
  return best;
}

std::vector<uint64_t> random_list(std::mt19937_64& rng, size_t n, uint64_t span) {
  std::vector<uint64_t> v;
  v.reserve(n + n / 8);
  while (v.size() < n) {
    for (size_t i = v.size(); i < n + n / 16; ++i) v.push_back(rng() % span);
    std::sort(v.begin(), v.end());
    v.erase(std::unique(v.begin(), v.end()), v.end());
  }
  v.resize(n);
  return v;
}

uint64_t combine(bool is_union, const std::vector<std::vector<uint8_t>>& lists, search_deadline& deadline) {
  index_walk walk(&deadline);
  n_iter_builder b(is_union ? n_iter_builder::kind::union_of : n_iter_builder::kind::intersection_of);
  for (const auto& l : lists) {
    auto t = std::make_unique<tracker>(posting_list_of(l), walk, 0);
    if (!t->load()) abort();
    b.add(std::move(t));
  }
  n_iter_ptr it = b.finish();
  uint64_t n = 0, v;
  while (n_iter_next(*it, v)) ++n;
  return n;
}

void bench_lists() {
  std::mt19937_64 rng(11);
  search_deadline deadline;
  struct shape {
    const char* name;
    std::vector<uint64_t> a, b;
  };
  std::vector<shape> shapes;
  shapes.push_back({"sparse 1M x 1M over 20M lines", random_list(rng, 1000000, 20000000),
                    random_list(rng, 1000000, 20000000)});
  shapes.push_back({"dense 1M x 1M over 1.5M lines", random_list(rng, 1000000, 1500000),
                    random_list(rng, 1000000, 1500000)});
  std::vector<uint64_t> runs_a, runs_b;
  for (uint64_t i = 0; runs_a.size() < 1000000; ++i)
    if ((i / 1000) % 2 == 0) runs_a.push_back(i);
  for (uint64_t i = 500; runs_b.size() < 1000000; ++i)
    if ((i / 700) % 3 != 0) runs_b.push_back(i);
  shapes.push_back({"runs 1M x 1M (consecutive stretches)", runs_a, runs_b});
  shapes.push_back({"skewed 1M x 1K over 20M lines", random_list(rng, 1000000, 20000000),
                    random_list(rng, 1000, 20000000)});

  printf("%-40s %9s %9s %10s %10s %10s %10s\n", "posting lists", "bytes A", "bytes B", "AND ms", "OR ms",
         "ref AND ms", "hits");
  for (const shape& s : shapes) {
    std::vector<std::vector<uint8_t>> enc{encode_posting_list(s.a), encode_posting_list(s.b)};
    uint64_t hits, merged, ref;
    double t_and = best_of(3, [&] { return combine(false, enc, deadline); }, hits);
    double t_or = best_of(3, [&] { return combine(true, enc, deadline); }, merged);
    double t_ref = best_of(3, [&] {
      std::vector<uint64_t> out;
      std::set_intersection(s.a.begin(), s.a.end(), s.b.begin(), s.b.end(), std::back_inserter(out));
      return uint64_t(out.size());
    }, ref);
    if (ref != hits) {
      fprintf(stderr, "intersection mismatch: %lu vs %lu\n", hits, ref);
      exit(1);
    }
    printf("%-40s %9zu %9zu %10.2f %10.2f %10.2f %10lu\n", s.name, enc[0].size(), enc[1].size(), t_and * 1e3,
           t_or * 1e3, t_ref * 1e3, hits);
  }
  // A walk of one list, for the cost per entry.
  std::vector<std::vector<uint8_t>> one{encode_posting_list(shapes[0].a)};
  uint64_t n;
  double t = best_of(3, [&] { return combine(false, one, deadline); }, n);
  printf("walk of one sparse 1M list: %.2f ms (%.1f ns per line)\n\n", t * 1e3, t * 1e9 / double(n));
}

void bench_table(uint64_t megabytes, const std::string& tmp) {
  const std::string path = tmp + "/tgdb-bench-" + std::to_string(getpid()) + ".tgdb";
  // Owner names of realistic shape, sorted, each with a record tail.
  tgdb_writer w;
  std::string err;
  if (!w.open(path, {.sync = false}, &err)) {
    fprintf(stderr, "%s\n", err.c_str());
    exit(1);
  }
  const uint64_t target = megabytes << 20;
  const std::string tail = "\tA\t1700000000\t1710000000\t42\t" + std::string(40, 'r');
  char key[64];
  uint64_t bytes = 0, lines = 0;
  auto t0 = clock_type::now();
  while (bytes < target) {
    int n = snprintf(key, sizeof key, "h%09lu.z%03lu.example", lines, lines % 997);
    std::string line = std::string(key, size_t(n)) + tail;
    if (!w.add(line, &err)) {
      fprintf(stderr, "%s\n", err.c_str());
      exit(1);
    }
    bytes += line.size() + 1;
    ++lines;
  }
  if (!w.finish(&err)) {
    fprintf(stderr, "%s\n", err.c_str());
    exit(1);
  }
  double t_write = seconds_since(t0);
  printf("writer: %lu lines, %.0f MB string table in %.1f s (%.0f MB/s, %.2f M lines/s)\n", lines,
         double(bytes) / 1e6, t_write, double(bytes) / 1e6 / t_write, double(lines) / 1e6 / t_write);

  auto db = tgdb_open(path.c_str());
  unlink(path.c_str());  // stays mapped until the handle goes
  if (!db) exit(1);
  search_deadline deadline;
  uint64_t check;
  for (const char* pass : {"first", "second"}) {
    double t = best_of(1, [&] {
      bool failed;
      auto src = make_candidate_source(db, nullptr, &deadline, failed);
      std::string_view line;
      uint64_t n = 0, sum = 0;
      while (src->get(line)) ++n, sum += line.size();
      return n + 0 * sum;
    }, check);
    printf("table scan (%s pass): %lu lines in %.3f s (%.2f GB/s)\n", pass, check, t, double(bytes) / 1e9 / t);
  }
  double t = best_of(1, [&] {
    tgdb_line_cursor lines(*db);
    uint64_t n = 0;
    while (lines.line(n)) ++n;
    return n;
  }, check);
  printf("line by number, in order: %lu lines in %.3f s (%.1f ns per line)\n", check, t, t * 1e9 / double(check));
  std::mt19937_64 rng(1);
  const uint64_t probes = 1000000;
  t = best_of(1, [&] {
    tgdb_line_cursor cursor(*db);
    uint64_t found = 0;
    for (uint64_t i = 0; i < probes; ++i) found += cursor.line(rng() % lines).has_value();
    return found;
  }, check);
  printf("line by number, random: %lu lookups in %.3f s (%.0f ns per lookup)\n", probes, t, t * 1e9 / double(probes));
}

}  // namespace

int main(int argc, char** argv) {
  uint64_t megabytes = 1024;
  std::string tmp = "/tmp";
  for (int i = 1; i + 1 < argc; i += 2) {
    if (!strcmp(argv[i], "--scan-mb")) megabytes = strtoull(argv[i + 1], nullptr, 10);
    if (!strcmp(argv[i], "--tmp")) tmp = argv[i + 1];
  }
  bench_lists();
  bench_table(megabytes, tmp);
  return 0;
}
