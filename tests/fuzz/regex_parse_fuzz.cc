// Any byte string given to the regular-expression parser either fails with
// a message or yields a sound tree that can be written, copied and dumped.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "reparse/reparse.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  std::string err;
  re_elem_ptr tree = regex_parse(text.c_str(), &err);
  if ((tree == nullptr) != (regex_parse(text.c_str(), nullptr) == nullptr)) abort();
  if (!tree) {
    if (err.empty()) abort();
    return 0;
  }
  if (const char* why = re_elem_check(*tree)) {
    fprintf(stderr, "unsound tree: %s\n", why);
    abort();
  }
  const std::string written = re_elem_serialize(*tree);
  if (re_elem_serialize(*re_elem_clone(*tree)) != written) abort();
  re_elem_dump_text(tree.get(), "", 0);
  // The written text need not read back (raw control bytes), but must not break the parser.
  re_elem_ptr again = regex_parse(written.c_str(), &err);
  if (again && re_elem_check(*again) != nullptr) abort();
  return 0;
}
