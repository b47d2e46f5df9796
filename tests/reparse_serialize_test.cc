// Writing trees back as regular-expression text, and the debug dump.
#include <gtest/gtest.h>

#include <string>

#include "reparse/reparse.h"
#include "tests/support/log_capture.h"

namespace {

re_elem_ptr class_of(unsigned from, unsigned to) {
  re_elem_ptr e = re_elem_init(re_elem_class);
  for (unsigned c = from; c <= to; ++c) e->class_set(static_cast<unsigned char>(c));
  return e;
}

TEST(reparse_serialize, classes_and_kept_quirks) {
  re_elem_ptr not_bc = class_of(0, 255);
  not_bc->bits[1] &= ~(uint64_t{3} << ('b' - 64));
  re_elem_ptr specials = class_of('\\', '^');
  specials->class_set('-');
  re_elem_ptr bounded = class_of('a', 'c');
  bounded->class_set('x');
  bounded->min = 2, bounded->max = 4, bounded->anchor_start = bounded->anchor_end = true;
  re_elem_ptr never = class_of(0, 255);
  never->min = never->max = 0;
  const std::pair<re_elem_ptr, const char*> cases[] = {
      {std::move(not_bc), "[^bc]"},           // byte 0 present: written negated
      {class_of(0, 31), "[^ ]"},               // complement's only run reaches 255
      {class_of(1, 255), "[\x01]"},           // a run reaching 255 is never closed
      {class_of(200, 255), "[\xc8]"},
      {class_of('a', 'b'), "[ab]"},
      {std::move(specials), "[\\-\\\\-\\^]"},  // "-", "\", "]", "^" escaped
      {std::move(bounded), "^[a-cx]{2,4}$"},
      {std::move(never), ".{0,0}"},
  };
  for (const auto& [e, out] : cases) EXPECT_EQ(re_elem_serialize(*e), out);
}

TEST(reparse_serialize, dump_layout) {
  re_elem_ptr tree = regex_parse("^ab(c|d)*[x-z][ac~-\x7f]$", nullptr);
  EXPECT_EQ(re_elem_dump_text(tree.get(), "P: "),
            "P: + ^  $ sequence [4] | 1    \n"
            "P: ++++ literal [0] | 1    \"ab\"\n"
            "P: ++++ group [2] | 0..MAX    \n"
            "P: +++++++ literal [0] | 1    \"c\"\n"
            "P: +++++++ literal [0] | 1    \"d\"\n"
            "P: ++++ class [0] | 1    'x'-'z'\n"
            "P: ++++ class [0] | 1    {4}   'a','c','~',\\x7f\n");
  tree = regex_parse("(ab){2,5}", nullptr);
  EXPECT_EQ(re_elem_dump_text(tree.get(), ""),
            "+group [1] | 2..5    \n++++ literal [0] | 1    \"ab\"\n");
  EXPECT_EQ(re_elem_dump_text(regex_parse(".{3}", nullptr).get(), ""), "+class [0] | 3    *\n");
  EXPECT_EQ(re_elem_dump_text(regex_parse("[~-\x7f]", nullptr).get(), ""), "+class [0] | 1    \\x7e-\\x7f\n");
  EXPECT_EQ(re_elem_dump_text(nullptr, "", 0), "+[NULL]\n");
}

TEST(reparse_serialize, dump_goes_to_the_log_when_enabled) {
  for (int level : {LOG_DEBUG, LOG_TRACE})
    EXPECT_EQ(logged(level, [] { re_elem_dump(regex_parse("a", nullptr).get(), LOG_TRACE); }),
              level == LOG_TRACE ? "+literal [0] | 1    \"a\"\n" : "");
}

}  // namespace
