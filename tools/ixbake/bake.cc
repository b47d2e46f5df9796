// The run, stage by stage: the destinations are checked; the inputs are read
// on this thread and cut into tasks that worker threads parse into their own
// tables; the tables are merged; the two files are sorted and written
// concurrently under temporary names; then they take their names and the
// set files list them, in one step that interrupts wait for.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cstring>
#include <thread>

#include "aggregate.h"
#include "commit.h"
#include "input.h"
#include "ixbake.h"
#include "json_array.h"
#include "libmy/my_path.h"
#include "libmy/my_text.h"
#include "libmy/my_unfinished_file.h"
#include "log/log.h"
#include "reporter.h"
#include "tgdb/record_line.h"
#include "tgdb/tgdb.h"
#include "tgdb/tgdb_writer.h"
#include "worker.h"

namespace {

constexpr size_t CHUNK_BYTES = size_t{1} << 20;
constexpr char NOTHING_WRITTEN[] = "\nnothing written";

using clock_type = std::chrono::steady_clock;

double seconds_since(clock_type::time_point t) {
  return std::chrono::duration<double>(clock_type::now() - t).count();
}

struct output_file {
  std::string path, tmp;
  bool rdata = false;
  uint64_t lines = 0;
  bool ok = false;
  std::string err;
};

// --- Before reading: where the results go.

std::vector<output_file> plan_outputs(const bake_options& opts) {
  std::vector<output_file> outputs;
  if (opts.kind != index_kind::rdata) outputs.push_back({rrname_path(opts.prefix), {}, false, 0, false, {}});
  if (opts.kind != index_kind::rrname) outputs.push_back({rdata_path(opts.prefix), {}, true, 0, false, {}});
  for (auto& o : outputs) o.tmp = unfinished_name(o.path);
  return outputs;
}

std::string set_file_of(const bake_options& opts, const output_file& o) {
  return (o.rdata && opts.kind == index_kind::both) ? opts.fileset + ".rdata" : opts.fileset;
}

// Everything that could make the end fail is checked before the reading,
// so a run never stops with part of its results in place.
bool check_destinations(const bake_options& opts, const std::vector<output_file>& outputs, std::string& err) {
  struct stat st;
  if (opts.prefix.ends_with('/') || (stat(opts.prefix.c_str(), &st) == 0 && S_ISDIR(st.st_mode))) {
    err = "-o wants a prefix for file names, such as " + opts.prefix + (opts.prefix.ends_with('/') ? "" : "/") +
          "name; " + opts.prefix + " is a directory";
    return false;
  }
  if (!check_writable_dir(path_dir(opts.prefix), err)) return false;
  for (const auto& o : outputs) {
    if (stat(o.path.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
      err = "cannot replace " + o.path + ": it is a directory";
      return false;
    }
    if (!opts.fileset.empty() && !check_set_file(set_file_of(opts, o), err)) return false;
  }
  return true;
}

// Temporary files that runs killed outright left beside our destinations.
void remove_leftovers(const bake_options& opts, const std::vector<output_file>& outputs) {
  std::vector<std::string> beside;
  for (const auto& o : outputs) {
    beside.push_back(o.path);
    std::string err;
    if (!opts.fileset.empty()) beside.push_back(set_file_target(set_file_of(opts, o), err));
  }
  for (const auto& path : beside) {
    if (path.empty()) continue;
    for (const auto& removed : remove_stale_unfinished_files(path))
      fprintf(stderr, "ixbake: removed %s, left unfinished by an earlier run\n", visible_text(removed).c_str());
  }
}

// --- Reading: this thread cuts the inputs into tasks for the workers.

// The first byte that is not white space, within the first 64 KiB.
char first_byte(input_reader& in) {
  const std::string_view head = in.peek(64 * 1024);
  const size_t first = head.find_first_not_of(" \t\r\n");
  return first == std::string_view::npos ? '\0' : head[first];
}

bool starts_with_record_line(input_reader& in, index_kind kind) {
  std::string_view line = in.peek(64 * 1024);
  line = line.substr(std::min(line.size(), line.find_first_not_of(" \t\r\n")));
  line = line.substr(0, line.find('\n'));
  const size_t tab = line.find('\t');
  if (tab == std::string_view::npos || tab == 0) return false;
  const std::string_view value = line.substr(tab + 1);
  if (kind == index_kind::rrname) return !parse_rrname_value(value).empty();
  const auto v = parse_rdata_value(value);
  return v && !v->wire_form.empty();
}

input_format detect_format(input_reader& in, index_kind kind) {
  const char first = first_byte(in);
  if (first == '{') return input_format::json;
  if (kind != index_kind::both && first != '\0' && starts_with_record_line(in, kind)) return input_format::lines;
  return first == '[' ? input_format::json : input_format::zone;
}

bool is_index_file(input_reader& in) {
  return in.peek(sizeof TGDB_MAGIC) == std::string_view(TGDB_MAGIC, sizeof TGDB_MAGIC);
}

// Pushes the chunks `next` makes until the input ends or the run stops.
template <class NextChunk>
void push_chunks(task_queue& queue, const reporter& rep, const std::shared_ptr<const std::string>& name,
                 input_format format, NextChunk&& next) {
  for (;;) {
    task t{name, format, {}, nullptr};
    if (rep.stop || !next(t.chunk)) break;
    queue.push(std::move(t));
  }
}

// Opens one input and cuts it into tasks.
void feed(const std::string& path, const bake_options& opts, reporter& rep, task_queue& queue) {
  std::string err;
  auto in = input_reader::open(path, err);
  if (!in) return rep.fatal(err);
  if (is_index_file(*in)) {
    return rep.fatal(visible_text(in->name()) +
                     " is an index file, not DNS records (JSON observations, zone files or record lines)");
  }
  auto name = std::make_shared<const std::string>(in->name());
  const auto bad = [&rep, name](uint64_t line, const std::string& reason) {
    ++rep.records;
    rep.bad(*name, line, reason);
  };
  in->on_long_line([bad](uint64_t line) { bad(line, "line longer than " + std::to_string(MAX_LINE >> 20) + " MiB"); });
  const input_format format = opts.format == input_format::detect ? detect_format(*in, opts.kind) : opts.format;
  if (format == input_format::zone) return queue.push(task{name, format, {}, std::move(in)});
  if (format == input_format::json && first_byte(*in) == '[') {
    json_array_reader array(*in, bad);
    push_chunks(queue, rep, name, format, [&](line_chunk& c) { return array.next_chunk(c, CHUNK_BYTES); });
  } else {
    push_chunks(queue, rep, name, format, [&](line_chunk& c) { return in->next_chunk(c, CHUNK_BYTES); });
  }
  if (in->failed()) rep.fatal(in->error());
}

// Reads every input on `n_threads` workers; their tables are the result.
std::vector<std::unique_ptr<worker>> read_inputs(const bake_options& opts, reporter& rep, unsigned n_threads) {
  std::vector<std::unique_ptr<worker>> workers;
  for (unsigned i = 0; i < n_threads; ++i) workers.push_back(std::make_unique<worker>(opts, rep));
  task_queue queue(2 * size_t(n_threads));
  std::vector<std::thread> threads;
  for (auto& w : workers) threads.emplace_back([&queue, &w] { w->run(queue); });

  const std::vector<std::string> inputs = opts.inputs.empty() ? std::vector<std::string>{"-"} : opts.inputs;
  if (opts.inputs.empty() && isatty(STDIN_FILENO)) rep.say("reading records from standard input (end with Ctrl-D)");
  for (const auto& path : inputs) {
    if (rep.stop) break;
    feed(path, opts, rep, queue);
  }
  queue.close();
  for (auto& t : threads) t.join();
  return workers;
}

// Whether what was read is worth writing.
bool check_reading(const bake_options& opts, const reporter& rep, std::string& err) {
  const uint64_t records = rep.records, skipped = rep.skipped;
  if (!rep.fatal_text().empty()) {
    err = rep.fatal_text();
  } else if (opts.strict && skipped > 0) {
    err = "stopped at the first bad record (--strict)";
  } else if (records == 0) {
    err = "no records were read";
  } else if (skipped == records) {
    err = records == 1 ? "the one record read was bad" : "all " + std::to_string(records) + " records read were bad";
  } else {
    return true;
  }
  err += NOTHING_WRITTEN;
  return false;
}

// --- Writing: each file is sorted and written on its own thread.

void write_output(output_file& out, const sorted_lines& sorted, const time_range& times, bool sync,
                  clock_type::time_point started) {
  const auto& lines = sorted.lines;
  out.lines = lines.size();
  log_printf(LOG_STAT, "%s: %zu lines sorted after %.2f s", out.path.c_str(), lines.size(), seconds_since(started));
  tgdb_write_options wo;
  wo.rdata = out.rdata;
  wo.has_time_range = times.set && !lines.empty();
  wo.first_seen = times.first;
  wo.last_seen = times.last;
  wo.sync = sync;
  out.ok = tgdb_write(out.tmp, lines, wo, &out.err);
  log_printf(LOG_STAT, "%s: written after %.2f s", out.path.c_str(), seconds_since(started));
}

bool write_outputs(std::vector<output_file>& outputs, aggregator& all, const bake_options& opts,
                   clock_type::time_point started, std::string& err) {
  const time_range rr_times = all.rrname_times(), rd_times = all.rdata_times();
  std::vector<std::thread> writers;
  for (auto& o : outputs) {
    // The two tables are independent.
    writers.emplace_back([&o, &all, &opts, rr_times, rd_times, started] {
      if (o.rdata) {
        write_output(o, all.take_rdata_lines(), rd_times, opts.sync, started);
      } else {
        write_output(o, all.take_rrname_lines(), rr_times, opts.sync, started);
      }
    });
  }
  for (auto& t : writers) t.join();
  const auto failed = std::find_if(outputs.begin(), outputs.end(), [](const output_file& o) { return !o.ok; });
  if (failed == outputs.end()) return true;
  err = failed->err;
  for (auto& o : outputs) unlink(o.tmp.c_str());
  err += NOTHING_WRITTEN;
  return false;
}

// --- Putting in place: the files and the set files' new lists, as one step.

bool prepare_set_files(const bake_options& opts, const std::vector<output_file>& outputs,
                       std::vector<replacement>& files, std::string& err) {
  if (opts.fileset.empty()) return true;
  for (const auto& o : outputs) {
    replacement r;
    if (!prepare_set_file(set_file_of(opts, o), {o.path}, r, err)) return false;
    if (!r.tmp.empty()) files.push_back(r);
  }
  return true;
}

bool put_in_place(const bake_options& opts, const std::vector<output_file>& outputs, std::string& err) {
  // An interrupt from here on waits for the end of this step, so it leaves
  // the old files and lists or the new ones, never some of each.
  const interrupts_held held;
  std::vector<replacement> files;
  for (const auto& o : outputs) files.push_back({o.tmp, o.path});
  if (!prepare_set_files(opts, outputs, files, err)) {
    for (const auto& f : files) unlink(f.tmp.c_str());
    err += NOTHING_WRITTEN;
    return false;
  }
  switch (replace_together(files, err)) {
    case replace_result::replaced:
      set_interrupt_message("ixbake: interrupted; the new files were already in place\n");
      return true;
    case replace_result::kept_old:
      err += NOTHING_WRITTEN;
      return false;
    case replace_result::mixed:
      return false;
  }
  return false;
}

std::string summary(const reporter& rep, const std::vector<output_file>& outputs) {
  std::string text = std::to_string(rep.records.load()) + " records read, " + std::to_string(rep.skipped.load()) +
                     " skipped; wrote ";
  for (size_t i = 0; i < outputs.size(); ++i) {
    text += (i ? ", " : "") + outputs[i].path + " (" + std::to_string(outputs[i].lines) + " lines)";
  }
  return text;
}

}  // namespace

bool check_writable_dir(const std::string& dir, std::string& err) {
  struct stat st;
  const int e = stat(dir.c_str(), &st) != 0 ? errno : !S_ISDIR(st.st_mode) ? ENOTDIR
                                                  : access(dir.c_str(), W_OK | X_OK) != 0 ? errno : 0;
  if (e != 0) err = "cannot write in " + dir + ": " + strerror(e);
  return e == 0;
}

std::string rrname_path(const std::string& prefix) { return prefix + ".rrname.tgdb"; }
std::string rdata_path(const std::string& prefix) { return prefix + ".rdata.tgdb"; }

bool bake(const bake_options& opts, std::string& err, bake_stats* stats) {
  // Destinations first: a directory we cannot write to should fail before
  // the reading, not after it.
  std::vector<output_file> outputs = plan_outputs(opts);
  if (!check_destinations(opts, outputs, err)) return false;
  remove_leftovers(opts, outputs);

  reporter rep(!opts.quiet && isatty(STDERR_FILENO), opts.strict);
  rep.start_progress();
  const auto started = clock_type::now();
  const unsigned n_threads = std::clamp(opts.threads ? opts.threads : std::thread::hardware_concurrency(), 1u, 64u);
  auto workers = read_inputs(opts, rep, n_threads);
  if (!check_reading(opts, rep, err)) return false;
  log_printf(LOG_STAT, "read %" PRIu64 " records in %.2f s", rep.records.load(), seconds_since(started));

  rep.phase("merging");
  aggregator& all = workers[0]->agg;
  for (size_t i = 1; i < workers.size(); ++i) all.merge(std::move(workers[i]->agg));
  log_printf(LOG_STAT, "merged after %.2f s", seconds_since(started));

  rep.phase("sorting and writing");
  std::vector<std::unique_ptr<unfinished_file>> unfinished;
  for (const auto& o : outputs) unfinished.push_back(std::make_unique<unfinished_file>(o.tmp));
  if (!write_outputs(outputs, all, opts, started, err)) return false;
  rep.end_progress();
  if (!put_in_place(opts, outputs, err)) return false;

  fprintf(stderr, "ixbake: %s\n", summary(rep, outputs).c_str());
  if (stats) {
    stats->records = rep.records;
    stats->skipped = rep.skipped;
    for (const auto& o : outputs) (o.rdata ? stats->rdata_lines : stats->rrname_lines) = o.lines;
  }
  return true;
}
