// The whole path from expression to trigram query and confirming matcher.
// Input: one flag byte (bit 0: glob), the expression up to a line feed, then
// a key. Besides never crashing, the query must accept the key's trigrams
// whenever the compiled pattern confirms the key.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "trigram/matcher.h"
#include "trigram/trigram.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const bool is_glob = data[0] & 1;
  const std::string rest(reinterpret_cast<const char*>(data + 1), size - 1);
  const size_t split = rest.find('\n');
  const std::string expression = rest.substr(0, std::min(split, rest.find('\0')));
  std::string key = split == std::string::npos ? "" : rest.substr(split + 1);
  key = key.substr(0, key.find('\n'));  // keys are single lines

  // Compiling is bounded by the parser's budgets; scripts/fuzz runs this
  // target with a time limit, so a pattern that compiles slowly is a finding.
  search_match ctx;
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
