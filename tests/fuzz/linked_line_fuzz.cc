// The first two lines of the input through the byname and byvalue
// line parser, formatter and orders: nothing may crash, a parsed line must
// format back to itself up to its item's spelling, and both orders must
// stay antisymmetric.
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

#include "tgdb/linked_line.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  const size_t split = input.find('\n');
  // Lines of a file hold no line feed.
  const std::string a = input.substr(0, split);
  const std::string b = split == input.npos ? "" : input.substr(split + 1, input.find('\n', split + 1) - split - 1);
  for (tgdb_kind kind : {tgdb_kind::byname, tgdb_kind::byvalue}) {
    for (const std::string* line : {&a, &b}) {
      const auto record = parse_linked_line(kind, *line);
      if (!record) continue;
      const std::string again = linked_line(kind, *record);
      const auto reread = parse_linked_line(kind, again);
      if (!reread || linked_line(kind, *reread) != again || reread->owner != record->owner ||
          reread->rdata != record->rdata)
        abort();
      std::unique_ptr<search_result> slot;
      merge_linked(slot, *line);
      if (!slot) abort();
    }
  }
  const auto sign = [](int v) { return (v > 0) - (v < 0); };
  if (sign(compare_byname_lines(a, b)) != -sign(compare_byname_lines(b, a))) abort();
  if (sign(compare_byvalue_lines(a, b)) != -sign(compare_byvalue_lines(b, a))) abort();
  return 0;
}
