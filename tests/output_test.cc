#include "output.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <functional>

#include "log/log.h"

namespace {

constexpr int64_t jan = 1577872800, mar = 1583060400;  // 2020-01-01 10:00:00, 2020-03-01 11:00:00 UTC

class output : public testing::Test {
 protected:
  void SetUp() override {
    setenv("TZ", "UTC", 1);
    tzset();
  }
};

std::string written(const std::function<void(FILE*)>& write) {
  char* data = nullptr;
  size_t size = 0;
  FILE* stream = open_memstream(&data, &size);
  write(stream);
  fclose(stream);
  std::string text(data, size);
  free(data);
  return text;
}

search_result make(std::string name, std::vector<search_entry> entries, size_t rdata_len = 0) {
  search_result r;
  r.name = std::move(name);
  r.entries = std::move(entries);
  for (size_t i = 0; i < rdata_len; ++i) r.rdata.push_back(static_cast<uint8_t>(i));
  return r;
}

TEST_F(output, writes_text_and_raw_lines) {
  const std::string hex32 = "000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f";
  search_result wild = make("*.example", {{6, 1, jan, jan}}, 33);
  wild.wildcard = true;
  const std::tuple<search_result, std::string, std::string> cases[] = {
      {make("example", {{1, 12, jan, mar}, {28, 3, mar, mar}, {100, 1, 0, 0}}),
       "example       A/12 [2020-01-01 10:00:00 / 2020-03-01 11:00:00]\tAAAA/3 [2020-03-01 11:00:00 / "
       "2020-03-01 11:00:00]\tTYPE100/1 [1970-01-01 00:00:00 / 1970-01-01 00:00:00]\n",
       "example\t4:5e0c6da0,4f2810:c 6:5e5b95b0:3 100:0:1\n"},
      {make("n", {}), "n       \n", "n\t\n"},
      {make("n", {{99, 1, 0, 0}, {65, 2, 0, 0}, {4, 1, 0, 0}}),
       "n       SPF/1 [1970-01-01 00:00:00 / 1970-01-01 00:00:00]\tHTTPS/2 [1970-01-01 00:00:00 / 1970-01-01 "
       "00:00:00]\tMF/1 [1970-01-01 00:00:00 / 1970-01-01 00:00:00]\n",
       "n\tS:0:1 65:0:2 04:0:1\n"},
      {make("r", {{1, 1, jan, jan}, {28, 1, jan, jan}}, 32),
       "r       A/1 [2020-01-01 10:00:00 / 2020-01-01 10:00:00]\n\t" + hex32 + "\n",
       "r\t32/" + hex32 + " 4:5e0c6da0:1\n"},
      {wild, "*.example       SOA/1 [2020-01-01 10:00:00 / 2020-01-01 10:00:00]\n\t[wildcard] [partial/33 bytes] " +
                 hex32 + "...\n",
       "*.example\t33/" + hex32 + "20 s:5e0c6da0:1\n"},
  };
  for (const auto& [result, text, raw] : cases) {
    EXPECT_EQ(written([&](FILE* f) { write_text_result(f, result); }), text);
    EXPECT_EQ(written([&](FILE* f) { write_raw_result(f, result); }), raw);
  }
}

TEST_F(output, writes_json_objects) {
  const search_result both = make("NAME", {{1, 12, jan, mar}, {28, 3, jan, jan}, {1, 9, mar, mar}});
  const std::string a = R"({"details":{"rrname":"NAME","rrtype":"A","count":12,"time_first":1577872800,"time_last":1583060400}})";
  EXPECT_EQ(written([&](FILE* f) { write_json_result(f, both, 0, true); }),
            a + "\n" + R"({"details":{"rrname":"NAME","rrtype":"AAAA","count":3,"time_first":1577872800,"time_last":1577872800}})" +
                "\n" + a + "\n");
  EXPECT_EQ(written([&](FILE* f) { write_json_result(f, make("r", {{1, 1, 0, 0}}, 2), 1, false); }),
            "{\"terse\":{\"rdata\":\"r\",\"rrtype\":\"A\",\"raw_rdata\":\"0001\"}}\n");

  const std::string hex511 = written([](FILE* f) { write_json_result(f, make("r", {{1, 1, 0, 0}}, 511), 0, false); });
  EXPECT_EQ(hex511.size(), std::string(R"({"terse":{"rdata":"r","rrtype":"A","raw_rdata":""}})").size() + 1022 + 1);

  // Refused objects: a message on standard error, nothing on the stream.
  const std::pair<search_result, std::string> refused[] = {
      {make("r", {{1, 1, 0, 0}}, 512), "Error: too much rdata to return as raw_rdata\n"},
      {make(std::string(9000, 'x'), {{1, 1, 0, 0}}), "Error: json result does not fit in 8192 bytes\n"},
  };
  for (const auto& [result, message] : refused) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(written([&](FILE* f) { write_json_result(f, result, 0, true); }), "");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), message);
  }
  testing::internal::CaptureStderr();
  EXPECT_EQ(written([&](FILE* f) { write_json_result(f, both, 2, true); }), "");
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Error: attempted to return json result for entry without matching rrtype!\n");

  // A generator failure prints what was built so far.
  log_set_level(LOG_ERROR);
  testing::internal::CaptureStderr();
  EXPECT_EQ(written([&](FILE* f) { write_json_result(f, make("bad\xff", {{1, 1, 0, 0}}), 0, true); }),
            "{\"details\":{\"rrname\"\n");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Error: function yajl_gen_string() returned 7 {unknown}\n");
}

}  // namespace
