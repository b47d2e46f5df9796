// The run: inputs are read on this thread and cut into chunks of whole
// lines; worker threads parse the chunks (and whole zone files) into their
// own tables; the tables are merged, and the two files are sorted and
// written concurrently.
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cinttypes>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <limits>
#include <mutex>
#include <optional>
#include <thread>

#include "aggregate.h"
#include "dns_text.h"
#include "input.h"
#include "ixbake.h"
#include "json_record.h"
#include "log/log.h"
#include "tgdb/record_line.h"
#include "tgdb/tgdb_writer.h"
#include "libmy/my_unfinished_file.h"
#include "zone_reader.h"

namespace {

constexpr size_t CHUNK_BYTES = size_t{1} << 20;
// Bad records are each reported up to this many; the summary counts them all.
constexpr uint64_t SHOWN_BAD_RECORDS = 100;

// Standard error is shared by the progress line, bad-record reports and
// fatal errors, from several threads.
class reporter {
 public:
  reporter(bool progress, bool strict) : progress_(progress), strict_(strict) {}
  ~reporter() { end_progress(); }

  std::atomic<uint64_t> records{0};
  std::atomic<uint64_t> skipped{0};
  // Set on a fatal error, or on a bad record under --strict: everyone stops.
  std::atomic<bool> stop{false};

  void bad(const std::string& input, uint64_t line, const std::string& reason, uint64_t n = 1) {
    skipped += n;
    std::lock_guard lock(mu_);
    if (strict_) {
      if (stop.exchange(true)) return;  // only the first one counts
    }
    if (++bad_shown_ > SHOWN_BAD_RECORDS) {
      if (bad_shown_ == SHOWN_BAD_RECORDS + 1) put("further bad records are counted but not shown");
      return;
    }
    put(input + ":" + std::to_string(line) + ": " + reason);
  }

  void fatal(const std::string& text) {
    std::lock_guard lock(mu_);
    if (!fatal_.empty()) return;
    fatal_ = text;
    stop = true;
  }
  const std::string& fatal_text() const { return fatal_; }

  void say(const std::string& text) {
    std::lock_guard lock(mu_);
    put(text);
  }

  void phase(const char* name) { phase_ = name; }

  void start_progress() {
    if (!progress_) return;
    started_ = std::chrono::steady_clock::now();
    ticker_ = std::thread([this] {
      std::unique_lock lock(mu_);
      while (!done_) {
        tick_cv_.wait_for(lock, std::chrono::milliseconds(250));
        if (done_) break;
        const double secs =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - started_).count();
        const uint64_t n = records.load();
        const char* phase = phase_.load();
        if (strcmp(phase, "reading") == 0) {
          fprintf(stderr, "\r\033[Kixbake: reading: %" PRIu64 " records, %.0f records/s, %.0fs", n,
                  secs > 0 ? double(n) / secs : 0.0, secs);
        } else {
          fprintf(stderr, "\r\033[Kixbake: %s: %" PRIu64 " records read, %.0fs", phase, n, secs);
        }
        fflush(stderr);
        shown_ = true;
      }
    });
  }

  void end_progress() {
    if (!ticker_.joinable()) return;
    {
      std::lock_guard lock(mu_);
      done_ = true;
      clear_line();
    }
    tick_cv_.notify_all();
    ticker_.join();
  }

 private:
  void clear_line() {
    if (shown_) fputs("\r\033[K", stderr);
    shown_ = false;
  }
  void put(const std::string& text) {
    clear_line();
    fprintf(stderr, "ixbake: %s\n", text.c_str());
  }

  const bool progress_, strict_;
  std::mutex mu_;
  std::condition_variable tick_cv_;
  std::thread ticker_;
  std::chrono::steady_clock::time_point started_;
  std::atomic<const char*> phase_{"reading"};
  bool done_ = false, shown_ = false;
  uint64_t bad_shown_ = 0;
  std::string fatal_;
};

// One unit of work: a chunk of lines of a line-based input, or a whole zone
// file (its directives make it sequential).
struct task {
  std::shared_ptr<const std::string> name;
  input_format format = input_format::json;
  line_chunk chunk;
  std::unique_ptr<input_reader> zone;
};

class task_queue {
 public:
  explicit task_queue(size_t capacity) : capacity_(capacity) {}
  void push(task t) {
    std::unique_lock lock(mu_);
    not_full_.wait(lock, [&] { return tasks_.size() < capacity_; });
    tasks_.push_back(std::move(t));
    not_empty_.notify_one();
  }
  std::optional<task> pop() {
    std::unique_lock lock(mu_);
    not_empty_.wait(lock, [&] { return !tasks_.empty() || closed_; });
    if (tasks_.empty()) return std::nullopt;
    task t = std::move(tasks_.front());
    tasks_.pop_front();
    not_full_.notify_one();
    return t;
  }
  void close() {
    std::lock_guard lock(mu_);
    closed_ = true;
    not_empty_.notify_all();
  }

 private:
  const size_t capacity_;
  std::mutex mu_;
  std::condition_variable not_full_, not_empty_;
  std::deque<task> tasks_;
  bool closed_ = false;
};

// A parsing thread's state: its tables and its parsers.
class worker {
 public:
  worker(const bake_options& o, reporter& r)
      : opts_(o),
        rep_(r),
        want_rrname_(o.kind != index_kind::rdata),
        want_rdata_(o.kind != index_kind::rrname) {}

  aggregator agg;

  void run(task_queue& q) {
    while (auto t = q.pop()) {
      if (rep_.stop) continue;  // drain without work
      if (t->zone) {
        zone(*t);
      } else {
        chunk(*t);
      }
    }
  }

 private:
  void chunk(task& t) {
    const char* p = t.chunk.data.data();
    const char* end = p + t.chunk.size;
    const char* buffer_end = t.chunk.data.data() + t.chunk.data.size();
    uint64_t line_no = t.chunk.first_line;
    for (; p < end && !rep_.stop; ++line_no) {
      const char* nl = static_cast<const char*>(memchr(p, '\n', size_t(end - p)));
      const size_t len = size_t(nl - p);
      if (std::string_view(p, len).find_first_not_of(" \t\r") != std::string_view::npos) {
        if (t.format == input_format::json) {
          json_line(*t.name, line_no, p, len, size_t(buffer_end - p));
        } else {
          record_line(*t.name, line_no, std::string_view(p, len));
        }
      }
      p = nl + 1;
    }
  }

  void json_line(const std::string& name, uint64_t line_no, const char* p, size_t len, size_t capacity) {
    if (!json_.parse(p, len, capacity, rec_, err_)) {
      ++rep_.records;
      rep_.bad(name, line_no, err_);
      return;
    }
    const uint64_t n = rec_.rdata.size();
    rep_.records += n;
    if (!dns_.owner_name(rec_.rrname, owner_, err_)) {
      rep_.bad(name, line_no, "bad owner name " + quoted(rec_.rrname) + ": " + err_, n);
      return;
    }
    const search_entry entry{rec_.rrtype, rec_.count, rec_.time_first, rec_.time_last};
    for (std::string_view text : rec_.rdata) {
      if (!dns_.parse_rdata(rec_.rrtype, text, wire_, err_)) {
        rep_.bad(name, line_no, "rdata " + quoted(text) + " is not valid " + rrtype_name(rec_.rrtype) + ": " + err_);
        continue;
      }
      add(entry);
    }
  }

  void add(const search_entry& entry) {
    if (want_rrname_) agg.add_rrname(owner_, entry);
    // Data of no bytes (a NULL record, say) has no wire form to key on.
    if (want_rdata_ && !wire_.empty() && wire_.size() <= 65535) {
      agg.add_rdata(wire_, entry, [&] { return dns_.rdata_text(); });
    }
  }

  // A line already in the index's record-line form.
  void record_line(const std::string& name, uint64_t line_no, std::string_view line) {
    ++rep_.records;
    const size_t tab = line.find('\t');
    if (tab == 0 || tab == std::string_view::npos) {
      rep_.bad(name, line_no, "not a record line (a key, a tab, a value)");
      return;
    }
    const std::string_view key = line.substr(0, tab), value = line.substr(tab + 1);
    const auto times_fit = [](const search_entry& e) {
      return e.time_first >= 0 && e.time_last >= e.time_first && e.time_last <= int64_t(UINT32_MAX);
    };
    if (opts_.kind == index_kind::rrname) {
      std::vector<search_entry> entries = parse_rrname_value(value);
      if (entries.empty()) {
        rep_.bad(name, line_no, "not an owner-name record line");
        return;
      }
      for (auto& e : entries) {
        if (!times_fit(e)) {
          rep_.bad(name, line_no, "a time does not fit 32 bits");
          return;
        }
      }
      for (auto& e : entries) {
        if (e.count == 0) e.count = 1;  // an item without a count was seen once
        agg.add_rrname(key, e);
      }
      return;
    }
    const auto v = parse_rdata_value(value);
    if (!v) {
      rep_.bad(name, line_no, "not an rdata record line");
      return;
    }
    if (v->wire_form.empty()) {
      rep_.bad(name, line_no, "an rdata record line needs its LENGTH/HEX wire form");
      return;
    }
    if (!times_fit(v->entry)) {
      rep_.bad(name, line_no, "a time does not fit 32 bits");
      return;
    }
    search_entry e = v->entry;
    if (e.count == 0) e.count = 1;
    wire_ = decode_rdata(v->wire_form);
    agg.add_rdata(wire_, e, [&] { return key; }, true);
  }

  void zone(task& t) {
    input_reader& in = *t.zone;
    zone_reader reader(in);
    std::string err;
    if (!reader.set_origin(opts_.origin, err)) {
      rep_.fatal("--origin " + opts_.origin + ": " + err);
      return;
    }
    const int64_t when = opts_.time_set ? opts_.time : int64_t(in.mtime());
    if (when < 0 || when > int64_t(UINT32_MAX)) {
      rep_.fatal("the time of " + in.name() + " is out of range; give one with --time");
      return;
    }
    const search_entry base{0, 1, when, when};
    for (;;) {
      if (rep_.stop) return;
      ldns_struct_rr* rr = nullptr;
      uint64_t line = 0;
      const auto r = reader.next(rr, line, err);
      if (r == zone_reader::END) break;
      ++rep_.records;
      if (r == zone_reader::BAD) {
        rep_.bad(*t.name, line, err);
        continue;
      }
      search_entry entry = base;
      entry.rrtype = dns_.take_rr(rr, owner_, wire_);
      add(entry);
    }
    if (in.failed()) rep_.fatal(in.error());
  }

  const bake_options& opts_;
  reporter& rep_;
  const bool want_rrname_, want_rdata_;
  dns_parser dns_;
  json_line_parser json_;
  json_record rec_;
  std::string owner_, err_;
  std::vector<uint8_t> wire_;
};

input_format detect_format(input_reader& in, index_kind kind) {
  const std::string_view head = in.peek(64 * 1024);
  const size_t first = head.find_first_not_of(" \t\r\n");
  if (first != std::string_view::npos && head[first] == '{') return input_format::json;
  if (kind != index_kind::both && first != std::string_view::npos) {
    std::string_view line = head.substr(first);
    line = line.substr(0, line.find('\n'));
    const size_t tab = line.find('\t');
    if (tab != std::string_view::npos && tab > 0) {
      const std::string_view value = line.substr(tab + 1);
      if (kind == index_kind::rrname && !parse_rrname_value(value).empty()) return input_format::lines;
      if (kind == index_kind::rdata) {
        const auto v = parse_rdata_value(value);
        if (v && !v->wire_form.empty()) return input_format::lines;
      }
    }
  }
  return input_format::zone;
}

struct output_file {
  std::string path, tmp;
  bool rdata = false;
  uint64_t lines = 0;
  bool ok = false;
  std::string err;
};

double seconds_since(std::chrono::steady_clock::time_point t) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - t).count();
}

void write_output(output_file& out, const sorted_lines& sorted, const time_range& times, bool sync,
                  std::chrono::steady_clock::time_point started) {
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

std::string dir_of(const std::string& path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

// Holds off interrupts while the finished files take their places, so an
// interrupt never leaves one file replaced and its partner not; a signal
// that came meanwhile acts when this ends.
class interrupts_held {
 public:
  interrupts_held() {
    sigset_t set;
    sigemptyset(&set);
    for (int sig : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&set, sig);
    pthread_sigmask(SIG_BLOCK, &set, &previous_);
  }
  ~interrupts_held() { pthread_sigmask(SIG_SETMASK, &previous_, nullptr); }
  interrupts_held(const interrupts_held&) = delete;
  interrupts_held& operator=(const interrupts_held&) = delete;

 private:
  sigset_t previous_;
};

std::string set_file_of(const bake_options& opts, const output_file& o) {
  return (o.rdata && opts.kind == index_kind::both) ? opts.fileset + ".rdata" : opts.fileset;
}

// Why the outputs could not be put in place; empty when they can.
std::string destination_problem(const bake_options& opts, const std::vector<output_file>& outputs) {
  std::string err;
  struct stat st;
  if (opts.prefix.ends_with('/') || (stat(opts.prefix.c_str(), &st) == 0 && S_ISDIR(st.st_mode)))
    return "-o wants a prefix for file names, such as " + opts.prefix + (opts.prefix.ends_with('/') ? "" : "/") +
           "name; " + opts.prefix + " is a directory";
  if (!check_writable_dir(dir_of(opts.prefix), err)) return err;
  for (const auto& o : outputs) {
    if (stat(o.path.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) return "cannot replace " + o.path + ": it is a directory";
    if (!opts.fileset.empty() && !check_set_file(set_file_of(opts, o), err)) return err;
  }
  return {};
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

int bake(const bake_options& opts, bake_stats* stats) {
  reporter rep(!opts.quiet && isatty(STDERR_FILENO), opts.strict);
  unsigned n_threads = opts.threads ? opts.threads : std::thread::hardware_concurrency();
  n_threads = std::clamp(n_threads, 1u, 64u);

  // Outputs first: a directory we cannot write to should fail before the
  // reading, not after it.
  std::vector<output_file> outputs;
  if (opts.kind != index_kind::rdata) outputs.push_back({rrname_path(opts.prefix), {}, false, 0, false, {}});
  if (opts.kind != index_kind::rrname) outputs.push_back({rdata_path(opts.prefix), {}, true, 0, false, {}});
  // Everything that could make the end fail is checked before the reading,
  // so a run never stops with part of its results in place.
  if (std::string err = destination_problem(opts, outputs); !err.empty()) {
    fprintf(stderr, "ixbake: %s\n", err.c_str());
    return 1;
  }
  for (auto& o : outputs) o.tmp = o.path + ".partial." + std::to_string(getpid());

  rep.start_progress();
  const auto started = std::chrono::steady_clock::now();
  std::vector<std::unique_ptr<worker>> workers;
  for (unsigned i = 0; i < n_threads; ++i) workers.push_back(std::make_unique<worker>(opts, rep));
  task_queue queue(2 * size_t(n_threads));
  std::vector<std::thread> threads;
  for (auto& w : workers) threads.emplace_back([&queue, &w] { w->run(queue); });

  const std::vector<std::string> inputs = opts.inputs.empty() ? std::vector<std::string>{"-"} : opts.inputs;
  if (opts.inputs.empty() && isatty(STDIN_FILENO)) rep.say("reading records from standard input (end with Ctrl-D)");
  for (const auto& path : inputs) {
    if (rep.stop) break;
    std::string err;
    auto in = input_reader::open(path, err);
    if (!in) {
      rep.fatal(err);
      break;
    }
    auto name = std::make_shared<const std::string>(in->name());
    in->on_long_line([&rep, name](uint64_t line) {
      ++rep.records;
      rep.bad(*name, line, "line longer than " + std::to_string(MAX_LINE >> 20) + " MiB");
    });
    const input_format format = opts.format == input_format::detect ? detect_format(*in, opts.kind) : opts.format;
    if (format == input_format::zone) {
      queue.push(task{name, format, {}, std::move(in)});
      continue;
    }
    for (;;) {
      task t{name, format, {}, nullptr};
      if (rep.stop || !in->next_chunk(t.chunk, CHUNK_BYTES)) break;
      queue.push(std::move(t));
    }
    if (in->failed()) rep.fatal(in->error());
  }
  queue.close();
  for (auto& t : threads) t.join();

  auto fail = [&](const std::string& text) {
    rep.end_progress();
    if (!text.empty()) fprintf(stderr, "ixbake: %s\n", text.c_str());
    fprintf(stderr, "ixbake: nothing written\n");
    return 1;
  };
  if (!rep.fatal_text().empty()) return fail(rep.fatal_text());
  if (opts.strict && rep.skipped > 0) return fail("stopped at the first bad record (--strict)");

  log_printf(LOG_STAT, "read %" PRIu64 " records in %.2f s", rep.records.load(), seconds_since(started));
  rep.phase("merging");
  aggregator& all = workers[0]->agg;
  for (size_t i = 1; i < workers.size(); ++i) all.merge(std::move(workers[i]->agg));
  log_printf(LOG_STAT, "merged after %.2f s", seconds_since(started));

  rep.phase("sorting and writing");
  const time_range rr_times = all.rrname_times(), rd_times = all.rdata_times();
  std::vector<std::unique_ptr<unfinished_file>> unfinished;
  for (auto& o : outputs) unfinished.push_back(std::make_unique<unfinished_file>(o.tmp));
  std::vector<std::thread> writers;
  for (auto& o : outputs) {
    // Each file is made on its own thread; the two tables are independent.
    writers.emplace_back([&o, &all, &opts, rr_times, rd_times, started] {
      if (o.rdata) {
        write_output(o, all.take_rdata_lines(), rd_times, opts.sync, started);
      } else {
        write_output(o, all.take_rrname_lines(), rr_times, opts.sync, started);
      }
    });
  }
  for (auto& t : writers) t.join();
  std::string failure;
  for (auto& o : outputs) {
    if (!o.ok && failure.empty()) failure = o.err;
  }
  // Both files are complete: only now do they take their names.
  const interrupts_held held;
  for (auto& o : outputs) {
    if (failure.empty() && rename(o.tmp.c_str(), o.path.c_str()) != 0) {
      failure = "cannot rename " + o.tmp + " to " + o.path + ": " + strerror(errno);
    }
  }
  if (!failure.empty()) {
    for (auto& o : outputs) unlink(o.tmp.c_str());
    return fail(failure);
  }
  rep.end_progress();

  if (!opts.fileset.empty()) {
    for (const auto& o : outputs) {
      std::string err;
      if (!add_to_set_file(set_file_of(opts, o), {o.path}, err)) {
        fprintf(stderr, "ixbake: %s\n", err.c_str());
        return 1;
      }
    }
  }

  std::string summary = "ixbake: " + std::to_string(rep.records.load()) + " records read, " +
                        std::to_string(rep.skipped.load()) + " skipped; wrote ";
  for (size_t i = 0; i < outputs.size(); ++i) {
    summary += (i ? ", " : "") + outputs[i].path + " (" + std::to_string(outputs[i].lines) + " lines)";
  }
  fprintf(stderr, "%s\n", summary.c_str());
  if (stats) {
    stats->records = rep.records;
    stats->skipped = rep.skipped;
    for (const auto& o : outputs) (o.rdata ? stats->rdata_lines : stats->rrname_lines) = o.lines;
  }
  return 0;
}
