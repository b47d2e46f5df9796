// The parsing threads: each takes tasks from a shared queue and folds the
// records into its own tables, which are merged when the reading is done.
#pragma once

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "aggregate.h"
#include "dns_text.h"
#include "input.h"
#include "ixbake.h"
#include "json_record.h"
#include "reporter.h"

// One unit of work: a chunk of lines of a line-based input (or of elements
// of a JSON array), or a whole zone file (its directives make it sequential).
struct task {
  std::shared_ptr<const std::string> name;
  input_format format = input_format::json;
  line_chunk chunk;
  std::unique_ptr<input_reader> zone;
};

class task_queue {
 public:
  explicit task_queue(size_t capacity) : capacity_(capacity) {}
  void push(task t);
  // The next task; none once the queue is closed and empty.
  std::optional<task> pop();
  void close();

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
      : opts_(o), rep_(r), want_rrname_(o.kind != index_kind::rdata), want_rdata_(o.kind != index_kind::rrname) {}

  aggregator agg;

  // Works until the queue is closed and empty.
  void run(task_queue& q);

 private:
  void chunk(task& t);
  void json_record_text(const std::string& name, uint64_t line_no, const char* p, size_t len, size_t capacity);
  void add(const search_entry& entry);
  // A line already in the index's record-line form.
  void record_line(const std::string& name, uint64_t line_no, std::string_view line);
  void rrname_record_line(const std::string& name, uint64_t line_no, std::string_view key, std::string_view value);
  void rdata_record_line(const std::string& name, uint64_t line_no, std::string_view key, std::string_view value);
  void zone(task& t);

  const bake_options& opts_;
  reporter& rep_;
  const bool want_rrname_, want_rdata_;
  dns_parser dns_;
  json_line_parser json_;
  json_record rec_;
  std::string owner_, err_;
  std::vector<uint8_t> wire_;
};
