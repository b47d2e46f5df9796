// ixbake: builds owner-name and rdata index files from passive-DNS JSON
// lines, zone files or record lines.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

enum class input_format { detect, json, zone, lines };
enum class index_kind { both, rrname, rdata };

struct bake_options {
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
  bool check = false;       // --check: verify the inputs as index files instead
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

// Parses the command line. Returns -1 to go on, else the exit status to end
// with (0 after -h; 1 after a message on standard error).
int parse_bake_args(int argc, char** argv, bake_options& out);

// Reads the inputs and writes the index files (and the set files). Reports
// bad records and the summary on standard error. Returns the exit status.
int bake(const bake_options& options, bake_stats* stats = nullptr);

// Adds `paths` to the set file `setfile` (created if missing), skipping
// those already listed. The file is replaced by a rename, so a reader that
// watches it sees the old list or the new one. False with a message in `err`.
bool add_to_set_file(const std::string& setfile, const std::vector<std::string>& paths, std::string& err);

// Whether new files can be made in `dir`. False with a message in `err`.
bool check_writable_dir(const std::string& dir, std::string& err);

// Whether `setfile` can be updated later: its directory is writable and, if
// it exists, it is a readable regular file (links followed). False with a
// message in `err`.
bool check_set_file(const std::string& setfile, std::string& err);

void bake_usage(FILE* out);
int ixbake_main(int argc, char** argv);
