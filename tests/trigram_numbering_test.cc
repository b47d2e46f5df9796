#include <gtest/gtest.h>

#include <string>

#include "trigram/trigram.h"

namespace {

int32_t id_of(const std::string& s) {
  return trigram_id(static_cast<unsigned char>(s[0]), static_cast<unsigned char>(s[1]),
                    static_cast<unsigned char>(s[2]));
}

std::string name_of(int32_t id, int32_t bound = 0) {
  char out[4] = "xxx";
  return trigram_name(id, out, bound) == 0 ? std::string(out) : "refused";
}

TEST(trigram_numbering, known_ids) {
  struct row {
    std::string text;
    int32_t id;
    const char* decoded;
  } rows[] = {
      {"abc", 3403, "abc"},
      {"aaa", 0, "aaa"},
      {"baa", 1, "baa"},  // the first character is the least significant digit
      {"aba", 41, "aba"},
      {"aab", 1681, "aab"},
      {"ABC", 3403, "abc"},
      {"aBc", 3403, "abc"},
      {"z90", 25 + 41 * 35 + 1681 * 26, "z90"},
      {".-_", 36 + 41 * 37 + 1681 * 38, ".-_"},
      {"^^a", 39 + 41 * 39, "^^a"},
      {"@@@", 68920, "@@@"},
      {" *~", 68920, "@@@"},
      {std::string("\0\x80\xff", 3), 68920, "@@@"},
      {"a/Z", 0 + 41 * 40 + 1681 * 25, "a@z"},
  };
  for (const row& r : rows) {
    EXPECT_EQ(id_of(r.text), r.id) << r.text;
    EXPECT_EQ(name_of(r.id), r.decoded) << r.id;
  }
}

TEST(trigram_numbering, every_byte_outside_the_alphabet_is_symbol_40) {
  const std::string alphabet = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.-_^";
  int others = 0;
  for (int c = 0; c < 256; ++c) {
    bool listed = c != 0 && alphabet.find(static_cast<char>(c)) != std::string::npos;
    if (listed) {
      EXPECT_LT(trigram_symbol(static_cast<unsigned char>(c)), 40) << c;
    } else {
      EXPECT_EQ(trigram_symbol(static_cast<unsigned char>(c)), 40) << c;
      ++others;
    }
  }
  EXPECT_EQ(others, 256 - 66);
}

TEST(trigram_numbering, decoding_round_trips_and_respects_the_bound) {
  for (int32_t id = 0; id < TRIGRAM_COUNT; ++id) {
    char out[4];
    ASSERT_EQ(trigram_name(id, out, TRIGRAM_COUNT), 0);
    ASSERT_EQ(out[3], '\0');
    ASSERT_EQ(id_of(out), id);
  }
  EXPECT_EQ(name_of(68920, TRIGRAM_COUNT), "@@@");
  EXPECT_EQ(name_of(68921, TRIGRAM_COUNT), "refused");
  EXPECT_EQ(name_of(-1, TRIGRAM_COUNT), "refused");
  EXPECT_EQ(name_of(100, 50), "refused");  // a smaller index bounds it tighter
  EXPECT_NE(name_of(68921), "refused");    // without a bound nothing is refused
}

}  // namespace
