// The command line of ixbake: options, usage text and the entry point.
#include <getopt.h>

#include <cstdlib>
#include <sstream>
#include <string>

#include "dns_text.h"
#include "ixbake.h"
#include "libmy/my_text.h"
#include "libmy/my_time.h"
#include "libmy/version.h"
#include "libmy/my_unfinished_file.h"
#include "log/log.h"
#include "tgdb/tgdb_check.h"

void bake_usage(FILE* out) {
  fputs(
      "Usage: ixbake [-q] [--strict] [--format auto|json|zone|lines] [--kind both|rrname|rdata]\n"
      "              [--time T] [--origin NAME] [--fileset SETFILE] [--threads N] [--no-sync]\n"
      "              -o PREFIX [INPUT ...]\n"
      "Builds the index files vornsearch searches, from DNS records.\n"
      "\n"
      "  -o PREFIX          write PREFIX.rrname.tgdb (owner names) and PREFIX.rdata.tgdb\n"
      "                     (record data); each appears only once complete\n"
      "  INPUT              files, plain or gzip-compressed; '-' or none: standard input\n"
      "  --format F         auto (the default: recognised per input), json (passive-DNS\n"
      "                     observations, one per line or in one array), zone (DNS master\n"
      "                     file), lines (index record lines; needs --kind rrname or rdata)\n"
      "  --kind K           both (the default), rrname or rdata: the files to write\n"
      "  --time T           time of zone records: epoch seconds, YYYY-MM-DD,\n"
      "                     'YYYY-MM-DD HH:MM:SS' (UTC), ISO 8601 such as\n"
      "                     2025-12-01T08:00:00+01:00, or an age such as 2d12h or -3600\n"
      "                     (as vornsearch -A/-B); default: the file's modification time\n"
      "  --origin NAME      origin of zone files before any $ORIGIN (default: the root)\n"
      "  --fileset SETFILE  list the new file in SETFILE (created if missing); with\n"
      "                     --kind both the rrname file goes to SETFILE and the rdata\n"
      "                     file to SETFILE.rdata\n"
      "  --strict           stop at the first bad record; nothing is written\n"
      "  --threads N        parsing threads (default: one per processor)\n"
      "  --no-sync          do not flush the files to disk before renaming them (faster;\n"
      "                     for scratch files)\n"
      "  --check FILE...    verify index files instead of baking; exit 1 at the first fault\n"
      "  -q                 no progress line\n"
      "  -h, --help         show this help\n"
      "  --version          show the version\n"
      "\n"
      "Example: ixbake -o /srv/dns/2024-06 pdns-2024-06.jsonl.gz\n"
      "         ixbake --time 2024-06-01 -o /srv/dns/zones --fileset /srv/dns/all.set *.zone\n",
      out);
}

namespace {

enum {
  OPT_STRICT = 256, OPT_FORMAT, OPT_KIND, OPT_TIME, OPT_ORIGIN, OPT_FILESET, OPT_THREADS, OPT_NO_SYNC, OPT_VERSION, OPT_CHECK
};
const option long_options[] = {
    {"strict", no_argument, nullptr, OPT_STRICT},       {"format", required_argument, nullptr, OPT_FORMAT},
    {"kind", required_argument, nullptr, OPT_KIND},     {"time", required_argument, nullptr, OPT_TIME},
    {"origin", required_argument, nullptr, OPT_ORIGIN}, {"fileset", required_argument, nullptr, OPT_FILESET},
    {"threads", required_argument, nullptr, OPT_THREADS}, {"no-sync", no_argument, nullptr, OPT_NO_SYNC},
    {"help", no_argument, nullptr, 'h'},                {"quiet", no_argument, nullptr, 'q'},
    {"version", no_argument, nullptr, OPT_VERSION},     {"check", no_argument, nullptr, OPT_CHECK},
    {nullptr, 0, nullptr, 0},
};

// One of a fixed set of words.
template <class T>
bool parse_choice(const char* option, const std::string& arg, std::initializer_list<std::pair<const char*, T>> choices,
                  T& out, std::string& err) {
  std::string names;
  size_t i = 0;
  for (const auto& [name, value] : choices) {
    if (arg == name) {
      out = value;
      return true;
    }
    names += i == 0 ? "" : i + 1 == choices.size() ? " or " : ", ";
    names += name;
    ++i;
  }
  err = std::string(option) + " must be " + names + ", not '" + arg + "'";
  return false;
}

bool parse_time(const std::string& arg, bake_options& out, std::string& err) {
  int64_t t = 0;
  if (arg.empty() || !parse_time_spec(arg.c_str(), t) || t < 0 || t > int64_t(UINT32_MAX)) {
    err = "--time '" + arg +
          "' is not a time from 1970 to 2106 (epoch seconds, YYYY-MM-DD, 'YYYY-MM-DD HH:MM:SS' or ISO 8601)";
    return false;
  }
  out.time_set = true;
  out.time = t;
  return true;
}

bool parse_origin(const std::string& arg, std::string& out, std::string& err) {
  dns_parser dns;
  std::string canonical;
  if (!dns.owner_name(arg, canonical, err)) {
    err = "--origin '" + arg + "' is not a domain name: " + err;
    return false;
  }
  out = arg;
  return true;
}

bool parse_threads(const std::string& arg, unsigned& out, std::string& err) {
  char* end = nullptr;
  const long n = strtol(arg.c_str(), &end, 10);
  if (arg.empty() || *end || n < 1 || n > 64) {
    err = "--threads must be a number from 1 to 64";
    return false;
  }
  out = unsigned(n);
  return true;
}

// A path for -o or --fileset. Set files hold one name a line, so a line
// feed in a name would list two files; no control character is taken.
bool parse_path(const char* option, const char* what, const std::string& arg, std::string& out, std::string& err) {
  if (arg.empty()) {
    err = std::string(option) + " needs " + what;
    return false;
  }
  if (holds_control_byte(arg)) {
    err = std::string(option) + " " + visible_text(arg) + ": file names with control characters are refused";
    return false;
  }
  out = arg;
  return true;
}

// Applies one option of getopt's; false with a message in `err`.
bool apply_option(int c, const std::string& arg, bake_options& out, std::string& err) {
  switch (c) {
    case 'q':
      out.quiet = true;
      return true;
    case 'h':
      out.action = bake_action::help;
      return true;
    case OPT_VERSION:
      out.action = bake_action::version;
      return true;
    case OPT_CHECK:
      out.action = bake_action::check;
      return true;
    case 'o':
      return parse_path("-o", "a prefix", arg, out.prefix, err);
    case OPT_STRICT:
      out.strict = true;
      return true;
    case OPT_NO_SYNC:
      out.sync = false;
      return true;
    case OPT_FORMAT:
      return parse_choice("--format", arg,
                          {std::pair{"auto", input_format::detect}, {"json", input_format::json},
                           {"zone", input_format::zone}, {"lines", input_format::lines}},
                          out.format, err);
    case OPT_KIND:
      return parse_choice("--kind", arg,
                          {std::pair{"both", index_kind::both}, {"rrname", index_kind::rrname},
                           {"rdata", index_kind::rdata}},
                          out.kind, err);
    case OPT_TIME:
      return parse_time(arg, out, err);
    case OPT_ORIGIN:
      return parse_origin(arg, out.origin, err);
    case OPT_FILESET:
      return parse_path("--fileset", "a file name", arg, out.fileset, err);
    case OPT_THREADS:
      return parse_threads(arg, out.threads, err);
  }
  return false;
}

// What the options ask for as a whole.
bool check_options(const bake_options& out, std::string& err) {
  if (out.action == bake_action::check) {
    if (!out.inputs.empty()) return true;
    err = "--check needs the index files to check";
    return false;
  }
  if (out.prefix.empty()) {
    err = "an output prefix is required (-o PREFIX)";
    return false;
  }
  if (out.format == input_format::lines && out.kind == index_kind::both) {
    err = "--format lines needs --kind rrname or --kind rdata";
    return false;
  }
  return true;
}

// ixbake --check: 0 when every file is sound, else 1 after naming each
// faulty file's first fault.
int check_index_files(const std::vector<std::string>& files) {
  int status = 0;
  for (const std::string& file : files) {
    if (auto fault = tgdb_check(file.c_str())) {
      fprintf(stderr, "ixbake: %s\n", fault->c_str());
      status = 1;
    }
  }
  return status;
}

}  // namespace

bool parse_bake_args(int argc, char** argv, bake_options& out, std::string& err) {
  optind = 1;
  opterr = 0;
  for (;;) {
    const int c = getopt_long(argc, argv, ":qho:", long_options, nullptr);
    if (c == -1) break;
    if (c == ':') {
      err = std::string("option ") + argv[optind - 1] + " needs a value";
      return false;
    }
    if (c == '?') {
      err = std::string("unknown option ") + argv[optind - 1];
      return false;
    }
    if (!apply_option(c, optarg ? optarg : "", out, err)) return false;
    if (out.action == bake_action::help || out.action == bake_action::version) return true;
  }
  for (int i = optind; i < argc; ++i) out.inputs.emplace_back(argv[i]);
  return check_options(out, err);
}

int ixbake_main(int argc, char** argv) {
  log_set_prefix("ixbake");
  remove_unfinished_files_on_signal("ixbake: interrupted; unfinished files removed\n");
  // VORN_LOGLEVEL=stat shows how long each phase took.
  if (const char* level = getenv("VORN_LOGLEVEL")) {
    if (log_level_parse(level) >= 0) log_set_level(log_level_parse(level));
  }
  bake_options opts;
  std::string err;
  if (!parse_bake_args(argc, argv, opts, err)) {
    fprintf(stderr, "ixbake: %s\nTry 'ixbake -h' for help.\n", err.c_str());
    return 1;
  }
  if (opts.action == bake_action::help) {
    bake_usage(stdout);
    return 0;
  }
  if (opts.action == bake_action::version) {
    printf("ixbake %s\n", VORN_VERSION);
    return 0;
  }
  if (opts.action == bake_action::check) return check_index_files(opts.inputs);
  if (bake(opts, err)) return 0;
  // One message a line, each marked as ours.
  std::istringstream lines(err);
  for (std::string line; std::getline(lines, line);) fprintf(stderr, "ixbake: %s\n", line.c_str());
  return 1;
}
