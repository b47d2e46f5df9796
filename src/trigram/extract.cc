#include "trigram/extract.h"

#include <algorithm>
#include <bit>
#include <bitset>
#include <map>
#include <memory>
#include <optional>
#include <vector>

#include "libmy/my_saturate.h"
#include "trigram/trigram.h"

namespace {

// ---------------------------------------------------------------------------
// Symbols

// The pad of an anchored start or end: a symbol of its own here, written as
// the trigram pad symbol in an id.
constexpr char PAD = TRIGRAM_SYMBOLS;
constexpr uint64_t ALL_SYMBOLS = (uint64_t{1} << TRIGRAM_SYMBOLS) - 1;

std::string to_symbols(std::string_view bytes) {
  std::string out(bytes.size(), '\0');
  for (size_t i = 0; i < bytes.size(); ++i)
    out[i] = static_cast<char>(trigram_symbol(static_cast<unsigned char>(bytes[i])));
  return out;
}

uint64_t class_symbols(const re_elem& c) {
  if (c.class_is_universal()) return ALL_SYMBOLS;
  uint64_t mask = 0;
  for (int w = 0; w < 4; ++w)
    for (uint64_t bits = c.bits[w]; bits != 0; bits &= bits - 1)
      mask |= uint64_t{1} << trigram_symbol(static_cast<unsigned char>(w * 64 + std::countr_zero(bits)));
  return mask;
}

// The id of the window starting at w[0], or -1 for a (pad, x, pad) window,
// which a key of fewer than two characters does not have.
int32_t window_id(const char* w) {
  if (w[0] == PAD && w[2] == PAD) return -1;
  const auto symbol = [](char s) { return s == PAD ? TRIGRAM_PAD_SYMBOL : static_cast<int>(s); };
  return trigram_number(symbol(w[0]), symbol(w[1]), symbol(w[2]));
}

// ---------------------------------------------------------------------------
// Budgets

struct budget {
  size_t class_symbols;  // a class with more symbols counts as "any symbol"
  size_t exact;          // complete strings per node
  size_t weight;         // symbols in the complete strings of a node
  size_t affix;          // prefix or suffix strings per node
  size_t pairs;          // string pairs examined at one junction
  size_t work;           // pairs and strings examined in one whole analysis

  // Takes `n` units of work; false once the analysis has used up its share.
  // From then on every set is kept minimal and no junction is examined,
  // which only weakens the query, so that long expressions stay fast.
  bool spend(size_t n) {
    if (n <= work) {
      work -= n;
      return true;
    }
    work = 0;
    class_symbols = 0;
    exact = 1;
    affix = 1;
    pairs = 0;
    return false;
  }
};
constexpr budget FIRST_BUDGET{40, 64, 16384, 128, 128, 10000};
constexpr budget SECOND_BUDGET{41, 512, 65536, 512, 1024, 10000};

constexpr size_t MAX_EXACT_LENGTH = 1024;  // symbols of a string expanded from a repetition
constexpr size_t MAX_QUERY_LEAVES = 65536;  // ids in the whole query

// All trigrams of a symbol string.
trigram_query_ptr q_string(const std::string& s) {
  std::vector<int32_t> ids;
  for (size_t i = 0; i + 2 < s.size(); ++i)
    if (int32_t id = window_id(&s[i]); id >= 0) ids.push_back(id);
  return trigram_query_set(std::move(ids));
}

// The trigrams of u + v that take symbols from both sides (u and v hold at
// most two symbols each).
trigram_query_ptr q_crossing(const std::string& u, const std::string& v) {
  const std::string w = u + v;
  std::vector<int32_t> ids;
  for (size_t i = u.size() >= 2 ? u.size() - 2 : 0; i < u.size() && i + 3 <= w.size(); ++i)
    if (int32_t id = window_id(&w[i]); id >= 0) ids.push_back(id);
  return trigram_query_set(std::move(ids));
}

// ---------------------------------------------------------------------------
// Node descriptions

using strset = std::vector<std::string>;  // sorted, distinct symbol strings

void tidy(strset& s) {
  std::sort(s.begin(), s.end());
  s.erase(std::unique(s.begin(), s.end()), s.end());
}

size_t weight(const strset& s) {
  size_t w = 0;
  for (const std::string& x : s) w += x.size();
  return w;
}

std::string first2(const std::string& s) { return s.substr(0, 2); }
std::string last2(const std::string& s) { return s.size() <= 2 ? s : s.substr(s.size() - 2); }

// A set of prefix or suffix strings of at most two symbols, kept as a
// bitmap over all such strings.
class affix_set {
 public:
  static constexpr int VALUES = 42;  // symbols and the pad
  static constexpr size_t CODES = 1 + VALUES + VALUES * VALUES;

  // The set that says nothing: {""}.
  static affix_set unknown() {
    affix_set a;
    a.bits_.set(0);
    return a;
  }

  // Adds the first (`front`) or last two symbols of `s`.
  void add(std::string_view s, bool front) {
    if (s.size() > 2) s = front ? s.substr(0, 2) : s.substr(s.size() - 2);
    bits_.set(code(s));
  }
  void merge(const affix_set& o) { bits_ |= o.bits_; }
  size_t size() const { return bits_.count(); }

  strset strings() const {
    strset out;
    for (size_t c = bits_._Find_first(); c < CODES; c = bits_._Find_next(c)) out.push_back(text(c));
    return out;
  }

  // The distinct first (`front`) or last symbols, "" for the empty string.
  strset ends(bool front) const { return shortened(1, front).strings(); }

  // Within `cap` strings: cut to one symbol, then to nothing. Cutting loses
  // nothing the caller has not already required: a string of two symbols
  // holds no trigram.
  void fit(size_t cap, bool front) {
    if (size() <= cap) return;
    *this = shortened(1, front);
    if (size() > cap) *this = unknown();
  }

 private:
  static size_t code(std::string_view s) {
    if (s.empty()) return 0;
    if (s.size() == 1) return 1 + static_cast<size_t>(s[0]);
    return 1 + VALUES + static_cast<size_t>(s[0]) * VALUES + static_cast<size_t>(s[1]);
  }
  static std::string text(size_t c) {
    if (c == 0) return {};
    if (c <= VALUES) return std::string(1, static_cast<char>(c - 1));
    c -= 1 + VALUES;
    return {static_cast<char>(c / VALUES), static_cast<char>(c % VALUES)};
  }
  // Every string cut to `keep` (0 or 1) symbols.
  affix_set shortened(size_t keep, bool front) const {
    affix_set cut;
    for (size_t c = bits_._Find_first(); c < CODES; c = bits_._Find_next(c)) {
      size_t k = c;
      if (keep == 0)
        k = 0;
      else if (c > VALUES)
        k = 1 + (front ? (c - 1 - VALUES) / VALUES : (c - 1 - VALUES) % VALUES);
      cut.bits_.set(k);
    }
    return cut;
  }

  std::bitset<CODES> bits_;
};

struct long_part {
  affix_set prefix, suffix;
  trigram_query_ptr match;
};

struct info {
  strset complete;
  std::optional<long_part> lng;
};

info only_complete(strset c) {
  info i;
  i.complete = std::move(c);
  tidy(i.complete);
  return i;
}

info any_string() {
  info i;
  i.lng = long_part{affix_set::unknown(), affix_set::unknown(), nullptr};
  return i;
}

// The query every match of a node satisfies.
trigram_query_ptr node_query(const info& x) {
  std::vector<trigram_query_ptr> alts;
  for (const std::string& c : x.complete) alts.push_back(q_string(c));
  if (x.lng) alts.push_back(x.lng->match);
  if (alts.empty()) return nullptr;  // matches nothing: any query holds, none is needed
  return trigram_query_or(std::move(alts));
}

// The pieces of a long part being gathered from several sources.
struct long_builder {
  affix_set prefix, suffix;
  std::vector<trigram_query_ptr> matches;
  bool any = false;

  void add(const long_part& l) {
    any = true;
    prefix.merge(l.prefix);
    suffix.merge(l.suffix);
    matches.push_back(l.match);
  }
  // A complete string described as a long match: its ends and its trigrams.
  void add_string(const std::string& c) {
    any = true;
    prefix.add(c, true);
    suffix.add(c, false);
    matches.push_back(q_string(c));
  }
  std::optional<long_part> build(budget& b) {
    if (!any) return std::nullopt;
    prefix.fit(b.affix, true);
    suffix.fit(b.affix, false);
    return long_part{prefix, suffix, trigram_query_or(std::move(matches))};
  }
};

// Moves complete strings into the long part: those of two or more symbols,
// or (`all`) every one but the empty string. False when nothing moved.
bool demote(info& x, bool all, budget& b) {
  long_builder lb;
  strset keep;
  for (std::string& c : x.complete) {
    if (c.empty() || (!all && c.size() < 2))
      keep.push_back(std::move(c));
    else
      lb.add_string(c);
  }
  x.complete = std::move(keep);
  if (!lb.any) return false;
  b.spend(lb.matches.size());
  if (x.lng) lb.add(*x.lng);
  x.lng = lb.build(b);
  return true;
}

bool over_budget(const strset& c, budget& b) { return c.size() > b.exact || weight(c) > b.weight; }

// The union of several descriptions, with complete strings over the budget
// turned into long ones.
info unite(std::vector<info> parts, budget& b) {
  if (parts.size() == 1 && !over_budget(parts[0].complete, b)) return std::move(parts[0]);
  info out;
  long_builder lb;
  for (info& p : parts) {
    out.complete.insert(out.complete.end(), std::make_move_iterator(p.complete.begin()),
                        std::make_move_iterator(p.complete.end()));
    if (p.lng) lb.add(*p.lng);
  }
  b.spend(out.complete.size() + parts.size());
  tidy(out.complete);
  for (bool all : {false, true}) {
    if (!over_budget(out.complete, b)) break;
    strset keep;
    for (std::string& c : out.complete) {
      if (c.empty() || (!all && c.size() < 2))
        keep.push_back(std::move(c));
      else
        lb.add_string(c);
    }
    out.complete = std::move(keep);
  }
  out.lng = lb.build(b);
  return out;
}

bool pairs_allowed(size_t n, budget& b) { return n <= b.pairs && b.spend(n); }

// OR over the pairs of the trigrams across each junction u|v.
trigram_query_ptr junction_query(const strset& left, const strset& right, budget& b) {
  if (!pairs_allowed(left.size() * right.size(), b)) return nullptr;
  std::vector<trigram_query_ptr> alts;
  for (const std::string& u : left)
    for (const std::string& v : right) {
      trigram_query_ptr q = q_crossing(u, v);
      if (!q) return nullptr;
      alts.push_back(std::move(q));
    }
  return trigram_query_or(std::move(alts));
}

// Complete strings of x followed by long matches of y.
long_part join_complete_long(const strset& cx, const long_part& ly, budget& b) {
  affix_set prefix;
  const strset firsts = ly.prefix.ends(true);  // a one-symbol string keeps one more
  b.spend(cx.size() * firsts.size());
  for (const std::string& c : cx) {
    if (c.size() >= 2)
      prefix.add(c, true);
    else if (c.empty())
      prefix.merge(ly.prefix);
    else
      for (const std::string& f : firsts) prefix.add(c + f, true);
  }
  prefix.fit(b.affix, true);
  trigram_query_ptr m;
  if (cx.size() * ly.prefix.size() <= b.pairs) {
    const strset prefixes = ly.prefix.strings();
    std::map<std::string, trigram_query_ptr> memo;
    std::vector<trigram_query_ptr> alts;
    for (const std::string& c : cx) {
      const std::string u = last2(c);
      auto it = memo.find(u);
      if (it == memo.end()) it = memo.emplace(u, junction_query({u}, prefixes, b)).first;
      alts.push_back(trigram_query_and(q_string(c), it->second));
    }
    m = trigram_query_or(std::move(alts));
  } else {
    std::vector<trigram_query_ptr> alts;
    strset ends;
    for (const std::string& c : cx) {
      alts.push_back(q_string(c));
      ends.push_back(last2(c));
    }
    tidy(ends);
    m = trigram_query_or(std::move(alts));
    if (ends.size() * ly.prefix.size() <= b.pairs) m = trigram_query_and(m, junction_query(ends, ly.prefix.strings(), b));
  }
  return long_part{prefix, ly.suffix, trigram_query_and(ly.match, m)};
}

// Long matches of x followed by complete strings of y.
long_part join_long_complete(const long_part& lx, const strset& cy, budget& b) {
  affix_set suffix;
  const strset lasts = lx.suffix.ends(false);
  b.spend(cy.size() * lasts.size());
  for (const std::string& c : cy) {
    if (c.size() >= 2)
      suffix.add(c, false);
    else if (c.empty())
      suffix.merge(lx.suffix);
    else
      for (const std::string& l : lasts) suffix.add(l + c, false);
  }
  suffix.fit(b.affix, false);
  trigram_query_ptr m;
  if (lx.suffix.size() * cy.size() <= b.pairs) {
    const strset suffixes = lx.suffix.strings();
    std::map<std::string, trigram_query_ptr> memo;
    std::vector<trigram_query_ptr> alts;
    for (const std::string& c : cy) {
      const std::string v = first2(c);
      auto it = memo.find(v);
      if (it == memo.end()) it = memo.emplace(v, junction_query(suffixes, {v}, b)).first;
      alts.push_back(trigram_query_and(q_string(c), it->second));
    }
    m = trigram_query_or(std::move(alts));
  } else {
    std::vector<trigram_query_ptr> alts;
    strset starts;
    for (const std::string& c : cy) {
      alts.push_back(q_string(c));
      starts.push_back(first2(c));
    }
    tidy(starts);
    m = trigram_query_or(std::move(alts));
    if (lx.suffix.size() * starts.size() <= b.pairs) m = trigram_query_and(m, junction_query(lx.suffix.strings(), starts, b));
  }
  return long_part{lx.prefix, suffix, trigram_query_and(lx.match, m)};
}

info concat(info x, info y, budget& b) {
  // Keep the product of the complete strings within the budget.
  const auto too_big = [&] {
    return x.complete.size() * y.complete.size() > b.exact ||
           x.complete.size() * weight(y.complete) + y.complete.size() * weight(x.complete) > b.weight;
  };
  while (!x.complete.empty() && !y.complete.empty() && too_big()) {
    info& big = x.complete.size() >= y.complete.size() ? x : y;
    info& other = &big == &x ? y : x;
    if (!demote(big, false, b) && !demote(big, true, b) && !demote(other, false, b) && !demote(other, true, b)) break;
  }

  info out;
  b.spend(x.complete.size() * y.complete.size());
  for (const std::string& cx : x.complete)
    for (const std::string& cy : y.complete) out.complete.push_back(cx + cy);
  tidy(out.complete);

  std::vector<info> terms;
  const auto add = [&](long_part t) {
    info i;
    i.lng = std::move(t);
    terms.push_back(std::move(i));
  };
  if (y.lng && !x.complete.empty()) add(join_complete_long(x.complete, *y.lng, b));
  if (x.lng && !y.complete.empty()) add(join_long_complete(*x.lng, y.complete, b));
  if (x.lng && y.lng)
    add(long_part{x.lng->prefix, y.lng->suffix,
                  trigram_query_and(trigram_query_and(x.lng->match, y.lng->match),
                        x.lng->suffix.size() * y.lng->prefix.size() <= b.pairs
                            ? junction_query(x.lng->suffix.strings(), y.lng->prefix.strings(), b)
                            : nullptr)});
  if (!terms.empty()) {
    info joined = unite(std::move(terms), b);
    out.lng = std::move(joined.lng);
  }
  return out;
}

// Every match of a node, seen as a long match: its complete strings become
// prefixes and suffixes, and the node's query the match query.
info as_long(const info& x, budget& b) {
  info out;
  if (x.complete.empty() && !x.lng) return out;
  long_part l;
  for (const std::string& c : x.complete) {
    l.prefix.add(c, true);
    l.suffix.add(c, false);
  }
  if (x.lng) {
    l.prefix.merge(x.lng->prefix);
    l.suffix.merge(x.lng->suffix);
  }
  l.prefix.fit(b.affix, true);
  l.suffix.fit(b.affix, false);
  l.match = node_query(x);
  out.lng = std::move(l);
  return out;
}

// Exact expansion of x{m,n} when x is only complete strings and the result
// is small; nullopt otherwise.
std::optional<info> expand_exactly(const info& x, uint32_t m, uint32_t n, budget& b) {
  if (x.lng || n == RE_UNBOUNDED) return std::nullopt;
  size_t longest = 0;
  for (const std::string& c : x.complete) longest = std::max(longest, c.size());
  size_t total = 0, power = 1;
  for (uint32_t j = 0; j < m && power <= b.exact; ++j) power = saturating_mul(power, x.complete.size());
  for (uint32_t j = m; j <= n && total <= b.exact; ++j) {
    total = saturating_add(total, power);
    power = saturating_mul(power, x.complete.size());
  }
  const size_t length = saturating_mul<size_t>(longest, n);
  if (total > b.exact || length > MAX_EXACT_LENGTH || saturating_mul(length, total) > b.weight || !b.spend(total))
    return std::nullopt;

  strset power_set{""};
  for (uint32_t j = 0; j < m; ++j) {
    strset next;
    for (const std::string& a : power_set)
      for (const std::string& c : x.complete) next.push_back(a + c);
    tidy(next);
    power_set = std::move(next);
  }
  strset all = power_set;
  for (uint32_t j = m; j < n; ++j) {
    strset next;
    for (const std::string& a : power_set)
      for (const std::string& c : x.complete) next.push_back(a + c);
    tidy(next);
    all.insert(all.end(), next.begin(), next.end());
    power_set = std::move(next);
  }
  return only_complete(std::move(all));
}

info repeat(info x, uint32_t m, uint32_t n, budget& b) {
  if (n == 0) return only_complete({""});
  if (m == 0) {
    std::vector<info> parts;
    parts.push_back(only_complete({""}));
    parts.push_back(repeat(x, 1, n, b));
    return unite(std::move(parts), b);
  }
  if (x.complete.empty() && !x.lng) return info{};
  if (m == 1 && n == 1) return x;
  if (auto exact = expand_exactly(x, m, n, b)) return std::move(*exact);

  // x^j for j up to 3 exactly; beyond, every match starts and ends with a
  // match of x^3 and contains one.
  std::vector<info> parts;
  const uint32_t upto = std::min<uint32_t>(n, 3);
  info xj = x;
  for (uint32_t j = 1; j <= upto; ++j) {
    if (j > 1) xj = concat(std::move(xj), x, b);
    if (j >= m) parts.push_back(xj);
  }
  if (n > 3) parts.push_back(as_long(xj, b));
  return unite(std::move(parts), b);
}

bool is_any_string(const re_elem& e) {
  return e.type == re_elem_class && e.min == 0 && e.max == RE_UNBOUNDED && class_symbols(e) == ALL_SYMBOLS;
}

// Nesting deeper than this is described as "any string": a description that
// holds for every element, so the stack stays small on any tree.
constexpr int MAX_ANALYSIS_DEPTH = 200;

info analyze(const re_elem& e, budget& b, int depth);

// The leaves and the finishing steps sit in functions of their own, so that
// the frames of the recursion stay small.
[[gnu::noinline]] info analyze_literal(const re_elem& e, budget& b) {
  info i = only_complete({to_symbols(e.text)});
  if (e.text.size() > b.weight) demote(i, true, b);
  return i;
}

[[gnu::noinline]] info analyze_class(const re_elem& e, budget& b) {
  const uint64_t mask = class_symbols(e);
  if (static_cast<size_t>(std::popcount(mask)) > b.class_symbols) return any_string();
  strset c;
  for (int s = 0; s < TRIGRAM_SYMBOLS; ++s)
    if ((mask >> s) & 1) c.push_back(std::string(1, static_cast<char>(s)));
  return only_complete(std::move(c));
}

[[gnu::noinline]] info anchor(info r, const re_elem& e, budget& b) {
  if (e.anchor_start) r = concat(only_complete({std::string(2, PAD)}), std::move(r), b);
  if (e.anchor_end) r = concat(std::move(r), only_complete({std::string(2, PAD)}), b);
  return r;
}

// Anchors stand outside the element's repetition, as the writer puts them.
[[gnu::noinline]] info repeat_and_anchor(info once, const re_elem& e, budget& b) {
  return anchor(repeat(std::move(once), e.min, e.max, b), e, b);
}

[[gnu::noinline]] info concat_into(info acc, info next, budget& b) {
  return concat(std::move(acc), std::move(next), b);
}

info analyze_children(const re_elem& e, budget& b, int depth) {
  if (e.type == re_elem_group) {
    std::vector<info> parts;
    parts.reserve(e.children.size());
    for (const re_elem_ptr& alt : e.children)
      if (alt) parts.push_back(analyze(*alt, b, depth + 1));
    return unite(std::move(parts), b);
  }
  info acc = only_complete({""});
  for (const re_elem_ptr& child : e.children)
    if (child) acc = concat_into(std::move(acc), analyze(*child, b, depth + 1), b);
  return acc;
}

info analyze(const re_elem& e, budget& b, int depth) {
  if (depth > MAX_ANALYSIS_DEPTH || is_any_string(e)) return anchor(any_string(), e, b);
  switch (e.type) {
    case re_elem_literal:
      return repeat_and_anchor(analyze_literal(e, b), e, b);
    case re_elem_class:
      return repeat_and_anchor(analyze_class(e, b), e, b);
    default:
      return repeat_and_anchor(analyze_children(e, b, depth), e, b);
  }
}

trigram_query_ptr extract_query(const re_elem& tree, budget b) {
  const info root = analyze(tree, b, 0);
  return trigram_query_shrink(node_query(root), MAX_QUERY_LEAVES);
}

}  // namespace

trigram_query_ptr extract_trigrams(const re_elem& tree, std::string* error_out) {
  if (trigram_query_ptr q = extract_query(tree, FIRST_BUDGET)) return q;
  if (error_out) error_out->clear();
  return extract_query(tree, SECOND_BUDGET);
}
