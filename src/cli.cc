#include "cli.h"

#include <getopt.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "fileset/data_source.h"
#include "libmy/my_time.h"
#include "log/log.h"
#include "search.h"

namespace {

[[noreturn]] void fail(const char* program, bool show_usage) {
  if (show_usage) usage(program);
  exit(1);
}

}  // namespace

bool read_stdin_searches(const search_options& options, FILE* in) {
  char line[4096];
  while (fgets(line, sizeof line, in)) {
    line[strcspn(line, "\r\n")] = '\0';
    if (line[0] == '\0') continue;
    if (!run_search(options, line)) return false;
  }
  fputs("EOF\n", stderr);
  return true;
}

void usage(const char* name) {
  fputs("\n", stderr);
  fprintf(stderr,
          "Usage: %s <-f fileset | -l idxfile [-l idxfile2 ...]> [-s search_expr] [-g] [-j | -r] "
          "[-L #limit] [-t timeout] [-v[v]]\n",
          name);
  fputs("-f  performs a search against the contents of a tgdb fileset.\n", stderr);
  fputs("-l  specifies that the trigram index be loaded from the specified file or files, for multi-search.\n",
        stderr);
  fputs("-s  indicates an optional search string; otherwise, input will be read from stdin.\n", stderr);
  fputs("-g  enables globbing mode (default is regular expressions).\n", stderr);
  fputs("-j  enables output of results in json mode (ala vornbackendd).\n", stderr);
  fputs("-r  produces results in raw mode (as intermediate data).\n", stderr);
  fputs("-t  specify timeout in seconds since last search result. May be a decimal number for sub-second "
        "timeout.\n",
        stderr);
  fprintf(stderr, "-L  specifies a limit for results in search mode (default = %zu).\n",
          static_cast<size_t>(DEFAULT_LIMIT));
  fputs("-v  can be specified multiple times and increases output verbosity.\n", stderr);
  fputs("-A  specifies time after.\n", stderr);
  fputs("-B  specifies time before.\n", stderr);
  fputs("-c  selects 'complete' time matching.\n", stderr);
  fprintf(stderr, "Ex. 1: %s -l /path/to/index\n", name);
  fprintf(stderr, "Ex. 2: %s -l /path/to/index1 -l /path/to/index2\n\n", name);
}

int vornsearch_main(int argc, char** argv) {
  const char* program = argv[0] ? argv[0] : "vornsearch";
  search_options options;

  // The invocation name is used verbatim: a '%' in it is not a conversion.
  log_set_prefix_text(program);
  log_set_level(LOG_INFO);
  if (const char* env = getenv("VORN_LOGLEVEL")) {
    int level = log_level_parse(env);
    if (level < 0)
      fprintf(stderr, "Warning: invalid log level '%s' in VORN_LOGLEVEL\n", env);
    else
      log_set_level(level);
  }

  const char* expression = nullptr;
  index_list_ptr list;
  fileset_source_ptr fileset;
  // A second -f replaces the first without unloading it; the replaced
  // sources stay alive (and reachable) until the process ends.
  static auto* replaced_filesets = new std::vector<fileset_source_ptr>();

  int opt;
  while ((opt = getopt(argc, argv, "A:B:cf:gjl:L:rs:t:v")) != -1) {
    switch (opt) {
      case 'A':
        if (!parse_time_spec(optarg, options.after)) {
          fprintf(stderr, "invalid time '%s'\n", optarg);
          fail(program, false);
        }
        options.after_set = true;
        break;
      case 'B':
        if (!parse_time_spec(optarg, options.before)) {
          fprintf(stderr, "invalid time '%s'\n", optarg);
          fail(program, false);
        }
        options.before_set = true;
        break;
      case 'c':
        options.complete = true;
        break;
      case 'f':
        if (list) {
          fputs("-f may not be used with -l\n", stderr);
          fail(program, true);
        }
        if (access(optarg, R_OK) != 0) {
          fprintf(stderr, "Error: could not access fileset %s: %s\n", optarg, strerror(errno));
          fail(program, false);
        }
        if (fileset) replaced_filesets->push_back(std::move(fileset));
        fileset = fileset_init(optarg);
        break;
      case 'g':
        options.glob = true;
        break;
      case 'j':
        options.json = true;
        break;
      case 'l':
        if (fileset) {
          fputs("-l may not be used with -f\n", stderr);
          fail(program, true);
        }
        if (!list) list = index_list_create();
        if (!index_list_add(*list, optarg)) {
          fprintf(stderr, "Failed to add file %s\n", optarg);
          fail(program, false);
        }
        break;
      case 'L': {
        long value = strtol(optarg, nullptr, 10);
        options.limit = static_cast<uint64_t>(static_cast<int64_t>(static_cast<int32_t>(value)));
        if (options.limit == 0) {
          fprintf(stderr, "Invalid search limit specified: %s\n", optarg);
          fail(program, false);
        }
        break;
      }
      case 'r':
        options.raw = true;
        break;
      case 's':
        expression = optarg;
        break;
      case 't':
        options.timeout = strtod(optarg, nullptr);
        break;
      case 'v':
        log_set_level(log_get_level() + 1);
        break;
      default:
        fail(program, true);
    }
  }

  if (options.json && options.raw) {
    fputs("Error: cannot supply -j and -r options together.\n", stderr);
    fail(program, false);
  }
  if (!list && !fileset) {
    fputs("Error: must supply at least one of -l or -f\n", stderr);
    fail(program, true);
  }

  log_printf(log_get_level(), "Starting, logging level '%s'", log_level_name(log_get_level()));
  if (fileset) options.source = fileset_data_source(*fileset);
  if (list) options.source = index_list_data_source(*list);

  bool ok = expression ? run_search(options, expression) : read_stdin_searches(options);

  fileset.reset();
  list.reset();
  if (ok) {
    log_printf(LOG_INFO, "Exiting...");
    return 0;
  }
  log_printf(LOG_FAILURE, "Error encountered while running search");
  return 1;
}
