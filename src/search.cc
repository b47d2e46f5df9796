#include "search.h"

#include <cstdio>
#include <memory>

#include "fileset/data_source.h"
#include "libmy/my_alloc.h"
#include "libmy/my_time.h"
#include "log/log.h"
#include "output.h"
#include "tgdb/search_context.h"
#include "tgdb/tgdb_merger.h"

namespace {

// Every search gets a number, failed ones included.
unsigned next_search_number() {
  static unsigned number = 0;
  return ++number;
}

void set_deadline(search_context& ctx, timespec timeout) {
  timespec deadline = my_time_add(my_time_now(), timeout);
  set_deadline_time(ctx, &deadline);
}

void add_elapsed(timespec& total, const timespec& from, const timespec& to) {
  total = my_time_add(total, my_time_sub(to, from));
}

// Pops the search's log context on every way out.
struct log_context_scope {
  log_context_scope() { log_context_push(); }
  ~log_context_scope() { log_context_pop(); }
};

}  // namespace

bool run_search(const search_options& options, const char* expression) {
  auto ctx = std::make_unique<search_context>();
  bool timed_out = false;
  search_timing timing;
  log_context_scope log_scope;
  log_set_prefix("search-%u", next_search_number());

  const int64_t whole = static_cast<int64_t>(options.timeout);
  const int64_t nanos = static_cast<int64_t>((options.timeout - static_cast<int32_t>(options.timeout)) * 1e9);
  const timespec timeout{whole, nanos};
  const bool has_timeout = whole + nanos != 0;

  set_timeout_callback(*ctx, [&timed_out](timespec&, int64_t) {
    timed_out = true;
    return false;
  });
  if (options.after_set) {
    if (options.complete)
      set_time_first_after(*ctx, options.after);
    else
      set_time_last_after(*ctx, options.after);
  }
  if (options.before_set) {
    if (options.complete)
      set_time_last_before(*ctx, options.before);
    else
      set_time_first_before(*ctx, options.before);
  }

  timing.start = my_time_now();
  std::string error;
  if (!compile_search(ctx->match, expression, options.glob, nullptr, &error)) {
    log_printf(LOG_INFO, "Error in %s pattern: %s", options.glob ? "glob" : "regex",
               error.empty() ? "[unspecified reason]" : error.c_str());
    return false;
  }
  timing.pattern_done = my_time_now();
  log_interval(LOG_DEBUG, "Pattern finished", timing.start, timing.pattern_done);
  log_printf(LOG_INFO, "Dispatching search: [%s]", expression);

  if (has_timeout) set_deadline(*ctx, timeout);
  timespec t0 = my_time_now();
  std::unique_ptr<tgdb_merger> search = options.source ? data_source_start(*options.source, *ctx) : nullptr;
  timespec t1 = my_time_now();
  if (!search) {
    log_printf(LOG_ERROR, "Error dispatching search: empty data source");
    return false;
  }
  if (!timed_out) {
    timing.launched = t1;
    log_interval(LOG_DEBUG, "Search launched", timing.pattern_done, timing.launched);
  }
  add_elapsed(timing.search_time, t0, t1);

  while (timing.results < options.limit) {
    timespec before = my_time_now();
    std::unique_ptr<search_result> result = search_next(*search);
    timespec after = my_time_now();
    add_elapsed(timing.search_time, before, after);

    timing.candidates += ctx->counters.candidates;
    if (timing.pattern_matches == 0) take_first_match_time(*ctx, timing.first_match);
    timing.pattern_matches += ctx->counters.pattern_matches;
    timing.bytes_read += ctx->counters.bytes_read;
    timing.pages_read += ctx->counters.pages_read;
    if (!result) break;

    if (timing.results == 0) timing.first_result = my_time_now();
    ++timing.results;
    if (options.json)
      write_json_result(stdout, *result, 0, true);
    else if (options.raw)
      write_raw_result(stdout, *result);
    else
      write_text_result(stdout, *result);
    if (has_timeout) set_deadline(*ctx, timeout);
  }
  fflush(stdout);

  timing.end = my_time_now();
  log_printf(LOG_INFO, "Search %s after %zu results", timed_out ? "timed out" : "completed",
             static_cast<size_t>(timing.results));
  log_search_timing(LOG_STAT, timing);
  // A file's part failed (said where it did): the results are not the whole answer.
  return !search->incomplete();
}
