#include "tests/support/expression_gen.h"

#include <vector>

namespace {

bool special(char c, std::string_view specials) { return specials.find(c) != std::string_view::npos; }

}  // namespace

std::string expression_gen::pick(std::string_view words) {
  std::vector<std::string_view> w;
  for (size_t at = 0, end; at < words.size(); at = end + 1) {
    end = std::min(words.find(' ', at), words.size());
    w.push_back(words.substr(at, end - at));
  }
  return std::string(w[below(w.size())]);
}

std::string expression_gen::alternatives(int depth, bool outermost) {
  std::string out = sequence(depth, outermost);
  size_t n = 1;
  for (; chance(25); ++n) out.append("|").append(sequence(depth, outermost));
  // Not beside a single other one: "(a|)" is written "(a)?", which then reads as "a?".
  return n >= 2 && chance(15) ? out + "|" : out;
}

std::string expression_gen::glob() {
  std::string out;
  for (size_t n = 1 + below(7); n-- > 0;) {
    const size_t kind = below(12);
    if (kind < 2) {
      out += "*?"[kind];
    } else if (kind == 2) {
      out += bracket('!');
    } else if (kind < 7) {
      out += pick(stable_ ? "ab Ba .c x 0 - _ @ \\* \\? ^ $ {" : "ab Ba .c x 0 - _ @ \\* \\? ^ $ { [^.]");
    } else {
      const char c = text_char();
      if (kind == 7 || special(c, "*?[\\")) out += '\\';
      out += c;
    }
  }
  return out;
}

std::string expression_gen::sequence(int depth, bool outermost) {
  const int anchors = outermost ? 20 : 5;  // inside a group, anchors mostly fail to be hoisted
  std::string out = chance(anchors) ? "^" : "";
  // Now and then a long one, so that classes and groups multiply past the
  // permutation budget.
  for (size_t n = chance(10) ? 6 + below(8) : 1 + below(4); n-- > 0;) {
    const size_t kind = below(depth > 0 ? 10 : 8);
    std::string atom;
    if (kind < 3) {
      atom = pick("a b ab abc Ba x 0 01 - . _ \\. \\^ \\* @ / a.b AbA } ] c-1");
    } else if (kind < 4) {
      const char c = text_char();
      atom = special(c, "$()*+.?[\\^{|") ? std::string{'\\', c} : std::string{c};
    } else if (kind < 5) {
      atom.push_back('.');  // not `= "."`: gcc 12 warns falsely on it under the sanitizers
    } else if (kind < 8) {
      atom = bracket('^');
    } else {
      atom.append("(").append(alternatives(depth - 1, false)).append(")");
    }
    for (size_t ops = chance(35) ? 1 + chance(20) : 0; ops-- > 0;)
      atom += pick("* + ? {0} {2} {3} {0,} {2,} {0,0} {0,1} {0,2} {1,3} {2,2} {4} {2,5} {7} {9} {4,9} {3,} {14}");
    out += atom;
  }
  return chance(anchors) ? out + "$" : out;
}

std::string expression_gen::bracket(char negation) {
  std::string out = chance(20) ? std::string{'[', negation} : "[";
  if (!stable_ && chance(5)) out += ']';  // first, ']' is a member
  for (size_t n = 1 + below(3); n-- > 0;) {
    out += chance(25) ? pick("[:alnum:] [:alpha:] [:digit:] [:lower:] [:upper:] [:xdigit:] [:punct:] [:graph:] [:print:]")
                      : pick("a-z A-Z 0-9 k-y M-z 5-Z b-d a b c x Z 7 _ . , : * ( ) { } | $ / ~ ' \"");
    if (!stable_ && chance(20)) out += pick("- ^ \\ [:cntrl:] [:space:] [:blank:] .-_");
  }
  return out + "]";
}
