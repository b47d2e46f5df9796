#include "search.h"

#include <cstdio>
#include <memory>
#include <optional>

#include "fileset/data_source.h"
#include "libmy/my_time.h"
#include "log/log.h"
#include "output.h"
#include "search_timing.h"
#include "tgdb/search_context.h"
#include "tgdb/tgdb_merger.h"

namespace {

// Every search gets a number, failed ones included.
unsigned next_search_number() {
  static unsigned number = 0;
  return ++number;
}

void add_elapsed(timespec& total, const timespec& from, const timespec& to) {
  total = my_time_add(total, my_time_sub(to, from));
}

// Pops the search's log context on every way out.
struct log_context_scope {
  log_context_scope() { log_context_push(); }
  ~log_context_scope() { log_context_pop(); }
};

// -A/-B keep records whose seen interval overlaps the range; with -c only
// those whose whole interval lies inside it.
void set_time_bounds(search_context& ctx, const search_options& options) {
  if (options.after_set) {
    if (options.complete)
      set_time_first_after(ctx, options.after);
    else
      set_time_last_after(ctx, options.after);
  }
  if (options.before_set) {
    if (options.complete)
      set_time_last_before(ctx, options.before);
    else
      set_time_first_before(ctx, options.before);
  }
}

// One search in progress. Lives on run_search's stack and never moves: the
// time-out callback points at it.
struct search_run {
  explicit search_run(const search_options& o) : options(o), timeout(my_time_span(o.timeout)) {
    set_timeout_callback(ctx, [this](timespec&, int64_t) {
      timed_out = true;
      return false;
    });
    set_time_bounds(ctx, options);
  }
  search_run(const search_run&) = delete;
  search_run& operator=(const search_run&) = delete;

  // Starts the time-out's count again (a no-op without -t).
  void arm_deadline() {
    if (!timeout) return;
    const timespec deadline = my_time_add(my_time_now(), *timeout);
    set_deadline_time(ctx, &deadline);
  }

  const search_options& options;
  search_context ctx;
  const std::optional<timespec> timeout;
  bool timed_out = false;
  search_timing timing;
};

bool compile_pattern(search_run& run, const char* expression) {
  run.timing.start = my_time_now();
  // Armed before compiling, so that a pattern slow to compile counts
  // against the time-out like a slow search does.
  run.arm_deadline();
  std::string error;
  if (!compile_search(run.ctx.match, expression, run.options.glob, nullptr, &error)) {
    log_printf(LOG_INFO, "Error in %s pattern: %s", run.options.glob ? "glob" : "regex",
               error.empty() ? "[unspecified reason]" : error.c_str());
    return false;
  }
  run.timing.pattern_done = my_time_now();
  log_interval(LOG_DEBUG, "Pattern finished", run.timing.start, run.timing.pattern_done);
  log_printf(LOG_INFO, "Dispatching search: [%s]", expression);
  return true;
}

std::unique_ptr<tgdb_merger> launch_search(search_run& run) {
  const timespec t0 = my_time_now();
  std::unique_ptr<tgdb_merger> search =
      run.options.source ? data_source_start(*run.options.source, run.ctx) : nullptr;
  const timespec t1 = my_time_now();
  if (!search) {
    log_printf(LOG_ERROR, "Error dispatching search: empty data source");
    return nullptr;
  }
  if (!run.timed_out) {
    run.timing.launched = t1;
    log_interval(LOG_DEBUG, "Search launched", run.timing.pattern_done, run.timing.launched);
  }
  add_elapsed(run.timing.search_time, t0, t1);
  return search;
}

// The next result (null at the end or on a time-out), with the time and the
// work it took added to the report.
std::unique_ptr<search_result> fetch_result(search_run& run, tgdb_merger& search) {
  search_timing& t = run.timing;
  const timespec before = my_time_now();
  std::unique_ptr<search_result> result = search_next(search);
  add_elapsed(t.search_time, before, my_time_now());
  t.candidates += run.ctx.counters.candidates;
  if (t.pattern_matches == 0) take_first_match_time(run.ctx, t.first_match);
  t.pattern_matches += run.ctx.counters.pattern_matches;
  t.bytes_read += run.ctx.counters.bytes_read;
  t.pages_read += run.ctx.counters.pages_read;
  return result;
}

void write_result(const search_options& options, const search_result& result) {
  if (options.json)
    write_json_result(stdout, result, 0, true);
  else if (options.raw)
    write_raw_result(stdout, result);
  else
    write_text_result(stdout, result);
}

// Prints results until the source runs dry, the time-out passes or the limit
// is reached. True when the limit stopped a search that had more: to know,
// one result past the limit is fetched, and not printed.
bool print_results(search_run& run, tgdb_merger& search) {
  while (std::unique_ptr<search_result> result = fetch_result(run, search)) {
    if (run.timing.results >= run.options.limit) return true;
    if (run.timing.results == 0) run.timing.first_result = my_time_now();
    ++run.timing.results;
    write_result(run.options, *result);
    run.arm_deadline();  // the time-out counts from the last result
  }
  return false;
}

void report_end(search_run& run, bool more_exist) {
  fflush(stdout);
  run.timing.end = my_time_now();
  const size_t results = run.timing.results;
  // A search that reached its limit completed, even when the look past the
  // limit ran out of time.
  const bool timed_out = run.timed_out && run.timing.results < run.options.limit;
  log_printf(LOG_INFO, "Search %s after %zu results", timed_out ? "timed out" : "completed", results);
  if (more_exist) log_printf(LOG_INFO, "Search stopped at its limit of %zu results; more exist (-L)", results);
  log_search_timing(LOG_STAT, run.timing);
}

}  // namespace

bool run_search(const search_options& options, const char* expression) {
  log_context_scope log_scope;
  log_set_prefix("search-%u", next_search_number());
  search_run run(options);
  if (!compile_pattern(run, expression)) return false;
  std::unique_ptr<tgdb_merger> search = launch_search(run);
  if (!search) return false;
  const bool more_exist = print_results(run, *search);
  report_end(run, more_exist);
  // A file's part failed (said where it did): the results are not the whole answer.
  return !search->incomplete();
}
