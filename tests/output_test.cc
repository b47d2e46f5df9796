#include "output.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

namespace {

constexpr int64_t jan = 1577872800, mar = 1583060400;  // 2020-01-01 10:00:00, 2020-03-01 11:00:00 UTC
const std::string epoch = "[1970-01-01 00:00:00 / 1970-01-01 00:00:00]";

// What a writer puts on its stream, local time being that of `zone`.
template <class Writer, class... Args>
std::string written_in(const char* zone, Writer write, const Args&... args) {
  setenv("TZ", zone, 1);
  tzset();
  char* data = nullptr;
  size_t size = 0;
  FILE* stream = open_memstream(&data, &size);
  write(stream, args...);
  fclose(stream);
  std::string text(data, size);
  free(data);
  return text;
}

template <class Writer, class... Args>
std::string written(Writer write, const Args&... args) {
  return written_in("UTC", write, args...);
}

search_result make(std::string name, std::vector<search_entry> entries, size_t rdata_len = 0) {
  search_result r{std::move(entries), {}, false, std::move(name)};
  for (size_t i = 0; i < rdata_len; ++i) r.rdata.push_back(static_cast<uint8_t>(i));
  return r;
}

TEST(output, writes_text_and_raw_lines) {
  const std::tuple<search_result, std::string, std::string> cases[] = {
      {make("ex", {{1, 12, jan, mar}, {28, 3, mar, mar}}),
       "ex       A/12 [2020-01-01 10:00:00 / 2020-03-01 11:00:00]\tAAAA/3 [2020-03-01 11:00:00 / "
       "2020-03-01 11:00:00]\n",
       "ex\t4:5e0c6da0,4f2810:c 6:5e5b95b0:3\n"},
      {make("n", {}), "n       \n", "n\t\n"},
      {make("n", {{99, 1, 0, 0}, {65, 2, 0, 0}, {100, 1, 0, 0}}),
       "n       SPF/1 " + epoch + "\tHTTPS/2 " + epoch + "\tTYPE100/1 " + epoch + "\n",
       "n\tS:0:1 65:0:2 100:0:1\n"},
  };
  for (const auto& [result, text, raw] : cases) {
    EXPECT_EQ(written(write_text_result, result), text);
    EXPECT_EQ(written(write_raw_result, result), raw);
  }
}

// Text shows local time, daylight saving included; raw and JSON stay in
// epoch seconds. The zone is a rule, so no zone database is needed.
TEST(output, text_times_follow_the_local_zone) {
  constexpr const char* new_york = "EST5EDT,M3.2.0,M11.1.0";
  constexpr int64_t spring = 1710054000, autumn = 1730613600;  // 2024-03-10 07:00, 2024-11-03 06:00 UTC
  const search_result r = make("ny", {{1, 1, spring - 1, spring}, {28, 1, autumn - 1, autumn}});
  EXPECT_EQ(written_in(new_york, write_text_result, r),
            "ny       A/1 [2024-03-10 01:59:59 / 2024-03-10 03:00:00]\t"
            "AAAA/1 [2024-11-03 01:59:59 / 2024-11-03 01:00:00]\n");
  EXPECT_EQ(written_in(new_york, write_raw_result, r), "ny\t4:65ed5a6f,1:1 6:6727115f,1:1\n");
}

TEST(output, writes_json_objects) {
  const search_result r = make("NAME", {{1, 12, jan, mar}, {28, 3, jan, jan}, {1, 9, mar, mar}});
  const std::string a =
      R"({"details":{"rrname":"NAME","rrtype":"A","count":12,"time_first":1577872800,"time_last":1583060400}})";
  EXPECT_EQ(written(write_json_result, r, 0, true),  // a repeated type repeats its first entry
            a + "\n" + R"({"details":{"rrname":"NAME","rrtype":"AAAA","count":3,"time_first":1577872800,)" +
                R"("time_last":1577872800}})" + "\n" + a + "\n");
  EXPECT_EQ(written(write_json_result, make("r", {{1, 1, 0, 0}}, 11), 1, false),
            R"({"terse":{"rdata":"r","rrtype":"A","raw_rdata":"000102030405060708090A"}})" "\n");

  // Refused objects: a message on standard error, nothing printed.
  const std::tuple<search_result, uint16_t, std::string> refused[] = {
      {make(std::string(9000, 'x'), {{1, 1, 0, 0}}), 0, "Error: json result does not fit in 8192 bytes\n"},
      {r, 2, "Error: attempted to return json result for entry without matching rrtype!\n"},
  };
  for (const auto& [result, type, message] : refused) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(written(write_json_result, result, type, true), "");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), message);
  }
}

search_result linked(tgdb_kind kind, std::string key, std::string other, search_entry entry) {
  search_result r = make(std::move(key), {entry});
  r.kind = kind;
  r.other = std::move(other);
  return r;
}

// A byname and a byvalue result of one record print alike, but for raw
// output, which is the line of each kind.
TEST(output, writes_linked_records_in_each_form) {
  const search_entry a{1, 12, jan, mar};
  for (const search_result& r : {linked(tgdb_kind::byname, "login.example.com", "192.0.2.7", a),
                                 linked(tgdb_kind::byvalue, "192.0.2.7", "login.example.com", a)}) {
    EXPECT_EQ(written(write_text_result, r),
              "login.example.com  A  192.0.2.7  12 [2020-01-01 10:00:00 / 2020-03-01 11:00:00]\n");
    EXPECT_EQ(written(write_json_result, r, 0, true),
              R"({"rrname":"login.example.com","rrtype":"A","rdata":"192.0.2.7","count":12,)"
              R"("time_first":1577872800,"time_last":1583060400})" "\n");
    EXPECT_EQ(written_in("EST5EDT,M3.2.0,M11.1.0", write_text_result, r),
              "login.example.com  A  192.0.2.7  12 [2020-01-01 05:00:00 / 2020-03-01 06:00:00]\n");
  }
  EXPECT_EQ(written(write_raw_result, linked(tgdb_kind::byname, "n.test", "1.2.3.4", a)),
            "n.test\t4:5e0c6da0,4f2810:c\t1.2.3.4\n");
  EXPECT_EQ(written(write_raw_result, linked(tgdb_kind::byvalue, "1.2.3.4", "n.test", a)),
            "1.2.3.4\t4:5e0c6da0,4f2810:c\tn.test\n");

  // JSON stays valid whatever the bytes: quotes and backslashes escaped,
  // other bytes as presentation escapes. Counts keep their 64 bits there;
  // a raw line holds 32 (the largest), so that it reads back.
  const search_result odd =
      linked(tgdb_kind::byname, "a\\032b.test", "\"v=1\"\t\xe9\x01", {65, uint64_t{1} << 40, 0, 7});
  EXPECT_EQ(written(write_json_result, odd, 0, true),
            R"({"rrname":"a\\032b.test","rrtype":"HTTPS","rdata":"\"v=1\"\\009\\233\\001","count":1099511627776,)"
            R"("time_first":0,"time_last":7})" "\n");
  EXPECT_EQ(written(write_raw_result, odd), "a\\032b.test\t65:0,7:ffffffff\t\"v=1\"\t\xe9\x01\n");
  EXPECT_EQ(written(write_text_result, odd),
            "a\\032b.test  HTTPS  \"v=1\"\t\xe9\x01  1099511627776 [1970-01-01 00:00:00 / 1970-01-01 00:00:07]\n");
}

}  // namespace
