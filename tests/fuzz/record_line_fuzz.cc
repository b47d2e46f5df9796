// Two lines, split at the first line feed, through the record-line parsers
// and orderings: nothing may crash, parsed owner-name values must format back
// to the same entries, and the owner-name ordering must stay antisymmetric.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "tgdb/record_line.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  const size_t split = input.find('\n');
  std::string a = input.substr(0, split), b = split == input.npos ? "" : input.substr(split + 1);
  // A line without a tab is a corrupt file, for which the rdata ordering ends the process.
  for (std::string* line : {&a, &b}) {
    if (line->find('\t') == line->npos) line->insert(0, "k\t");
    const std::string_view value = std::string_view(*line).substr(line->find('\t') + 1);
    const auto entries = parse_rrname_value(value);
    const std::string again = entries.empty() ? "" : rrname_line("k", entries);
    if (!entries.empty() && again != rrname_line("k", parse_rrname_value(again.substr(2)))) abort();
    parse_rdata_value(value);
    decode_rdata(value);
  }
  const auto sign = [](int v) { return (v > 0) - (v < 0); };
  if (sign(compare_rrname_lines(a, b)) != -sign(compare_rrname_lines(b, a))) abort();
  compare_rdata_lines(a, b);
  return 0;
}
