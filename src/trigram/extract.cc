#include "trigram/extract.h"

#include <algorithm>
#include <bit>
#include <bitset>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <vector>

#include "log/log.h"
#include "trigram/permute.h"
#include "trigram/trigram.h"

namespace {

// ---------------------------------------------------------------------------
// Symbols

constexpr char PAD = 41;  // anchor pad; written as '^' (code 39) in a trigram id
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
  const auto code = [](char s) { return s == PAD ? 39 : static_cast<int32_t>(s); };
  return code(w[0]) + 41 * code(w[1]) + 1681 * code(w[2]);
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

constexpr size_t MAX_AND_TRIGRAMS = 1024;  // trigrams required side by side
constexpr size_t MAX_EXACT_LENGTH = 1024;  // symbols of a string expanded from a repetition
constexpr size_t MAX_AND_MEMBERS = 64;     // alternatives required side by side
constexpr size_t MAX_OR_LEAVES = 65536;    // trigrams below one alternative
constexpr size_t MAX_QUERY_LEAVES = 65536;

// ---------------------------------------------------------------------------
// Queries under construction: immutable and shared, so that copies of a
// repeated element cost nothing. Null is "no constraint".

struct qnode;
using qref = std::shared_ptr<const qnode>;

struct qnode {
  bool is_or = false;
  std::vector<int32_t> tris;  // AND: trigrams all required (sorted, distinct)
  std::vector<qref> kids;     // AND: OR nodes all required; OR: two or more AND nodes
  size_t leaves = 0;          // trigram ids below, counting shared nodes each time
};

qref make_and(std::vector<int32_t> tris, std::vector<qref> kids) {
  if (tris.empty() && kids.empty()) return nullptr;
  if (tris.size() > MAX_AND_TRIGRAMS) tris.resize(MAX_AND_TRIGRAMS);  // fewer required: weaker
  if (kids.size() > MAX_AND_MEMBERS) kids.resize(MAX_AND_MEMBERS);
  auto n = std::make_shared<qnode>();
  n->leaves = tris.size();
  for (const qref& k : kids) n->leaves += k->leaves;
  n->tris = std::move(tris);
  n->kids = std::move(kids);
  return n;
}

qref q_ids(std::vector<int32_t> ids) {
  std::sort(ids.begin(), ids.end());
  ids.erase(std::unique(ids.begin(), ids.end()), ids.end());
  return make_and(std::move(ids), {});
}

// Structural equality, so that repeated pieces are required once.
bool same_query(const qref& a, const qref& b) {
  if (a == b) return true;
  if (!a || !b || a->is_or != b->is_or || a->leaves != b->leaves || a->tris != b->tris ||
      a->kids.size() != b->kids.size())
    return false;
  for (size_t i = 0; i < a->kids.size(); ++i)
    if (!same_query(a->kids[i], b->kids[i])) return false;
  return true;
}

qref q_and(const qref& a, const qref& b) {
  if (!a) return b;
  if (!b || a == b) return a;
  std::vector<int32_t> tris;
  tris.reserve(a->tris.size() + b->tris.size());
  std::set_union(a->tris.begin(), a->tris.end(), b->tris.begin(), b->tris.end(), std::back_inserter(tris));
  std::vector<qref> kids = a->kids;
  for (const qref& k : b->kids) {
    if (kids.size() >= MAX_AND_MEMBERS) break;
    if (std::none_of(kids.begin(), kids.end(), [&](const qref& have) { return same_query(have, k); }))
      kids.push_back(k);
  }
  return make_and(std::move(tris), std::move(kids));
}

bool contains(const std::vector<qref>& v, const qref& x) { return std::find(v.begin(), v.end(), x) != v.end(); }

qref q_or(std::vector<qref> alts) {
  if (alts.size() == 1) return alts[0];
  std::vector<qref> flat;
  std::set<const qnode*> seen;
  std::set<std::vector<int32_t>> seen_sets;
  const auto add = [&](const qref& a) {
    if (!seen.insert(a.get()).second) return;
    if (a->kids.empty() && !seen_sets.insert(a->tris).second) return;
    flat.push_back(a);
  };
  for (const qref& a : alts) {
    if (!a) return nullptr;  // one unconstrained alternative frees the whole OR
    if (a->tris.empty() && a->kids.size() == 1) {
      for (const qref& inner : a->kids[0]->kids) add(inner);
    } else {
      add(a);
    }
  }
  if (flat.empty()) return nullptr;
  if (flat.size() == 1) return flat[0];

  // What every alternative requires is required outright.
  std::vector<int32_t> common_tris = flat[0]->tris;
  std::vector<qref> common_kids = flat[0]->kids;
  for (size_t i = 1; i < flat.size() && (!common_tris.empty() || !common_kids.empty()); ++i) {
    std::vector<int32_t> keep;
    std::set_intersection(common_tris.begin(), common_tris.end(), flat[i]->tris.begin(), flat[i]->tris.end(),
                          std::back_inserter(keep));
    common_tris = std::move(keep);
    std::erase_if(common_kids, [&](const qref& k) { return !contains(flat[i]->kids, k); });
  }
  if (!common_tris.empty() || !common_kids.empty()) {
    qref common = make_and(common_tris, common_kids);
    std::vector<qref> rest;
    for (const qref& a : flat) {
      std::vector<int32_t> tris;
      std::set_difference(a->tris.begin(), a->tris.end(), common_tris.begin(), common_tris.end(),
                          std::back_inserter(tris));
      std::vector<qref> kids;
      for (const qref& k : a->kids)
        if (!contains(common_kids, k)) kids.push_back(k);
      qref r = make_and(std::move(tris), std::move(kids));
      if (!r) return common;  // that alternative needs nothing more
      rest.push_back(std::move(r));
    }
    return q_and(common, q_or(std::move(rest)));
  }

  size_t leaves = 0;
  for (const qref& a : flat) leaves += a->leaves;
  if (leaves > MAX_OR_LEAVES) return nullptr;
  auto n = std::make_shared<qnode>();
  n->is_or = true;
  n->kids = std::move(flat);
  n->leaves = leaves;
  return make_and({}, {n});
}

// All trigrams of a symbol string.
qref q_string(const std::string& s) {
  std::vector<int32_t> ids;
  for (size_t i = 0; i + 2 < s.size(); ++i)
    if (int32_t id = window_id(&s[i]); id >= 0) ids.push_back(id);
  return q_ids(std::move(ids));
}

// The trigrams of u + v that take symbols from both sides (u and v hold at
// most two symbols each).
qref q_crossing(const std::string& u, const std::string& v) {
  const std::string w = u + v;
  std::vector<int32_t> ids;
  for (size_t i = u.size() >= 2 ? u.size() - 2 : 0; i < u.size() && i + 3 <= w.size(); ++i)
    if (int32_t id = window_id(&w[i]); id >= 0) ids.push_back(id);
  return q_ids(std::move(ids));
}

// A query within `limit` leaves: alternatives beyond it are given up.
qref shrink(const qref& q, size_t limit) {
  if (!q || q->leaves <= limit) return q;
  if (q->is_or) return nullptr;
  std::vector<int32_t> tris = q->tris;
  if (tris.size() > limit) tris.resize(limit);
  size_t used = tris.size();
  std::vector<qref> kids;
  for (const qref& k : q->kids)
    if (used + k->leaves <= limit) {
      kids.push_back(k);
      used += k->leaves;
    }
  return make_and(std::move(tris), std::move(kids));
}

trigram_query_ptr to_trigram_query(const qref& q) {
  if (!q) return nullptr;
  if (q->is_or) {
    auto u = trigram_query_create(TQ_UNION, 0);
    for (const qref& alt : q->kids) u->members.push_back(to_trigram_query(alt));
    return u;
  }
  auto set = trigram_query_create(TQ_SET, 0);
  set->ids = q->tris;
  if (q->kids.empty()) return set;
  if (q->kids.size() == 1 && q->tris.empty()) return to_trigram_query(q->kids[0]);
  auto x = trigram_query_create(TQ_INTERSECTION, 0);
  if (!set->ids.empty()) x->members.push_back(std::move(set));
  for (const qref& k : q->kids) x->members.push_back(to_trigram_query(k));
  return x;
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
  qref match;
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
qref node_query(const info& x) {
  std::vector<qref> alts;
  for (const std::string& c : x.complete) alts.push_back(q_string(c));
  if (x.lng) alts.push_back(x.lng->match);
  if (alts.empty()) return nullptr;  // matches nothing: any query holds, none is needed
  return q_or(std::move(alts));
}

// The pieces of a long part being gathered from several sources.
struct long_builder {
  affix_set prefix, suffix;
  std::vector<qref> matches;
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
    return long_part{prefix, suffix, q_or(std::move(matches))};
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
qref junction_query(const strset& left, const strset& right, budget& b) {
  if (!pairs_allowed(left.size() * right.size(), b)) return nullptr;
  std::vector<qref> alts;
  for (const std::string& u : left)
    for (const std::string& v : right) {
      qref q = q_crossing(u, v);
      if (!q) return nullptr;
      alts.push_back(std::move(q));
    }
  return q_or(std::move(alts));
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
  qref m;
  if (cx.size() * ly.prefix.size() <= b.pairs) {
    const strset prefixes = ly.prefix.strings();
    std::map<std::string, qref> memo;
    std::vector<qref> alts;
    for (const std::string& c : cx) {
      const std::string u = last2(c);
      auto it = memo.find(u);
      if (it == memo.end()) it = memo.emplace(u, junction_query({u}, prefixes, b)).first;
      alts.push_back(q_and(q_string(c), it->second));
    }
    m = q_or(std::move(alts));
  } else {
    std::vector<qref> alts;
    strset ends;
    for (const std::string& c : cx) {
      alts.push_back(q_string(c));
      ends.push_back(last2(c));
    }
    tidy(ends);
    m = q_or(std::move(alts));
    if (ends.size() * ly.prefix.size() <= b.pairs) m = q_and(m, junction_query(ends, ly.prefix.strings(), b));
  }
  return long_part{prefix, ly.suffix, q_and(ly.match, m)};
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
  qref m;
  if (lx.suffix.size() * cy.size() <= b.pairs) {
    const strset suffixes = lx.suffix.strings();
    std::map<std::string, qref> memo;
    std::vector<qref> alts;
    for (const std::string& c : cy) {
      const std::string v = first2(c);
      auto it = memo.find(v);
      if (it == memo.end()) it = memo.emplace(v, junction_query(suffixes, {v}, b)).first;
      alts.push_back(q_and(q_string(c), it->second));
    }
    m = q_or(std::move(alts));
  } else {
    std::vector<qref> alts;
    strset starts;
    for (const std::string& c : cy) {
      alts.push_back(q_string(c));
      starts.push_back(first2(c));
    }
    tidy(starts);
    m = q_or(std::move(alts));
    if (lx.suffix.size() * starts.size() <= b.pairs) m = q_and(m, junction_query(lx.suffix.strings(), starts, b));
  }
  return long_part{lx.prefix, suffix, q_and(lx.match, m)};
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
                  q_and(q_and(x.lng->match, y.lng->match),
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

size_t saturating_add(size_t a, size_t b) { return a + b < a ? SIZE_MAX : a + b; }
size_t saturating_mul(size_t a, size_t b) { return a != 0 && b > SIZE_MAX / a ? SIZE_MAX : a * b; }

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
  if (total > b.exact || saturating_mul(longest, n) > MAX_EXACT_LENGTH ||
      saturating_mul(saturating_mul(longest, n), total) > b.weight || !b.spend(total))
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

// ---------------------------------------------------------------------------
// Normalization and fixup

bool is_universal(const re_elem& e) { return e.type == re_elem_class && e.class_is_universal(); }

bool alphabet_byte(unsigned char c) {
  return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '.' || c == '_';
}

// Rule 1. '^' stays whenever it is a member: it has a code of its own, and
// replacing it by '@' would demand a code that a matching line lacks.
void class_onto_alphabet(re_elem& c) {
  re_class_bits out{};
  const auto set = [&](unsigned char b) { out[b >> 6] |= uint64_t{1} << (b & 63); };
  for (int v = 0; v < 256; ++v) {
    const auto b = static_cast<unsigned char>(v);
    if (!c.class_has(b)) continue;
    if (b >= 'A' && b <= 'Z')
      set(static_cast<unsigned char>(b - 'A' + 'a'));
    else if (alphabet_byte(b) || b == '^')
      set(b);
    else
      set('@');
  }
  c.bits = out;
}

uint32_t bound_product(uint32_t a, uint32_t b) {
  const uint64_t p = uint64_t{a} * b;
  return p >= RE_UNBOUNDED ? RE_UNBOUNDED : static_cast<uint32_t>(p);
}

uint32_t bound_less(uint32_t bound, uint32_t k) { return bound == RE_UNBOUNDED ? RE_UNBOUNDED : bound - k; }

// x{m,n} as its first k copies written out followed by x{m-k,n-k}: the same
// strings, with the written-out part cut into whole trigrams. Anchors go to
// the outer pieces.
std::vector<re_elem_ptr> write_out_literal(const re_elem& lit, uint32_t k) {
  std::vector<re_elem_ptr> pieces;
  auto head = re_elem_init(re_elem_literal);
  for (uint32_t i = 0; i < k; ++i) head->text += lit.text;
  head->anchor_start = lit.anchor_start;
  pieces.push_back(std::move(head));
  if (lit.max != k) {
    auto rest = re_elem_init(re_elem_literal);
    rest->text = lit.text;
    rest->min = lit.min - k;
    rest->max = bound_less(lit.max, k);
    pieces.push_back(std::move(rest));
  }
  pieces.back()->anchor_end = lit.anchor_end;
  return pieces;
}

// Puts `pieces` in place of parent.children[i]: spliced into a sequence,
// wrapped in a sequence elsewhere. Returns the number of children now there.
size_t replace_child(re_elem& parent, size_t i, std::vector<re_elem_ptr> pieces) {
  if (parent.type == re_elem_sequence || pieces.size() == 1) {
    const size_t n = pieces.size();
    parent.children.erase(parent.children.begin() + static_cast<std::ptrdiff_t>(i));
    parent.children.insert(parent.children.begin() + static_cast<std::ptrdiff_t>(i),
                           std::make_move_iterator(pieces.begin()), std::make_move_iterator(pieces.end()));
    return n;
  }
  auto seq = re_elem_init(re_elem_sequence);
  seq->children = std::move(pieces);
  parent.children[i] = std::move(seq);
  return 1;
}

// Rule 4: head copies, any-string, tail copies. A match of the run starts
// with the head and ends with the tail; the two may overlap, which the
// any-string between them allows for.
std::vector<re_elem_ptr> split_class_run(const re_elem& c) {
  uint32_t head_count = std::min<uint32_t>(c.min, 3), tail_count = head_count;
  const size_t s = c.class_count();
  if (s * s > GROUP_EXTENSION_THRESHOLD)
    head_count = 1;
  else if (head_count == 3 && s * s * s > GROUP_EXTENSION_THRESHOLD)
    head_count = 2;
  auto head = re_elem_clone(c);
  head->min = head->max = head_count;
  head->anchor_end = false;
  auto tail = re_elem_clone(c);
  tail->min = tail->max = tail_count;
  tail->anchor_start = false;
  std::vector<re_elem_ptr> pieces;
  pieces.push_back(std::move(head));
  pieces.push_back(any_string_element());
  pieces.push_back(std::move(tail));
  return pieces;
}

// Rule 5's count: the fewest copies (at most min) that make 3 characters.
uint32_t copies_for_trigram(const re_elem& lit) {
  uint32_t k = 1;
  while (k < lit.min && lit.text.size() * k < 3) ++k;
  return k;
}

void normalize_children(re_elem& e) {
  for (size_t i = 0; i < e.children.size();) {
    re_elem_ptr& child = e.children[i];
    if (!child) {
      ++i;
      continue;
    }
    // Rule 3. An anchored element stays wrapped when the wrapper repeats: its
    // anchor holds for each copy, and would hold once, even for no copy at
    // all, outside the repetition.
    while ((child->type == re_elem_sequence || child->type == re_elem_group) && child->children.size() == 1 &&
           child->children[0] &&
           ((child->min == 1 && child->max == 1) ||
            !(child->children[0]->anchor_start || child->children[0]->anchor_end))) {
      re_elem_ptr inner = std::move(child->children[0]);
      inner->min = bound_product(inner->min, child->min);
      inner->max = bound_product(inner->max, child->max);
      inner->anchor_start = inner->anchor_start || child->anchor_start;
      inner->anchor_end = inner->anchor_end || child->anchor_end;
      child = std::move(inner);
    }
    re_elem& c = *child;
    if (e.type == re_elem_sequence && c.type == re_elem_class && !c.class_is_universal() && c.min >= 1 &&
        c.min < c.max) {  // rule 4
      std::vector<re_elem_ptr> pieces = split_class_run(c);
      for (re_elem_ptr& p : pieces)
        if (!is_universal(*p)) normalize_tree(*p);
      i += replace_child(e, i, std::move(pieces));
      continue;
    }
    if (c.type == re_elem_literal && c.min >= 2 && (c.min == c.max || e.type == re_elem_group)) {  // rule 5
      const uint32_t k = copies_for_trigram(c);
      if (k > 1) {
        i += replace_child(e, i, write_out_literal(c, k));
        continue;
      }
    }
    if (c.type == re_elem_sequence && c.children.empty() && c.min > 0) {  // rule 6
      auto lit = re_elem_init(re_elem_literal);
      lit->min = c.min;
      lit->max = c.max;
      lit->anchor_start = c.anchor_start;
      lit->anchor_end = c.anchor_end;
      child = std::move(lit);
      ++i;
      continue;
    }
    normalize_tree(c);  // rule 7
    if (c.type == re_elem_class && c.class_count() > 30) c.bits.fill(~uint64_t{0});
    ++i;
  }
}

// The fixup's own rule: a literal of one or two characters repeated a
// bounded number of times gets its first two copies (three when min is at
// least 3) written out.
bool fixup_children(re_elem& e) {
  for (size_t i = 0; i < e.children.size();) {
    re_elem_ptr& child = e.children[i];
    if (!child) {
      log_printf(LOG_ERROR, "Error: inconsistent regex parse tree view.");
      return false;
    }
    re_elem& c = *child;
    if (c.type == re_elem_literal && c.min >= 2 && c.max != RE_UNBOUNDED && !c.text.empty() && c.text.size() < 3) {
      i += replace_child(e, i, write_out_literal(c, c.min >= 3 ? 3 : 2));
      continue;
    }
    if ((c.type == re_elem_sequence || c.type == re_elem_group) && !fixup_children(c)) return false;
    ++i;
  }
  return true;
}

void written_form_pass(re_elem& e) {
  if (e.type == re_elem_class) e.bits = class_written_bits(e.bits);
  for (re_elem_ptr& c : e.children)
    if (c) written_form_pass(*c);
}

// ---------------------------------------------------------------------------
// Junction primitives

bool in_alphabet(unsigned char c) { return alphabet_byte(c); }

trigram_query_ptr window_trigrams(const std::string& window) { return literal_trigrams(window, false, false); }

}  // namespace

// ---------------------------------------------------------------------------

trigram_query_ptr extract_query(const re_elem& tree, bool second_attempt) {
  budget b = second_attempt ? SECOND_BUDGET : FIRST_BUDGET;
  const info root = analyze(tree, b, 0);
  return to_trigram_query(shrink(node_query(root), MAX_QUERY_LEAVES));
}

trigram_query_ptr extract_trigrams(const re_elem& tree, std::string* error_out) {
  trigram_query_ptr q = extract_query(tree, false);
  if (q && q->count() != 0) return q;
  if (error_out) error_out->clear();
  return extract_query(tree, true);
}

re_class_bits class_written_bits(const re_class_bits& bits) {
  re_class_bits set = bits;
  const bool negated = set[0] & 1;
  if (negated)
    for (uint64_t& w : set) w = ~w;
  re_class_bits written{};
  const auto has = [&](int c) { return (set[c >> 6] >> (c & 63)) & 1; };
  const auto put = [&](int c) { written[c >> 6] |= uint64_t{1} << (c & 63); };
  int run = -1;
  for (int c = 0; c < 256; ++c) {
    if (has(c) && run < 0) {
      run = c;
    } else if (!has(c) && run >= 0) {
      for (int x = run; x < c; ++x) put(x);
      run = -1;
    }
  }
  if (run >= 0) put(run);  // an open run at byte 255 is written as its first byte
  if (negated)
    for (uint64_t& w : written) w = ~w;
  return written;
}

void normalize_tree(re_elem& e) {
  if (e.min == 0) return;
  if (e.type == re_elem_class && !e.class_is_universal()) class_onto_alphabet(e);
  // Only a sequence matched once: inside a repetition, an anchor on the
  // first child would apply to every copy instead of the first.
  if (e.type == re_elem_sequence && e.min == 1 && e.max == 1 && !e.children.empty() && e.children.front() &&
      e.children.back()) {
    e.children.front()->anchor_start = e.children.front()->anchor_start || e.anchor_start;
    e.children.back()->anchor_end = e.children.back()->anchor_end || e.anchor_end;
    e.anchor_start = e.anchor_end = false;
  }
  if (e.type == re_elem_sequence || e.type == re_elem_group) normalize_children(e);
}

re_elem_ptr fixup_tree(re_elem_ptr tree) {
  if (!tree) return nullptr;
  written_form_pass(*tree);
  normalize_tree(*tree);
  if (tree->type == re_elem_literal && tree->min >= 2 && tree->max != RE_UNBOUNDED && !tree->text.empty() &&
      tree->text.size() < 3) {
    auto seq = re_elem_init(re_elem_sequence);
    seq->children = write_out_literal(*tree, tree->min >= 3 ? 3 : 2);
    return seq;
  }
  if ((tree->type == re_elem_sequence || tree->type == re_elem_group) && !fixup_children(*tree)) return nullptr;
  return tree;
}

trigram_query_ptr literal_pair_junction(const re_elem& neighbour, std::string_view text, size_t& counter,
                                        bool neighbour_after) {
  ++counter;
  const std::string& n = neighbour.text;
  if (n.empty() || text.empty()) return nullptr;
  std::string window;
  if (neighbour_after) {
    if (text.size() >= 2) window += text[text.size() - 2];
    window += text.back();
    window += n[0];
    if (n.size() >= 2) {
      window += n[1];
      ++counter;
    } else if (neighbour.anchor_end) {
      window += TRIGRAM_PAD;
    }
  } else {
    if (n.size() >= 2) {
      window += n[n.size() - 2];
      ++counter;
    } else if (neighbour.anchor_start) {
      window += TRIGRAM_PAD;
    }
    window += n.back();
    window += text[0];
    if (text.size() >= 2) window += text[1];
  }
  return window_trigrams(window);
}

trigram_query_ptr class_pair_junction(const re_elem& literal, const re_elem& klass, bool class_first) {
  if (literal.type != re_elem_literal || literal.text.empty() || klass.type != re_elem_class) return nullptr;
  const size_t s = klass.class_count();
  if (s > 30 || s * s > 512) return nullptr;
  const std::string& t = literal.text;
  auto u = trigram_query_create(TQ_UNION, 0);
  bool outer_other = false;
  for (int a = 0; a < 256; ++a) {
    const auto c1 = static_cast<unsigned char>(a);
    if (!klass.class_has(c1)) continue;
    if (!in_alphabet(c1)) {
      if (outer_other) continue;
      outer_other = true;
    }
    bool inner_other = false;
    for (int b = 0; b < 256; ++b) {
      const auto c2 = static_cast<unsigned char>(b);
      if (!klass.class_has(c2)) continue;
      if (!in_alphabet(c2)) {
        if (inner_other) continue;
        inner_other = true;
      }
      const char w1 = in_alphabet(c1) ? static_cast<char>(c1) : '@';
      const char w2 = in_alphabet(c2) ? static_cast<char>(c2) : '@';
      std::string window;
      if (class_first) {
        if (klass.min >= 2) window += w1;
        window += w2;
        window += t[0];
        if (t.size() >= 2)
          window += t[1];
        else if (literal.anchor_end)
          window += TRIGRAM_PAD;
      } else {
        if (t.size() >= 2)
          window += t[t.size() - 2];
        else if (literal.anchor_start)
          window += TRIGRAM_PAD;
        window += t.back();
        window += w1;
        window += w2;
      }
      u->members.push_back(window_trigrams(window));
    }
  }
  return u;
}
