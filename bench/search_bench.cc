// Search benchmark: a large owner-name index made with the writer core,
// searched by the built vornsearch for typical expressions, next to grep over
// the same keys as plain text (what a user could do without an index).
// Prints one table row per expression; the generated files are deleted.
//   search_bench [--lines N] [--tmp DIR]
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "tgdb/record_line.h"
#include "tgdb/tgdb_writer.h"

namespace {

// A few owner names stand out, as the things analysts look for do.
std::string owner(uint64_t i, std::mt19937_64& rng) {
  static const char* words[] = {"www", "mail", "api", "cdn", "vpn", "dev", "shop", "static", "img", "portal"};
  char buf[96];
  uint64_t r = rng() % 1000;
  if (r == 0)
    snprintf(buf, sizeof buf, "login%" PRIu64 ".secure-bank%" PRIu64 ".com", i % 97, i % 13);
  else if (r == 1)
    snprintf(buf, sizeof buf, "paypa1-verify%" PRIu64 ".net", i % 31);
  else
    snprintf(buf, sizeof buf, "%s%" PRIu64 ".zone%" PRIu64 ".example", words[rng() % 10], i % 5000, i % 4999);
  return buf;
}

double run_seconds(const std::string& command) {
  auto t0 = std::chrono::steady_clock::now();
  int status = system(command.c_str());
  double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  if (status != 0 && !(WIFEXITED(status) && WEXITSTATUS(status) == 1))
    fprintf(stderr, "failed (%d): %s\n", status, command.c_str());
  return s;
}

double best_of(int n, const std::string& command) {
  double best = 1e9;
  for (int i = 0; i < n; ++i) best = std::min(best, run_seconds(command));
  return best;
}

std::string shell_quote(const std::string& s) {
  std::string out = "'";
  for (char c : s) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return out + "'";
}

std::string read_first_line(const std::string& path) {
  FILE* f = fopen(path.c_str(), "r");
  char buf[64] = "";
  if (f) {
    if (!fgets(buf, sizeof buf, f)) buf[0] = '\0';
    fclose(f);
  }
  buf[strcspn(buf, "\n")] = '\0';
  return buf;
}

}  // namespace

int main(int argc, char** argv) {
  uint64_t lines = 5000000;
  std::string tmp = "/tmp";
  for (int i = 1; i + 1 < argc; i += 2) {
    if (!strcmp(argv[i], "--lines")) lines = strtoull(argv[i + 1], nullptr, 10);
    if (!strcmp(argv[i], "--tmp")) tmp = argv[i + 1];
  }
  const std::string dir = tmp + "/vorn-search-bench-" + std::to_string(getpid());
  std::filesystem::create_directories(dir);
  const std::string index = dir + "/names.rrname.tgdb", text = dir + "/names.txt";

  std::mt19937_64 rng(42);
  std::vector<std::string> keyed;
  keyed.reserve(lines);
  for (uint64_t i = 0; i < lines; ++i) keyed.push_back(owner(i, rng) + "\t4:65000000:1");
  std::sort(keyed.begin(), keyed.end(), [](const std::string& a, const std::string& b) {
    return compare_rrname_lines(a, b) < 0;
  });
  keyed.erase(std::unique(keyed.begin(), keyed.end()), keyed.end());
  {
    FILE* f = fopen(text.c_str(), "w");
    for (const auto& l : keyed) fprintf(f, "%.*s\n", int(l.find('\t')), l.c_str());
    fclose(f);
  }
  std::vector<std::string_view> views(keyed.begin(), keyed.end());
  std::string err;
  if (!tgdb_write(index, views, {.sync = false}, &err)) {
    fprintf(stderr, "write failed: %s\n", err.c_str());
    return 1;
  }
  printf("%zu distinct owner names, index %.0f MB, plain keys %.0f MB\n\n", keyed.size(),
         std::filesystem::file_size(index) / 1e6, std::filesystem::file_size(text) / 1e6);

  const char* expressions[] = {"login[0-9]+\\.", "^paypa[l1]-", "secure-bank1[0-2]\\.com$",
                               "(vpn|portal)42\\.zone", "^mail4999\\.", "zone1234\\.example$", "[0-9]{4}\\.zone42\\."};
  printf("| expression | results | vornsearch | grep -E -i | speed-up |\n|---|---:|---:|---:|---:|\n");
  for (const char* e : expressions) {
    const std::string q = shell_quote(e);
    const std::string count_file = dir + "/count";
    run_seconds(std::string(VORNSEARCH_BENCH_BIN) + " -r -L -1 -l " + index + " -s " + q + " 2>/dev/null | wc -l > " +
                count_file);
    const std::string results = read_first_line(count_file);
    double vs = best_of(3, std::string(VORNSEARCH_BENCH_BIN) + " -r -L -1 -l " + index + " -s " + q + " >" +
                               count_file + " 2>&1");
    // Not to /dev/null: grep notices it and stops at the first match.
    double gr = best_of(3, "grep -E -i -c " + q + " " + text + " >" + count_file);
    printf("| `%s` | %s | %.3f s | %.3f s | %.0fx |\n", e, results.c_str(), vs, gr, gr / vs);
    fflush(stdout);
  }
  if (!getenv("VORN_BENCH_KEEP")) std::filesystem::remove_all(dir);
  return 0;
}
