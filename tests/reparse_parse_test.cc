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
      {"", ""}, {"abc", "abc"}, {"a|b", "(a|b)"}, {"a||b", "(a||b)"}, {"(a|b|)", "(a|b|)"}, {"(a|)", "(a)?"},
      {"(|)", ""}, {"(|b|)", "(b)?"}, {"x(a|){2,3}", "x(a){0,3}"}, {"a|$", "(a)?"}, {"$", ""}, {"^$", "^$"},
      {"^a$", "^a$"}, {"(^a)", "^a"}, {"a(b)", "ab"}, {"a[b]c", "abc"}, {"[.]", "\\."}, {"a**", "(a*)*"},
      {"a*?", "(a*)?"}, {"x{2}{3}", "(x{2}){3}"}, {"(a){2}", "a{2}"}, {"([ab]){2}", "[ab]{2}"}, {"(ab){2}", "(ab){2}"},
      {"(a*){2}", "(a*){2}"}, {"(a$)*", "a*$"}, {"(^ab)*", "(^ab)*"}, {"a$|^b", "(a$|^b)"}, {"x{1,1}", "x"},
      {"a{2,}b{0,0}(c|d)*", "a{2,}b{0,0}(c|d)*"}, {"x{0,}", "x*"}, {"x{1,}", "x+"}, {"x{0,1}", "x?"},
      {"x{3,3}", "x{3}"}, {"a{65535,}", "a{65535}"}, {"a{1, 3}", "a{1,3}"}, {"a{+2}", "a\\{+2}"}, {"{,5}", "\\{,5}"},
      {"a]b}-", "a]b}-"}, {"\\\\\\^\\$\\|", "\\\\\\^\\$\\|"}, {"[a-cx]", "[a-cx]"}, {"[^a]", "[^a]"},
      {"[-^]", "[\\-\\^]"}, {"[a-]", "[\\-a]"}, {"[]a]", "[\\]a]"}, {"[^]a]", "[^\\]a]"}, {"[[a]", "[[a]"},
      {"[[:digit:]_]", "[0-9_]"}, {"[^[:alpha:]]", "[^A-Za-z]"}, {"[[:cntrl:]]", "[^ -~\x80]"}, {"[~-\x7f]", "[~\x7f]"},
      // Errors, each with the offending position.
      {"a$b", "!Invalid characters after '$' at 2"}, {"a$$", "!Invalid characters after '$' at 2"},
      {"(a$)b", "!Invalid characters after '$' at 4"},
      {"*a", "!Invalid '*' at 0"}, {"a|+b", "!Invalid '+' at 2"}, {"^?", "!Invalid '?' at 1"},
      {"{2}", "!Invalid '{' at 0"}, {"^^", "!Duplicate '^' at 1"}, {"a^", "!Invalid '^' at 1"},
      {"x(^a)b", "!Invalid '^' at 5"}, {"(^a)(^b)", "!Duplicate '^' at 7"}, {"(a$)$", "!Duplicate '$' at 4"},
      {"ab{1,99999}", "!Invalid bound at 2: 99999 exceeds maximum 65535"},
      {"a{1,-1}", "!Invalid bound at 1: 18446744073709551615 exceeds maximum 65535"},
      {"a{3,2}", "!Invalid bound at 1: 3 > 2"}, {"a{2,x}", "!Invalid bound at 1: 2 > 0"},
      {"a{0,x}", "!Invalid bound at 1"}, {"a{2", "!Invalid bound at 1"}, {"[z-a]", "!Invalid range at 3"},
      {"[a-c-e]", "!Invalid range at 5"}, {"[[:alpha:]-z]", "!Invalid range at 11"},
      {"x[[:alpha]]", "!Invalid character class name at 1"},
      {"[[.a.]]", "!Collating element [..] not supported at 1"},
      {"a[b[=a=]]", "!Collating element [==] not supported at 3"},
      {"[abc", "!Unmatched [ at 0"}, {"[^abc", "!Unmatched [^ at 0"}, {"[]", "!Unmatched [ at 0"},
      {"a\\]", "!Invalid escaped character \\] at 1"}, {"a\\", "!Invalid unescaped '\\' at end of regexp"},
      {"(ab", "!Premature end of regexp"}, {"ab)", "!Unmatched ) at 2"}, {"[a\tb]", "!Invalid character code 9 at 2"},
      // Names are stored in their xn-- form; a whole label that converts is shown converted.
      {"^b\xc3\xbc" "cher\\.de$", "!Invalid character code 195 at 2: names are stored in their xn-- form; "
                             "write 'xn--bcher-kva' for 'b\xc3\xbc" "cher'"},
      {"(\xc3\xa9|x)", "!Invalid character code 195 at 1: names are stored in their xn-- form; write 'xn--9ca' for '\xc3\xa9'"},
      {"b\xc3\xbc+", "!Invalid character code 195 at 1: names are stored in their xn-- form"},  // part of a label
      {"\xff", "!Invalid character code 255 at 0: names are stored in their xn-- form"},    // no UTF-8
      {"[\xc3\xa9]", "!Invalid character code 195 at 1: names are stored in their xn-- form"},
      // Runs of one class without an upper bound collapse.
      {"a.*.*b", "a.*b"}, {"[a-z]+[a-z]*x", "[a-z]+x"}, {"x.*.+.{2,}", "x.{3,}"}, {".*a.*", ".*a.*"},
      {"[ab]*[ac]*", "[ab]*[ac]*"}, {"a*a*", "a*a*"}, {".?.*", ".?.*"}, {"(.*)(.*)", ".*"}, {"(.*)*.*", "(.*)*.*"}, {".*(.*x)", ".*x"},
  };
  for (const parse_case& c : cases) EXPECT_EQ(outcome(false, c.in), c.out) << c.in;
}

TEST(reparse, regex_nesting_limit) {
  const std::string ok = "x" + std::string(RE_MAX_REPEAT_NESTING, '+');
  EXPECT_EQ(outcome(false, ok).substr(0, 3), "(((");
  EXPECT_EQ(outcome(false, ok + "*"), "!Repetitions nested too deeply (more than 16)");
  const size_t open = RE_MAX_DEPTH / 2;
  EXPECT_EQ(outcome(false, std::string(open, '(') + "a" + std::string(open, ')')), "a");
  EXPECT_EQ(outcome(false, std::string(open + 1, '(') + "a"), "!Regexp nested too deeply");
}

TEST(reparse, glob_written_back_or_refused) {
  const parse_case cases[] = {
      {"", "^$"}, {"abc", "^abc$"}, {"*", "^.*$"}, {"a?c", "^a.c$"}, {"*.txt", "^.*\\.txt$"},
      {"a(b)", "^a\\(b\\)$"}, {"{x}|+^$", "^\\{x}\\|\\+\\^\\$$"}, {"[!a]", "^[^a]$"}, {"x[!.-]y", "^x[^\\-.]y$"},
      {"[^a]", "^[\\^a]$"}, {"a[b]c", "^abc$"}, {"[[:digit:]]*", "^[0-9].*$"},
      {"a\\*b", "^a\\*b$"}, {"a\\", "^a$"}, {"\\", "^$"}, {"a\\\tb", "^a\tb$"},
      {"[abc", "!Unmatched [ at 0"}, {"x[!abc", "!Unmatched [! at 1"},
      {"a\tb", "!Invalid character code 9 at 1"}, {"ab[z-a]", "!Invalid range at 5"},
      {"[[:nope:]]", "!Invalid character class name at 0"},
      // A name written fully qualified: one final dot is dropped, unless escaped or alone.
      {"a.root-servers.net.", "^a\\.root-servers\\.net$"}, {"*.", "^.*$"}, {"a..", "^a\\.$"},
      {"a\\.", "^a\\.$"}, {".", "^\\.$"}, {"a.\\", "^a\\.$"},
      {"**a***", "^.*a.*$"}, {"*?*", "^.*..*$"},
      // Labels in Unicode are searched for in their xn-- form.
      {"b\xc3\xbc" "cher.de", "^xn--bcher-kva\\.de$"}, {"*.B\xc3\x9c" "CHER.de.", "^.*\\.xn--bcher-kva\\.de$"},
      {"www.\xe4\xb8\xad\xe6\x96\x87.*", "^www\\.xn--fiq228c\\..*$"},
      {"a.b\xc3\xbc*.de", "!Cannot convert label at 2 to its xn-- form: it holds wildcards"},
      {"[b\xc3\xbc]x", "!Cannot convert label at 0 to its xn-- form: it holds wildcards"},
      {"x.\xff.de", "!Cannot convert label at 2 to its xn-- form: string encoding error"},
  };
  for (const parse_case& c : cases) EXPECT_EQ(outcome(true, c.in), c.out) << c.in;
}

// What the written form cannot show: empty and anchored alternatives, and
// how literals merge and split around repetitions.
TEST(reparse, normalised_shapes) {
  const parse_case regex[] = {
      {"a||b", "grp('a' | seq() | 'b')"}, {"(|^|$|)", "grp(seq() | ^seq() | seq()$)"},
      {"(|$)", "grp(seq()$){0,1}"}, {"($|a)", "grp('a'){0,1}"}, {"abc*", "seq('ab' 'c'{0,65535})"},
      {"a(b.c)d", "seq('a' 'b' . 'cd')"}, {"^ab|c$", "grp(^'ab' | 'c'$)"}, {"[ab]+", "[2]{1,65535}"},
      {"^(a|b)", "^grp('a' | 'b')"}, {"a**", "grp('a'{0,65535}){0,65535}"},
  };
  for (const parse_case& c : regex) EXPECT_EQ(shape(*regex_parse(c.in, nullptr)), c.out) << c.in;
  EXPECT_EQ(shape(*glob_parse("*", nullptr)), "^.{0,65535}$");
}

// Members in the POSIX locale: never a byte above 127.
TEST(reparse, posix_classes) {
  const std::pair<const char*, size_t> sizes[] = {
      {"alnum", 62}, {"alpha", 52}, {"blank", 2},  {"cntrl", 33}, {"digit", 10}, {"graph", 94},
      {"lower", 26}, {"print", 95}, {"punct", 32}, {"space", 6},  {"upper", 26}, {"xdigit", 22},
  };
  for (const auto& [name, size] : sizes) {
    re_elem_ptr cls = regex_parse(("[[:" + std::string(name) + ":]]").c_str(), nullptr);
    ASSERT_TRUE(cls && cls->type == re_elem_class) << name;
    EXPECT_EQ(cls->class_count(), size) << name;
    EXPECT_EQ(cls->bits[2] | cls->bits[3], 0u) << name;
  }
}

}  // namespace
