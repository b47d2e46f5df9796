// Regular-expression and glob parsing: written-back text, exact error
// messages, and the shapes the normalisations leave behind.
#include <gtest/gtest.h>

#include <string>

#include "reparse/reparse.h"

namespace {

struct parse_case {
  const char* in;
  const char* out;  // written-back text, or "!" followed by the error message
};

std::string outcome(bool glob, const std::string& in) {
  std::string err;
  re_elem_ptr tree = glob ? glob_parse(in.c_str(), &err) : regex_parse(in.c_str(), &err);
  if (!tree) return "!" + err;
  EXPECT_EQ(re_elem_check(*tree), nullptr) << in;
  return re_elem_serialize(*tree);
}

// Compact tree shape: type, literal text, bounds (when not {1,1}), anchors.
std::string shape(const re_elem& e) {
  std::string s = e.anchor_start ? "^" : "";
  if (e.type == re_elem_literal) {
    s.append("'").append(e.text).append("'");
  } else if (e.type == re_elem_class && e.class_is_universal()) {
    s.append(".");
  } else if (e.type == re_elem_class) {
    s.append("[").append(std::to_string(e.class_count())).append("]");
  } else {
    s.append(e.type == re_elem_group ? "grp(" : "seq(");
    for (size_t i = 0; i < e.children.size(); ++i)
      s.append(i == 0 ? "" : e.type == re_elem_group ? " | " : " ").append(shape(*e.children[i]));
    s.append(")");
  }
  if (e.min != 1 || e.max != 1)
    s.append("{").append(std::to_string(e.min)).append(",").append(std::to_string(e.max)).append("}");
  return s.append(e.anchor_end ? "$" : "");
}

TEST(reparse, regex_written_back_or_refused) {
  const parse_case cases[] = {
      {"", ""}, {"abc", "abc"}, {"a|b", "(a|b)"}, {"a||b", "(a||b)"}, {"(a|b|)", "(a|b|)"},
      {"(a|)", "(a)?"}, {"(|)", ""}, {"(|b|)", "(b)?"}, {"x(a|){2,3}", "x(a){0,3}"},
      {"a|$", "(a)?"}, {"$", ""}, {"^", "^"}, {"^$", "^$"}, {"^a$", "^a$"}, {"(^a)", "^a"},
      {"a(b)", "ab"}, {"a[b]c", "abc"}, {"[.]", "\\."}, {"a(b.c)d", "ab.cd"},
      {"abc*", "abc*"}, {"a**", "(a*)*"}, {"a*?", "(a*)?"}, {"x{2}{3}", "(x{2}){3}"},
      {"(a){2}", "a{2}"}, {"([ab]){2}", "[ab]{2}"}, {"(ab){2}", "(ab){2}"}, {"(a*){2}", "(a*){2}"},
      {"(a$)*", "a*$"}, {"(^ab)*", "(^ab)*"}, {"a$|^b", "(a$|^b)"}, {"(a|b)(c|d)", "(a|b)(c|d)"},
      {"a{2,}b{0,0}(c|d)*", "a{2,}b{0,0}(c|d)*"}, {"x{1,1}", "x"}, {"x{0,}", "x*"}, {"x{1,}", "x+"},
      {"x{0,1}", "x?"}, {"x{3,3}", "x{3}"}, {"a{65535}", "a{65535}"}, {"a{65535,}", "a{65535}"},
      {"a{1, 3}", "a{1,3}"}, {"a{+2}", "a\\{+2}"}, {"{", "\\{"}, {"{,5}", "\\{,5}"},
      {"a{x}", "a\\{x}"}, {"a\\.b", "a\\.b"}, {"a]b}-", "a]b}-"}, {"\\\\\\^\\$\\|", "\\\\\\^\\$\\|"},
      {"[a-cx]", "[a-cx]"}, {"[ab]", "[ab]"}, {"[^a]", "[^a]"}, {"[-^]", "[\\-\\^]"}, {".", "."},
      {"[a-]", "[\\-a]"}, {"[]a]", "[\\]a]"}, {"[^]a]", "[^\\]a]"}, {"[[a]", "[[a]"},
      {"[[:digit:]_]", "[0-9_]"}, {"[[:xdigit:]]", "[0-9A-Fa-f]"}, {"[^[:alpha:]]", "[^A-Za-z]"},
      {"[[:cntrl:]]", "[^ -~\x80]"}, {"[~-\x7f]", "[~\x7f]"},
      // Errors, each with the offending position.
      {"a$b", "!Invalid characters after '$' at 2"}, {"a$$", "!Invalid characters after '$' at 2"},
      {"(a$)b", "!Invalid characters after '$' at 4"}, {"*a", "!Invalid '*' at 0"},
      {"a|+b", "!Invalid '+' at 2"}, {"(*)", "!Invalid '*' at 1"}, {"^?", "!Invalid '?' at 1"},
      {"{2}", "!Invalid '{' at 0"}, {"^^", "!Duplicate '^' at 1"}, {"a^", "!Invalid '^' at 1"},
      {"x(^a)", "!Invalid '^' at 4"}, {"x(^a)b", "!Invalid '^' at 5"},
      {"(^a)(^b)", "!Duplicate '^' at 7"}, {"(a$)$", "!Duplicate '$' at 4"},
      {"a{65536}", "!Invalid bound at 1: 65536 exceeds maximum 65535"},
      {"ab{1,99999}", "!Invalid bound at 2: 99999 exceeds maximum 65535"},
      {"a{1,-1}", "!Invalid bound at 1: 18446744073709551615 exceeds maximum 65535"},
      {"a{3,2}", "!Invalid bound at 1: 3 > 2"}, {"a{2,x}", "!Invalid bound at 1: 2 > 0"},
      {"a{0,x}", "!Invalid bound at 1"}, {"a{2", "!Invalid bound at 1"}, {"a{2x}", "!Invalid bound at 1"},
      {"[z-a]", "!Invalid range at 3"}, {"[a-c-e]", "!Invalid range at 5"}, {"[a-[]", "!Invalid range at 3"},
      {"[[:alpha:]-z]", "!Invalid range at 11"}, {"[[:foo:]]", "!Invalid character class name at 0"},
      {"x[[:alpha]]", "!Invalid character class name at 1"},
      {"[[.a.]]", "!Collating element [..] not supported at 1"},
      {"a[b[=a=]]", "!Collating element [==] not supported at 3"},
      {"[abc", "!Unmatched [ at 0"}, {"[^abc", "!Unmatched [^ at 0"}, {"[a-", "!Unmatched [ at 0"},
      {"[]", "!Unmatched [ at 0"}, {"\\d", "!Invalid escaped character \\d at 0"},
      {"a\\]", "!Invalid escaped character \\] at 1"}, {"a\\", "!Invalid unescaped '\\' at end of regexp"},
      {"(ab", "!Premature end of regexp"}, {"ab)", "!Unmatched ) at 2"},
      {"a\tb", "!Invalid character code 9 at 1"}, {"\xc3\xa9", "!Invalid character code 195 at 0"},
      {"[a\tb]", "!Invalid character code 9 at 2"},
  };
  for (const parse_case& c : cases) EXPECT_EQ(outcome(false, c.in), c.out) << c.in;
}

TEST(reparse, regex_nesting_limit) {
  const std::string ok = "x" + std::string(RE_MAX_REPEAT_NESTING, '+');
  EXPECT_EQ(outcome(false, ok).substr(0, 3), "(((");
  EXPECT_EQ(outcome(false, ok + "*"), "!Repetitions nested too deeply (more than 16)");
  EXPECT_EQ(outcome(false, "((((((((((((((((((x+)+)+)+)+)+)+)+)+)+)+)+)+)+)+)+)+)+)+"),
            "!Repetitions nested too deeply (more than 16)");
  const size_t open = RE_MAX_DEPTH / 2;
  EXPECT_EQ(outcome(false, std::string(open, '(') + "a" + std::string(open, ')')), "a");
  EXPECT_EQ(outcome(false, std::string(open + 1, '(') + "a"), "!Regexp nested too deeply");
}

TEST(reparse, glob_written_back_or_refused) {
  const parse_case cases[] = {
      {"", "^$"}, {"abc", "^abc$"}, {"*", "^.*$"}, {"a?c", "^a.c$"}, {"*.txt", "^.*\\.txt$"},
      {"a(b)", "^a\\(b\\)$"}, {"{x}|+^$", "^\\{x}\\|\\+\\^\\$$"}, {"[!a]", "^[^a]$"},
      {"[^a]", "^[\\^a]$"}, {"a[b]c", "^abc$"}, {"[[:digit:]]*", "^[0-9].*$"},
      {"a\\*b", "^a\\*b$"}, {"a\\", "^a$"}, {"\\", "^$"}, {"a\\\tb", "^a\tb$"},
      {"[abc", "!Unmatched [ at 0"}, {"x[!abc", "!Unmatched [! at 1"},
      {"a\tb", "!Invalid character code 9 at 1"}, {"ab[z-a]", "!Invalid range at 5"},
      {"[[:nope:]]", "!Invalid character class name at 0"},
  };
  for (const parse_case& c : cases) EXPECT_EQ(outcome(true, c.in), c.out) << c.in;
}

TEST(reparse, normalised_shapes) {
  const parse_case regex[] = {
      {"(a|)", "grp('a'){0,1}"}, {"(|)", "seq()"}, {"(|b|)", "grp('b'){0,1}"},
      {"a||b", "grp('a' | seq() | 'b')"}, {"(|^|$|)", "grp(seq() | ^seq() | seq()$)"},
      {"(|$)", "grp(seq()$){0,1}"}, {"($|a)", "grp('a'){0,1}"}, {"a[b]c", "'abc'"},
      {"(^a)", "^'a'"}, {"abc*", "seq('ab' 'c'{0,65535})"}, {"a(b.c)d", "seq('a' 'b' . 'cd')"},
      {"(a|){2,3}", "grp('a'){0,3}"}, {"a**", "grp('a'{0,65535}){0,65535}"},
      {"^ab|c$", "grp(^'ab' | 'c'$)"}, {"(a$)*", "'a'{0,65535}$"}, {"[ab]+", "[2]{1,65535}"},
      {"x{2}{3}", "grp('x'{2,2}){3,3}"}, {"^(a|b)", "^grp('a' | 'b')"},
  };
  for (const parse_case& c : regex) EXPECT_EQ(shape(*regex_parse(c.in, nullptr)), c.out) << c.in;
  const parse_case glob[] = {
      {"*", "^.{0,65535}$"}, {"a?c", "^seq('a' . 'c')$"}, {"", "^seq()$"}, {"[!a]", "^[255]$"},
  };
  for (const parse_case& c : glob) EXPECT_EQ(shape(*glob_parse(c.in, nullptr)), c.out) << c.in;
}

// Members in the POSIX locale: never a byte above 127.
TEST(reparse, posix_classes) {
  const std::pair<const char*, size_t> sizes[] = {
      {"[:alnum:]", 62}, {"[:alpha:]", 52}, {"[:blank:]", 2},  {"[:cntrl:]", 33},
      {"[:digit:]", 10}, {"[:graph:]", 94}, {"[:lower:]", 26}, {"[:print:]", 95},
      {"[:punct:]", 32}, {"[:space:]", 6},  {"[:upper:]", 26}, {"[:xdigit:]", 22},
  };
  ASSERT_EQ(class_table().size(), std::size(sizes));
  for (size_t i = 0; i < std::size(sizes); ++i) {
    re_elem cls(re_elem_class);
    EXPECT_STREQ(class_table()[i].name, sizes[i].first);
    class_table()[i].fill(cls.bits);
    EXPECT_EQ(cls.class_count(), sizes[i].second) << sizes[i].first;
    EXPECT_EQ(cls.bits[2] | cls.bits[3], 0u) << sizes[i].first;
  }
}

}  // namespace
