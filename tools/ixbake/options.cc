// The command line of ixbake: options, usage text and the entry point.
#include <getopt.h>

#include <cstdlib>
#include <string>

#include "dns_text.h"
#include "ixbake.h"
#include "libmy/my_time.h"
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
      "  --format F         auto (the default: recognised per input), json (one passive-DNS\n"
      "                     observation per line), zone (DNS master file), lines (index\n"
      "                     record lines; needs --kind rrname or rdata)\n"
      "  --kind K           both (the default), rrname or rdata: the files to write\n"
      "  --time T           time of zone records: epoch seconds, YYYY-MM-DD or\n"
      "                     'YYYY-MM-DD HH:MM:SS' (UTC), or an age such as 2d12h or -3600\n"
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
      "  -h                 show this help\n"
      "\n"
      "Example: ixbake -o /srv/dns/2024-06 pdns-2024-06.jsonl.gz\n"
      "         ixbake --time 2024-06-01 -o /srv/dns/zones --fileset /srv/dns/all.set *.zone\n",
      out);
}

int parse_bake_args(int argc, char** argv, bake_options& out) {
  enum { OPT_STRICT = 256, OPT_FORMAT, OPT_KIND, OPT_TIME, OPT_ORIGIN, OPT_FILESET, OPT_THREADS, OPT_NO_SYNC, OPT_CHECK };
  static const option long_options[] = {
      {"strict", no_argument, nullptr, OPT_STRICT},     {"format", required_argument, nullptr, OPT_FORMAT},
      {"kind", required_argument, nullptr, OPT_KIND},   {"time", required_argument, nullptr, OPT_TIME},
      {"origin", required_argument, nullptr, OPT_ORIGIN}, {"fileset", required_argument, nullptr, OPT_FILESET},
      {"threads", required_argument, nullptr, OPT_THREADS}, {"no-sync", no_argument, nullptr, OPT_NO_SYNC},
      {"help", no_argument, nullptr, 'h'},              {"quiet", no_argument, nullptr, 'q'},
      {"check", no_argument, nullptr, OPT_CHECK},
      {nullptr, 0, nullptr, 0},
  };
  const auto bad = [](const std::string& text) {
    fprintf(stderr, "ixbake: %s\nTry 'ixbake -h' for help.\n", text.c_str());
    return 1;
  };
  optind = 1;
  opterr = 0;
  for (;;) {
    const int c = getopt_long(argc, argv, ":qho:", long_options, nullptr);
    if (c == -1) break;
    const std::string arg = optarg ? optarg : "";
    switch (c) {
      case 'q':
        out.quiet = true;
        break;
      case 'h':
        bake_usage(stdout);
        return 0;
      case 'o':
        if (arg.empty()) return bad("-o needs a prefix");
        out.prefix = arg;
        break;
      case OPT_STRICT:
        out.strict = true;
        break;
      case OPT_NO_SYNC:
        out.sync = false;
        break;
      case OPT_CHECK:
        out.check = true;
        break;
      case OPT_FORMAT:
        if (arg == "auto") out.format = input_format::detect;
        else if (arg == "json") out.format = input_format::json;
        else if (arg == "zone") out.format = input_format::zone;
        else if (arg == "lines") out.format = input_format::lines;
        else return bad("--format must be auto, json, zone or lines, not '" + arg + "'");
        break;
      case OPT_KIND:
        if (arg == "both") out.kind = index_kind::both;
        else if (arg == "rrname") out.kind = index_kind::rrname;
        else if (arg == "rdata") out.kind = index_kind::rdata;
        else return bad("--kind must be both, rrname or rdata, not '" + arg + "'");
        break;
      case OPT_TIME: {
        int64_t t = 0;
        if (arg.empty() || !parse_time_spec(arg.c_str(), t) || t < 0 || t > int64_t(UINT32_MAX)) {
          return bad("--time '" + arg + "' is not a time from 1970 to 2106 (epoch seconds, YYYY-MM-DD or 'YYYY-MM-DD HH:MM:SS')");
        }
        out.time_set = true;
        out.time = t;
        break;
      }
      case OPT_ORIGIN: {
        dns_parser dns;
        std::string canonical, err;
        if (!dns.owner_name(arg, canonical, err)) return bad("--origin '" + arg + "' is not a domain name: " + err);
        out.origin = arg;
        break;
      }
      case OPT_FILESET:
        if (arg.empty()) return bad("--fileset needs a file name");
        out.fileset = arg;
        break;
      case OPT_THREADS: {
        char* end = nullptr;
        const long n = strtol(arg.c_str(), &end, 10);
        if (arg.empty() || *end || n < 1 || n > 64) return bad("--threads must be a number from 1 to 64");
        out.threads = unsigned(n);
        break;
      }
      case ':':
        return bad(std::string("option ") + argv[optind - 1] + " needs a value");
      default:
        return bad(std::string("unknown option ") + argv[optind - 1]);
    }
  }
  for (int i = optind; i < argc; ++i) out.inputs.emplace_back(argv[i]);
  if (out.check) return out.inputs.empty() ? bad("--check needs the index files to check") : -1;
  if (out.prefix.empty()) return bad("an output prefix is required (-o PREFIX)");
  if (out.format == input_format::lines && out.kind == index_kind::both) {
    return bad("--format lines needs --kind rrname or --kind rdata");
  }
  return -1;
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

int ixbake_main(int argc, char** argv) {
  log_set_prefix("ixbake");
  remove_unfinished_files_on_signal("ixbake: interrupted; unfinished files removed\n");
  // VORN_LOGLEVEL=stat shows how long each phase took.
  if (const char* level = getenv("VORN_LOGLEVEL")) {
    if (log_level_parse(level) >= 0) log_set_level(log_level_parse(level));
  }
  bake_options opts;
  const int status = parse_bake_args(argc, argv, opts);
  if (status >= 0) return status;
  if (opts.check) return check_index_files(opts.inputs);
  return bake(opts);
}
