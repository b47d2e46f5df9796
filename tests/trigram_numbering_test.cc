#include <gtest/gtest.h>

#include <string>

#include "trigram/trigram.h"

namespace {

int32_t id_of(std::string_view s) {
  auto c = [&](size_t i) { return static_cast<unsigned char>(s[i]); };
  return trigram_id(c(0), c(1), c(2));
}

TEST(trigram_numbering, ids_names_and_bound) {
  // The first character is the least significant digit and upper case folds;
  // bytes next to the alphabet's ranges and outside ASCII are all symbol 40.
  const std::pair<std::string, int32_t> ids[] = {
      {"abc", 3403}, {"aaa", 0}, {"baa", 1}, {"aab", 1681}, {"AbC", 3403}, {"z9.", 25 + 41 * 35 + 1681 * 36},
      {"-_^", 37 + 41 * 38 + 1681 * 39}, {"@@@", 68920}, {"`{:", 68920}, {"/[ ", 68920},
      {std::string("\0\x80\xff", 3), 68920}};
  for (const auto& [text, id] : ids) EXPECT_EQ(id_of(text), id) << text;

  char name[4];
  for (const auto& [id, text] : {std::pair{0, "aaa"}, {3403, "abc"}, {68920, "@@@"}}) {
    ASSERT_EQ(trigram_name(id, name, TRIGRAM_COUNT), 0);
    EXPECT_STREQ(name, text);
  }
  for (int32_t id = 0; id < TRIGRAM_COUNT; ++id) {  // decoding inverts the numbering
    ASSERT_EQ(trigram_name(id, name, TRIGRAM_COUNT), 0);
    ASSERT_EQ(id_of(name), id) << name;
  }
  EXPECT_EQ(trigram_name(68921, name, TRIGRAM_COUNT), -1);
  EXPECT_EQ(trigram_name(-1, name, TRIGRAM_COUNT), -1);
  EXPECT_EQ(trigram_name(68921, name), 0);  // only an index's count bounds it
}

}  // namespace
