// Any byte string given to the glob parser either fails with a message or
// yields a sound tree, anchored at both ends, whose written form the
// regular-expression parser accepts without harm.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "reparse/reparse.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  std::string err;
  re_elem_ptr tree = glob_parse(text.c_str(), &err);
  if (!tree) {
    if (err.empty() || glob_parse(text.c_str(), nullptr) != nullptr) abort();
    return 0;
  }
  if (const char* why = re_elem_check(*tree)) {
    fprintf(stderr, "unsound tree: %s\n", why);
    abort();
  }
  if (!tree->anchor_start || !tree->anchor_end) abort();
  const std::string written = re_elem_serialize(*tree);
  if (written.front() != '^' || written.back() != '$') abort();
  re_elem_dump_text(tree.get(), "", 0);
  re_elem_ptr again = regex_parse(written.c_str(), &err);
  if (again && re_elem_check(*again) != nullptr) abort();
  return 0;
}
