#include "libmy/my_text.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

namespace {

TEST(my_text, visible_text) {
  const std::pair<std::string, std::string> cases[] = {
      {"x.rrname.tgdb", "x.rrname.tgdb"},
      {"x.rrname.tgdb\r", "x.rrname.tgdb\\r"},
      {"a\tb\nc", "a\\tb\\nc"},
      {"back\\slash", "back\\\\slash"},
      {std::string("nul\0", 4) + "\x1b[31m\x7f\xc3\xa5", "nul\\x00\\x1b[31m\\x7f\\xc3\\xa5"},
      {"", ""},
  };
  for (const auto& [in, want] : cases) EXPECT_EQ(visible_text(in), want);
}

}  // namespace
