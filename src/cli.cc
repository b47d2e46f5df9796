#include "cli.h"

#include <getopt.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <vector>

#include "fileset/data_source.h"
#include "libmy/my_text.h"
#include "libmy/my_time.h"
#include "libmy/version.h"
#include "log/log.h"
#include "search.h"

namespace {

constexpr char short_options[] = "A:B:cf:gjl:L:rs:t:v";

// Long options only: values past every character, so that no short option
// changes meaning.
enum long_only_option { help_option = 256, version_option };
constexpr option long_options[] = {
    {"help", no_argument, nullptr, help_option},
    {"version", no_argument, nullptr, version_option},
    {nullptr, 0, nullptr, 0},
};

constexpr char help_text[] =
    "Times for -A and -B are UTC unless they carry an offset:\n"
    "  2025-12-01                  the start of that day\n"
    "  \"2025-12-01 13:45:00\"       also 2025-12-01T13:45:00, and without the seconds\n"
    "  2025-12-01T13:45:00Z        ISO 8601, with Z or an offset such as +02:00 or -0500\n"
    "  1764547200                  seconds since 1970-01-01 00:00:00 UTC\n"
    "  -3600                       that many seconds ago\n"
    "  1h30m, 2w1d, 90s            that long ago (units s, m, h, d, w, in any case)\n"
    "  \"\"                          now\n"
    "\n"
    "-L -1 means no limit. When the limit stops a search that has more results, the log says so.\n"
    "\n"
    "Without -s, expressions are read from standard input, one per line. Empty lines are\n"
    "skipped, a carriage return ends an expression, a line longer than 4095 bytes is split in\n"
    "two, and the first expression that fails ends the run. \"EOF\" is logged at the end.\n"
    "\n"
    "A set file (-f) names one index file per line, exactly as written (no comments or\n"
    "blanks); relative paths are taken from the set file's directory. It is read again when\n"
    "it changes, at most every 5 seconds.\n"
    "\n"
    "Exit status: 0 when every search ran, also when one timed out or reached its limit;\n"
    "1 on a bad option or argument, an unreadable index or set file, a pattern that does not\n"
    "compile, or a search with no index file to run on.\n";

// What the command line sets up for the run.
struct command_line {
  search_options options;
  const char* expression = nullptr;  // -s; none: read standard input
  index_list_ptr list;
  fileset_source_ptr fileset;
};

// The exit status when the run ends while its command line is read; none to
// go on.
using early_exit = std::optional<int>;

early_exit failure(const char* program, bool show_usage) {
  if (show_usage) usage(program);
  return 1;
}

void start_logging(const char* program) {
  // The invocation name is the prefix as it is, never a format: a '%' in it
  // (a name such as "%s%n") would otherwise read or write memory.
  log_set_prefix_text(program);
  log_set_level(LOG_INFO);
  if (const char* env = getenv("VORN_LOGLEVEL")) {
    const int level = log_level_parse(env);
    if (level < 0)
      fprintf(stderr, "Warning: invalid log level '%s' in VORN_LOGLEVEL\n", env);
    else
      log_set_level(level);
  }
}

early_exit read_time(const char* arg, int64_t& out, bool& set, const char* program) {
  if (!parse_time_spec(arg, out)) {
    fprintf(stderr, "invalid time '%s'\n", arg);
    return failure(program, false);
  }
  set = true;
  return std::nullopt;
}

early_exit open_fileset(command_line& cl, const char* path, const char* program) {
  // A second -f replaces the first without unloading it; the replaced
  // sources stay alive (and reachable) until the process ends.
  static auto* replaced_filesets = new std::vector<fileset_source_ptr>();
  if (cl.list) {
    fputs("-f may not be used with -l\n", stderr);
    return failure(program, true);
  }
  if (access(path, R_OK) != 0) {
    fprintf(stderr, "Error: could not access fileset %s: %s\n", path, strerror(errno));
    return failure(program, false);
  }
  if (cl.fileset) replaced_filesets->push_back(std::move(cl.fileset));
  cl.fileset = fileset_init(path);
  return std::nullopt;
}

early_exit add_index_file(command_line& cl, const char* path, const char* program) {
  if (cl.fileset) {
    fputs("-l may not be used with -f\n", stderr);
    return failure(program, true);
  }
  if (!cl.list) cl.list = index_list_create();
  if (!index_list_add(*cl.list, path)) {
    fprintf(stderr, "Failed to add file %s\n", path);
    return failure(program, false);
  }
  return std::nullopt;
}

// Narrowed to 32 bits and widened again with its sign, so -1 is the largest
// limit; anything whose low 32 bits are zero is refused.
early_exit read_limit(const char* arg, uint64_t& limit, const char* program) {
  const long value = strtol(arg, nullptr, 10);
  limit = static_cast<uint64_t>(static_cast<int64_t>(static_cast<int32_t>(value)));
  if (limit != 0) return std::nullopt;
  fprintf(stderr, "Invalid search limit specified: %s\n", arg);
  return failure(program, false);
}

// Each option acts as it is read.
early_exit apply_option(int opt, const char* arg, command_line& cl, const char* program) {
  search_options& o = cl.options;
  switch (opt) {
    case 'A': return read_time(arg, o.after, o.after_set, program);
    case 'B': return read_time(arg, o.before, o.before_set, program);
    case 'c': o.complete = true; break;
    case 'f': return open_fileset(cl, arg, program);
    case 'g': o.glob = true; break;
    case 'j': o.json = true; break;
    case 'l': return add_index_file(cl, arg, program);
    case 'L': return read_limit(arg, o.limit, program);
    case 'r': o.raw = true; break;
    case 's': cl.expression = arg; break;
    case 't': o.timeout = strtod(arg, nullptr); break;  // no number: no time-out
    case 'v': log_set_level(log_get_level() + 1); break;
    case help_option:
      usage(program, stdout);
      fputs(help_text, stdout);
      return 0;
    case version_option:
      printf("vornsearch %s\n", VORN_VERSION);
      return 0;
    default: return failure(program, true);  // getopt has said what was wrong
  }
  return std::nullopt;
}

// What the options leave to check once they are all read. `operand` is the
// first argument that is not an option, if any.
early_exit check_command_line(const command_line& cl, const char* operand, const char* program) {
  if (operand) {
    fprintf(stderr, "unexpected argument '%s': give each index file with its own -l\n",
            visible_text(operand).c_str());
    return failure(program, false);
  }
  if (cl.options.json && cl.options.raw) {
    fputs("Error: cannot supply -j and -r options together.\n", stderr);
    return failure(program, false);
  }
  if (!cl.list && !cl.fileset) {
    fputs("Error: must supply at least one of -l or -f\n", stderr);
    return failure(program, true);
  }
  return std::nullopt;
}

early_exit read_command_line(int argc, char** argv, command_line& cl, const char* program) {
  int opt;
  while ((opt = getopt_long(argc, argv, short_options, long_options, nullptr)) != -1)
    if (early_exit status = apply_option(opt, optarg, cl, program)) return status;
  return check_command_line(cl, optind < argc ? argv[optind] : nullptr, program);
}

bool run_searches(command_line& cl) {
  log_printf(log_get_level(), "Starting, logging level '%s'", log_level_name(log_get_level()));
  if (cl.fileset) cl.options.source = fileset_data_source(*cl.fileset);
  if (cl.list) cl.options.source = index_list_data_source(*cl.list);
  const bool ok = cl.expression ? run_search(cl.options, cl.expression) : read_stdin_searches(cl.options);
  cl.fileset.reset();
  cl.list.reset();
  return ok;
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

void usage(const char* name, FILE* stream) {
  fputs("\n", stream);
  fprintf(stream,
          "Usage: %s <-f fileset | -l idxfile [-l idxfile2 ...]> [-s search_expr] [-g] [-j | -r] "
          "[-L #limit] [-t timeout] [-v[v]]\n",
          name);
  fputs("-f  performs a search against the contents of a tgdb fileset.\n", stream);
  fputs("-l  specifies that the trigram index be loaded from the specified file or files, for multi-search.\n",
        stream);
  fputs("-s  indicates an optional search string; otherwise, input will be read from stdin.\n", stream);
  fputs("-g  enables globbing mode (default is regular expressions).\n", stream);
  fputs("-j  enables output of results in json mode (ala vornbackendd).\n", stream);
  fputs("-r  produces results in raw mode (as intermediate data).\n", stream);
  fputs("-t  specify timeout in seconds since last search result. May be a decimal number for sub-second "
        "timeout.\n",
        stream);
  fprintf(stream, "-L  specifies a limit for results in search mode (default = %zu).\n",
          static_cast<size_t>(DEFAULT_LIMIT));
  fputs("-v  can be specified multiple times and increases output verbosity.\n", stream);
  fputs("-A  specifies time after.\n", stream);
  fputs("-B  specifies time before.\n", stream);
  fputs("-c  selects 'complete' time matching.\n", stream);
  fprintf(stream, "Ex. 1: %s -l /path/to/index\n", name);
  fprintf(stream, "Ex. 2: %s -l /path/to/index1 -l /path/to/index2\n\n", name);
}

int vornsearch_main(int argc, char** argv) {
  const char* program = argv[0] ? argv[0] : "vornsearch";
  start_logging(program);
  command_line cl;
  if (early_exit status = read_command_line(argc, argv, cl, program)) return *status;
  if (run_searches(cl)) {
    log_printf(LOG_INFO, "Exiting...");
    return 0;
  }
  log_printf(LOG_FAILURE, "Error encountered while running search");
  return 1;
}
