// ixbake: builds owner-name and rdata index files from passive-DNS
// observations (JSON), zone files or record lines.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "commit.h"

enum class input_format { detect, json, zone, lines };
enum class index_kind { both, rrname, rdata };
// What the command line asks for.
enum class bake_action { bake, help, version, check };  // check: verify the inputs as index files

struct bake_options {
  bake_action action = bake_action::bake;
  bool quiet = false;   // no progress line
  bool strict = false;  // the first bad record ends the run, writing nothing
  input_format format = input_format::detect;
  index_kind kind = index_kind::both;
  bool time_set = false;  // zone records' time; else each file's mtime
  int64_t time = 0;
  std::string origin;       // starting origin of zone files; empty: the root
  std::string fileset;      // set file to list the new files in; empty: none
  std::string prefix;       // output: PREFIX.rrname.tgdb, PREFIX.rdata.tgdb
  std::vector<std::string> inputs;  // "-" is standard input
  unsigned threads = 0;     // parsing threads; 0: one per processor
  bool sync = true;         // flush files to stable storage before renaming
};

// What a run did, for the summary line and for tests.
struct bake_stats {
  uint64_t records = 0;  // observations read, bad ones included
  uint64_t skipped = 0;
  uint64_t rrname_lines = 0;
  uint64_t rdata_lines = 0;
};

// The output paths of `prefix`.
std::string rrname_path(const std::string& prefix);
std::string rdata_path(const std::string& prefix);

// Parses the command line into `out` (-h and --version only set
// out.action). False with a message in `err` for a mistake in it.
bool parse_bake_args(int argc, char** argv, bake_options& out, std::string& err);

// Reads the inputs, writes the index files and lists them in the set files.
// Reports bad records, warnings and the summary on standard error as it
// goes. False when nothing was put in place, or when it could not be put
// in place whole, with why in `err` (one or more lines).
bool bake(const bake_options& options, std::string& err, bake_stats* stats = nullptr);

// Writes beside `setfile` the list it would hold with `paths` added
// (created if missing; those already listed are skipped): `out.tmp` is
// that file and `out.path` where it goes (for a link, its target). An
// empty `out.tmp` means there is nothing to add. False with a message in
// `err`.
bool prepare_set_file(const std::string& setfile, const std::vector<std::string>& paths, replacement& out,
                      std::string& err);

// Adds `paths` to `setfile` at once, as above. The file is replaced by a
// rename, so a reader that watches it sees the old list or the new one.
bool add_to_set_file(const std::string& setfile, const std::vector<std::string>& paths, std::string& err);

// The file a set file's update replaces: a symbolic link's target, so the
// link keeps working. Empty (with `err`) for a link that leads nowhere.
std::string set_file_target(const std::string& setfile, std::string& err);

// Whether new files can be made in `dir`. False with a message in `err`.
bool check_writable_dir(const std::string& dir, std::string& err);

// Whether `setfile` can be updated later: its directory is writable and, if
// it exists, it is a readable regular file (links followed). False with a
// message in `err`.
bool check_set_file(const std::string& setfile, std::string& err);

void bake_usage(FILE* out);
// The program: its exit status.
int ixbake_main(int argc, char** argv);
