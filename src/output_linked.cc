#include "output_linked.h"

#include <cinttypes>
#include <string>
#include <string_view>

#include "output.h"
#include "tgdb/linked_line.h"

namespace {

// A JSON string of presentation text: quotes and backslashes escaped, any
// other byte outside printable ASCII written as \DDD, as DNS text writes it.
void append_json_text(std::string& out, std::string_view text) {
  out += '"';
  for (char ch : text) {
    const auto c = static_cast<unsigned char>(ch);
    if (c == '"' || c == '\\') {
      out += '\\';
      out += ch;
    } else if (c < 0x20 || c >= 0x7f) {
      out += "\\\\";
      out += char('0' + c / 100);
      out += char('0' + c / 10 % 10);
      out += char('0' + c % 10);
    } else {
      out += ch;
    }
  }
  out += '"';
}

}  // namespace

void write_linked_text(FILE* stream, const search_result& result) {
  const linked_record r = linked_record_of(result);
  char type_text[RRTYPE_TEXT_SIZE];
  fprintf(stream, "%.*s  %s  %.*s  %" PRIu64 " [%s / %s]\n", int(r.owner.size()), r.owner.data(),
          rrtype_to_text(r.entry.rrtype, type_text), int(r.rdata.size()), r.rdata.data(), r.entry.count,
          local_time_text(r.entry.time_first).c_str(), local_time_text(r.entry.time_last).c_str());
}

void write_linked_raw(FILE* stream, const search_result& result) {
  std::string line = linked_line(result.kind, linked_record_of(result));
  line += '\n';
  fwrite(line.data(), 1, line.size(), stream);
}

void write_linked_json(FILE* stream, const search_result& result) {
  const linked_record r = linked_record_of(result);
  char type_text[RRTYPE_TEXT_SIZE];
  std::string out = "{\"rrname\":";
  append_json_text(out, r.owner);
  out += ",\"rrtype\":";
  append_json_text(out, rrtype_to_text(r.entry.rrtype, type_text));
  out += ",\"rdata\":";
  append_json_text(out, r.rdata);
  out += ",\"count\":" + std::to_string(r.entry.count);
  out += ",\"time_first\":" + std::to_string(r.entry.time_first);
  out += ",\"time_last\":" + std::to_string(r.entry.time_last);
  out += "}\n";
  fwrite(out.data(), 1, out.size(), stream);
}
