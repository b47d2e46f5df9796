// Baking benchmark: generates passive-DNS observations (deterministically)
// into a temporary directory, runs the built ixbake over them and reports
// wall time, CPU time and peak memory of the run. Everything generated is
// deleted afterwards.
// Usage: ixbake_bench [--observations N] [--threads N] [--tmp DIR]
//        (defaults: 10,000,000 observations, one thread per processor, /tmp)
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

namespace {

// A few million distinct owners under some thousands of zones, record data
// drawn from pools so that values repeat as they do in real collections.
void generate(const std::string& path, uint64_t n) {
  FILE* f = fopen(path.c_str(), "w");
  if (!f) {
    perror(path.c_str());
    exit(1);
  }
  std::mt19937_64 rng(42);
  const uint64_t owners = std::max<uint64_t>(1, n / 5);
  char line[512];
  for (uint64_t i = 0; i < n; ++i) {
    const uint64_t o = rng() % owners;
    const unsigned zone = unsigned(o % 5000);
    const unsigned t = unsigned(rng() % 100);
    const uint32_t first = 1672531200u + uint32_t(rng() % 94608000u);
    const uint32_t last = first + uint32_t(rng() % 8640000u);
    const unsigned count = 1 + unsigned(rng() % 50);
    const char* type;
    char rdata[160];
    if (t < 55) {
      type = "A";
      snprintf(rdata, sizeof rdata, "\"%u.%u.%u.%u\"", 10 + unsigned(o % 200), unsigned(rng() % 256),
               unsigned(rng() % 64), unsigned(rng() % 256));
    } else if (t < 65) {
      type = "AAAA";
      snprintf(rdata, sizeof rdata, "\"2001:db8:%x:%x::%x\"", unsigned(o % 4096), unsigned(rng() % 256),
               unsigned(rng() % 65536));
    } else if (t < 82) {
      type = "CNAME";
      snprintf(rdata, sizeof rdata, "\"edge-%u.cdn%u.example.net.\"", unsigned(rng() % 20000), unsigned(rng() % 40));
    } else if (t < 88) {
      type = "MX";
      snprintf(rdata, sizeof rdata, "[\"10 mx1.zone%u.example.\",\"20 mx2.zone%u.example.\"]", zone, zone);
    } else if (t < 94) {
      type = "TXT";
      snprintf(rdata, sizeof rdata, "\"\\\"v=spf1 ip4:192.0.2.%u include:_spf.zone%u.example ~all\\\"\"",
               unsigned(rng() % 256), unsigned(rng() % 300));
    } else {
      type = "NS";
      snprintf(rdata, sizeof rdata, "\"ns%u.dns%u.example.\"", unsigned(rng() % 4), unsigned(zone % 97));
    }
    const int len = snprintf(line, sizeof line,
                             "{\"rrname\":\"h%" PRIu64 ".zone%u.example.\",\"rrtype\":\"%s\",\"rdata\":%s,"
                             "\"time_first\":%u,\"time_last\":%u,\"count\":%u}\n",
                             o, zone, type, rdata, first, last, count);
    fwrite(line, 1, size_t(len), f);
  }
  if (fclose(f) != 0) {
    perror(path.c_str());
    exit(1);
  }
}

}  // namespace

int main(int argc, char** argv) {
  uint64_t n = 10'000'000;
  std::string threads, tmp = "/tmp";
  for (int i = 1; i + 1 < argc; i += 2) {
    if (!strcmp(argv[i], "--observations")) n = strtoull(argv[i + 1], nullptr, 10);
    else if (!strcmp(argv[i], "--threads")) threads = argv[i + 1];
    else if (!strcmp(argv[i], "--tmp")) tmp = argv[i + 1];
  }
  std::string dir = tmp + "/ixbake-bench.XXXXXX";
  if (!mkdtemp(dir.data())) {
    perror("mkdtemp");
    return 1;
  }
  const std::string input = dir + "/observations.jsonl";
  auto t0 = std::chrono::steady_clock::now();
  generate(input, n);
  const double gen_s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  const auto size = std::filesystem::file_size(input);
  printf("generated %" PRIu64 " observations, %.0f MB, in %.1f s\n", n, double(size) / 1e6, gen_s);
  fflush(stdout);

  std::vector<std::string> args = {IXBAKE_BIN, "-q", "-o", dir + "/bench"};
  if (!threads.empty()) args.insert(args.end(), {"--threads", threads});
  args.push_back(input);
  std::vector<char*> argv2;
  for (auto& a : args) argv2.push_back(a.data());
  argv2.push_back(nullptr);

  t0 = std::chrono::steady_clock::now();
  const pid_t pid = fork();
  if (pid == 0) {
    execv(argv2[0], argv2.data());
    perror("execv");
    _exit(127);
  }
  int status = 0;
  rusage ru{};
  wait4(pid, &status, 0, &ru);
  const double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  const double cpu = double(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) +
                     double(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
  const bool ok = WIFEXITED(status) && WEXITSTATUS(status) == 0;
  if (ok) {
    const auto rr = std::filesystem::file_size(dir + "/bench.rrname.tgdb");
    const auto rd = std::filesystem::file_size(dir + "/bench.rdata.tgdb");
    printf("baked in %.1f s wall, %.1f s CPU (%.2f cores busy), peak RSS %.0f MiB, %.2f M observations/s\n", wall,
           cpu, cpu / wall, double(ru.ru_maxrss) / 1024.0, double(n) / wall / 1e6);
    printf("files: rrname %.0f MB, rdata %.0f MB\n", double(rr) / 1e6, double(rd) / 1e6);
  } else {
    printf("ixbake failed (status %d)\n", status);
  }
  std::filesystem::remove_all(dir);
  return ok ? 0 : 1;
}
