// stdbool.h first: without it the DNS library's header defines bool, true
// and false as macros.
#include <stdbool.h>

#include <ldns/ldns.h>

#include <algorithm>
#include <cinttypes>
#include <ctime>
#include <string>

#include "output.h"
#include "output_linked.h"
#include "tgdb/record_line.h"

namespace {
constexpr size_t text_rdata_cut = 32;
}  // namespace

std::string local_time_text(int64_t seconds) {
  const time_t t = static_cast<time_t>(seconds);
  tm parts;
  char text[64];
  if (localtime_r(&t, &parts) && strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts) > 0) return text;
  return std::to_string(seconds);
}

const char* rrtype_to_text(uint16_t rrtype, std::span<char> buffer) {
  const ldns_rr_descriptor* descriptor = ldns_rr_descript(rrtype);
  if (descriptor && descriptor->_name) {
    snprintf(buffer.data(), buffer.size(), "%s", descriptor->_name);
    return descriptor->_name;
  }
  snprintf(buffer.data(), buffer.size(), "TYPE%u", static_cast<unsigned>(rrtype));
  return buffer.data();
}

void write_text_result(FILE* stream, const search_result& result) {
  if (tgdb_kind_linked(result.kind)) return write_linked_text(stream, result);
  fprintf(stream, "%s       ", result.name.c_str());
  char type_text[RRTYPE_TEXT_SIZE];
  for (size_t i = 0; i < result.entries.size(); ++i) {
    const search_entry& e = result.entries[i];
    fprintf(stream, "%s%s/%" PRIu64 " [%s / %s]", i ? "\t" : "", rrtype_to_text(e.rrtype, type_text), e.count,
            local_time_text(e.time_first).c_str(), local_time_text(e.time_last).c_str());
    if (!result.has_rdata()) continue;
    // A result with rdata shows its first entry only, then the data.
    const size_t len = result.rdata.size();
    fprintf(stream, "\n\t%s", result.wildcard ? "[wildcard] " : "");
    if (len > text_rdata_cut) fprintf(stream, "[partial/%zu bytes] ", len);
    for (size_t b = 0; b < std::min(len, text_rdata_cut); ++b) fprintf(stream, "%.2x", result.rdata[b]);
    fputs(len > text_rdata_cut ? "...\n" : "\n", stream);
    return;
  }
  fputc('\n', stream);
}

void write_raw_result(FILE* stream, const search_result& result) {
  if (tgdb_kind_linked(result.kind)) return write_linked_raw(stream, result);
  fprintf(stream, "%s\t", result.name.c_str());
  // The same form as the index lines: an rdata result is its first entry.
  std::string value;
  if (result.has_rdata() && !result.entries.empty()) {
    append_rdata_value(value, result.rdata, result.entries.front());
  } else {
    append_rrname_value(value, result.entries);
  }
  value += '\n';
  fwrite(value.data(), 1, value.size(), stream);
}
