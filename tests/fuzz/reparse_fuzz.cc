// Any byte string given to either parser (the first byte chooses: bit 0 set,
// the glob parser; the seeds start with 'g' or 'r') fails with a message or
// yields a sound tree that can be written, copied and dumped, and whose
// written form the regular-expression parser takes without harm. A glob's
// tree and written form are anchored at both ends.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "reparse/reparse.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const bool is_glob = data[0] & 1;
  const std::string text(reinterpret_cast<const char*>(data + 1), size - 1);
  const auto parse = [&](std::string* err) {
    return is_glob ? glob_parse(text.c_str(), err) : regex_parse(text.c_str(), err);
  };
  std::string err;
  re_elem_ptr tree = parse(&err);
  if ((tree == nullptr) != (parse(nullptr) == nullptr) || (!tree && err.empty())) abort();
  if (!tree) return 0;
  if (const char* why = re_elem_check(*tree)) {
    fprintf(stderr, "unsound tree: %s\n", why);
    abort();
  }
  const std::string written = re_elem_serialize(*tree);
  if (re_elem_serialize(*re_elem_clone(*tree)) != written) abort();
  if (is_glob && (!tree->anchor_start || !tree->anchor_end || written.front() != '^' || written.back() != '$'))
    abort();
  re_elem_dump_text(tree.get(), "", 0);
  // The written text need not read back (raw control bytes), but must not break the parser.
  re_elem_ptr again = regex_parse(written.c_str(), &err);
  if (again && re_elem_check(*again) != nullptr) abort();
  return 0;
}
