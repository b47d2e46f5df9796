#include "worker.h"

#include <cstring>

#include "tgdb/record_line.h"
#include "zone_reader.h"

namespace {

bool times_fit(const search_entry& e) {
  return e.time_first >= 0 && e.time_last >= e.time_first && e.time_last <= int64_t(UINT32_MAX);
}

}  // namespace

void task_queue::push(task t) {
  std::unique_lock lock(mu_);
  not_full_.wait(lock, [&] { return tasks_.size() < capacity_; });
  tasks_.push_back(std::move(t));
  not_empty_.notify_one();
}

std::optional<task> task_queue::pop() {
  std::unique_lock lock(mu_);
  not_empty_.wait(lock, [&] { return !tasks_.empty() || closed_; });
  if (tasks_.empty()) return std::nullopt;
  task t = std::move(tasks_.front());
  tasks_.pop_front();
  not_full_.notify_one();
  return t;
}

void task_queue::close() {
  std::lock_guard lock(mu_);
  closed_ = true;
  not_empty_.notify_all();
}

void worker::run(task_queue& q) {
  while (auto t = q.pop()) {
    if (rep_.stop) continue;  // drain without work
    if (t->zone) {
      zone(*t);
    } else {
      chunk(*t);
    }
  }
}

void worker::chunk(task& t) {
  const char* p = t.chunk.data.data();
  const char* end = p + t.chunk.size;
  const char* buffer_end = t.chunk.data.data() + t.chunk.data.size();
  for (size_t index = 0; p < end && !rep_.stop; ++index) {
    const char* nl = static_cast<const char*>(memchr(p, '\n', size_t(end - p)));
    const size_t len = size_t(nl - p);
    const uint64_t line_no = t.chunk.line_number(index);
    if (std::string_view(p, len).find_first_not_of(" \t\r") != std::string_view::npos) {
      if (t.format == input_format::json) {
        json_record_text(*t.name, line_no, p, len, size_t(buffer_end - p));
      } else {
        record_line(*t.name, line_no, std::string_view(p, len));
      }
    }
    p = nl + 1;
  }
}

void worker::json_record_text(const std::string& name, uint64_t line_no, const char* p, size_t len,
                              size_t capacity) {
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

void worker::add(const search_entry& entry) {
  if (want_rrname_) agg.add_rrname(owner_, entry);
  // Data of no bytes (a NULL record, say) has no wire form to key on.
  if (want_rdata_ && !wire_.empty() && wire_.size() <= 65535) {
    agg.add_rdata(wire_, entry, [&] { return dns_.rdata_text(); });
  }
}

void worker::record_line(const std::string& name, uint64_t line_no, std::string_view line) {
  ++rep_.records;
  const size_t tab = line.find('\t');
  if (tab == 0 || tab == std::string_view::npos) {
    rep_.bad(name, line_no, "not a record line (a key, a tab, a value)");
    return;
  }
  const std::string_view key = line.substr(0, tab), value = line.substr(tab + 1);
  // A search shows keys as they are: a control byte could drive the
  // reader's terminal.
  if (holds_control_byte(key)) {
    rep_.bad(name, line_no, "the key " + quoted(key) + " holds a control byte");
  } else if (opts_.kind == index_kind::rrname) {
    rrname_record_line(name, line_no, key, value);
  } else {
    rdata_record_line(name, line_no, key, value);
  }
}

void worker::rrname_record_line(const std::string& name, uint64_t line_no, std::string_view key,
                                std::string_view value) {
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
}

void worker::rdata_record_line(const std::string& name, uint64_t line_no, std::string_view key,
                               std::string_view value) {
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

void worker::zone(task& t) {
  input_reader& in = *t.zone;
  zone_reader reader(in);
  std::string err;
  if (!reader.set_origin(opts_.origin, err)) {
    rep_.fatal("--origin " + opts_.origin + ": " + err);
    return;
  }
  reader.on_relative_name_at_root([&](uint64_t line) {
    rep_.say(*t.name + ":" + std::to_string(line) +
             ": a relative name, and no origin given: taken as relative to the root"
             " (give --origin or $ORIGIN; said once per file)");
  });
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
