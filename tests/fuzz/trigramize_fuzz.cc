// The whole path from expression to trigram query and confirming matcher.
// Input: one flag byte (bit 0: glob), the expression up to a line feed, then
// a key. Besides never crashing, the query must accept the key's trigrams
// whenever the compiled pattern confirms the key.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "reparse/reparse.h"
#include "trigram/matcher.h"
#include "trigram/trigram.h"

namespace {

// Repeated elements nested in one another along the deepest path.
size_t repeat_nesting(const re_elem& e) {
  size_t deepest = 0;
  for (const re_elem_ptr& c : e.children) deepest = std::max(deepest, repeat_nesting(*c));
  return deepest + (e.min != 1 || e.max != 1 ? 1 : 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const bool is_glob = data[0] & 1;
  const std::string rest(reinterpret_cast<const char*>(data + 1), size - 1);
  const size_t split = rest.find('\n');
  const std::string expression = rest.substr(0, std::min(split, rest.find('\0')));
  std::string key = split == std::string::npos ? "" : rest.substr(split + 1);
  key = key.substr(0, key.find('\n'));  // keys are single lines

  // Hyperscan's compiler takes time exponential in the nesting of repeated
  // groups such as ((((a+)+)+)+), which "a++++" parses to; such patterns are
  // left out so that the run explores everything else.
  re_elem_ptr tree = is_glob ? glob_parse(expression.c_str(), nullptr) : regex_parse(expression.c_str(), nullptr);
  if (tree && repeat_nesting(*tree) > 8) return 0;

  search_context ctx;
  std::string error;
  int status = 0;
  if (!compile_search(ctx, expression.c_str(), is_glob, &status, &error)) {
    if (error.empty()) abort();  // a failure always says why
    return 0;
  }
  if (!match_line(ctx, key.data(), key.size())) return 0;
  trigram_bitmap present;
  for (int32_t id : literal_trigram_ids(key, true, true)) present.set(id);
  if (!trigram_query_accepts(ctx.query.get(), present)) {
    fprintf(stderr, "unsound query for %s {%s} on key {%s}: %s\n", is_glob ? "glob" : "regex", expression.c_str(),
            key.c_str(), trigram_query_to_text(ctx.query.get()).c_str());
    abort();
  }
  return 0;
}
