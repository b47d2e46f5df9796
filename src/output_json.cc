#include <yajl/yajl_gen.h>
#include <yajl/yajl_parse.h>

#include <algorithm>
#include <memory>
#include <string_view>

#include "log/log.h"
#include "output.h"
#include "output_linked.h"

namespace {

struct yajl_gen_deleter {
  void operator()(yajl_gen_t* gen) const { yajl_gen_free(gen); }
};

// Where the generator's output goes: appended to `out`, never past the
// buffer size (`overflow` records that something was cut).
struct json_sink {
  std::string& out;
  size_t size;
  bool overflow = false;
};

void append_chunk(void* context, const char* chunk, size_t len) {
  auto& sink = *static_cast<json_sink*>(context);
  const size_t used = sink.out.size() + 1;  // room for the terminator
  const size_t room = sink.size > used ? sink.size - used : 0;
  if (len > room) {
    sink.overflow = true;
    len = room;
  }
  sink.out.append(chunk, len);
}

void report_failure(const char* function, int status) {
  log_printf(LOG_ERROR, "Error: function %s() returned %d {%s}", function, status,
             yajl_status_to_string(static_cast<yajl_status>(status)));
}

bool generated(const char* function, int status) {
  if (status == yajl_gen_status_ok) return true;
  report_failure(function, status);
  return false;
}

}  // namespace

bool json_format_result(const search_result& result, uint16_t rrtype, bool details, std::string& out,
                        size_t size) {
  constexpr size_t raw_rdata_limit = 1024;
  out.clear();
  std::unique_ptr<yajl_gen_t, yajl_gen_deleter> owner(yajl_gen_alloc(nullptr));
  if (!owner) return false;
  yajl_gen gen = owner.get();
  json_sink sink{out, size};

  // On a generator failure the caller prints what was generated so far.
  // yajl_gen_config answers 1 for success, so a failure reports status 0.
  if (!yajl_gen_config(gen, yajl_gen_print_callback, append_chunk, &sink) ||
      !yajl_gen_config(gen, yajl_gen_validate_utf8, 1)) {
    report_failure("yajl_gen_config", 0);
    return true;
  }
  const auto open = [&] { return generated("yajl_gen_map_open", yajl_gen_map_open(gen)); };
  const auto close = [&] { return generated("yajl_gen_map_close", yajl_gen_map_close(gen)); };
  const auto string = [&](std::string_view s) {
    return generated("yajl_gen_string",
                     yajl_gen_string(gen, reinterpret_cast<const unsigned char*>(s.data()), s.size()));
  };
  const auto integer = [&](int64_t v) { return generated("yajl_gen_integer", yajl_gen_integer(gen, v)); };

  if (!open() || !string(details ? "details" : "terse") || !open() ||
      !string(result.has_rdata() ? "rdata" : "rrname") || !string(result.name))
    return true;

  const auto entry = std::find_if(result.entries.begin(), result.entries.end(),
                                  [&](const search_entry& e) { return e.rrtype == rrtype; });
  if (entry == result.entries.end()) {
    fputs("Error: attempted to return json result for entry without matching rrtype!\n", stderr);
    return false;
  }
  char type_text[RRTYPE_TEXT_SIZE];
  if (!string("rrtype") || !string(rrtype_to_text(entry->rrtype, type_text))) return true;
  if (details && (!string("count") || !integer(static_cast<int64_t>(entry->count)) || !string("time_first") ||
                  !integer(entry->time_first) || !string("time_last") || !integer(entry->time_last)))
    return true;

  if (result.has_rdata()) {
    if (result.rdata.size() * 2 + 1 > raw_rdata_limit) {
      fputs("Error: too much rdata to return as raw_rdata\n", stderr);
      return false;
    }
    static constexpr char digits[] = "0123456789ABCDEF";
    std::string hex;
    hex.reserve(result.rdata.size() * 2);
    for (uint8_t b : result.rdata) {
      hex += digits[b >> 4];
      hex += digits[b & 15];
    }
    if (!string("raw_rdata") || !string(hex)) return true;
  }
  if (!close() || !close()) return true;
  if (sink.overflow) {
    fprintf(stderr, "Error: json result does not fit in %zu bytes\n", size);
    return false;
  }
  return true;
}

void write_json_result(FILE* stream, const search_result& result, uint16_t rrtype, bool details) {
  if (tgdb_kind_linked(result.kind)) return write_linked_json(stream, result);
  std::string buffer;
  const auto write_one = [&](uint16_t type) {
    if (json_format_result(result, type, details, buffer, JSON_RESULT_BUFFER))
      fprintf(stream, "%s\n", buffer.c_str());
  };
  if (rrtype != 0) {
    write_one(rrtype);
    return;
  }
  for (const search_entry& e : result.entries) write_one(e.rrtype);
}
