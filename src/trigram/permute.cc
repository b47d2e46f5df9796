#include "trigram/permute.h"

#include <algorithm>
#include <limits>
#include <numeric>
#include <vector>

#include "libmy/my_saturate.h"
#include "log/log.h"
#include "trigram/trigram.h"

namespace {

size_t saturating_pow(size_t base, uint32_t exp) {
  size_t r = 1;
  for (uint32_t i = 0; i < exp && r != std::numeric_limits<size_t>::max(); ++i) {
    r = saturating_mul(r, base);
    if (r == 0) break;
  }
  return r;
}

std::vector<unsigned char> class_members(const re_elem& c) {
  std::vector<unsigned char> out;
  for (int b = 0; b < 256; ++b)
    if (c.class_has(static_cast<unsigned char>(b))) out.push_back(static_cast<unsigned char>(b));
  return out;
}

re_elem_ptr literal_alternative(std::string text) {
  auto lit = re_elem_init(re_elem_literal);
  lit->text = std::move(text);
  return lit;
}

re_elem_ptr sequence_of(const re_elem& anchors_from, std::vector<re_elem_ptr> children) {
  auto seq = re_elem_init(re_elem_sequence);
  seq->anchor_start = anchors_from.anchor_start;
  seq->anchor_end = anchors_from.anchor_end;
  seq->children = std::move(children);
  return seq;
}

re_elem_ptr any_string_with_anchors(const re_elem& anchors_from) {
  auto any = any_string_element();
  any->anchor_start = anchors_from.anchor_start;
  any->anchor_end = anchors_from.anchor_end;
  return any;
}

// `end`, any string, then a copy of `end`, in a sequence carrying the anchors
// of `c`: what a long run of `c` starts and ends with, whatever lies between.
re_elem_ptr ends_around_any_string(const re_elem& c, re_elem_ptr end) {
  auto tail = re_elem_clone(*end);
  std::vector<re_elem_ptr> kids;
  kids.push_back(std::move(end));
  kids.push_back(any_string_element());
  kids.push_back(std::move(tail));
  return sequence_of(c, std::move(kids));
}

// The rule for one class. Returns `c` itself when nothing changes.
//
// Both splitting rules surround the kept pieces with any-string elements
// rather than single any-byte elements: a run of the class is longer than
// the pieces kept, so "exactly one byte between" would reject real matches.
// The extraction treats an any-string as a gap across which no trigram is
// formed, so the head and tail pieces may overlap in a short match.
re_elem_ptr reduce_class(re_elem_ptr c) {
  if (c->min == 0) return c;
  const size_t size = c->class_count();
  if (c->max == RE_UNBOUNDED) {
    if (c->min < 2 || size < PERMUTE_UNBOUNDED_LIMIT) return c;
    auto head = re_elem_clone(*c);
    head->min = head->max = 1;
    head->anchor_start = head->anchor_end = false;
    return ends_around_any_string(*c, std::move(head));
  }
  if (saturating_pow(size, c->min) <= PERMUTATION_THRESHOLD) return c;
  if (c->min > PERMUTE_RUN_CUT && saturating_pow(size, PERMUTE_RUN_CUT) <= PERMUTATION_THRESHOLD) {
    auto cut = re_elem_clone(*c);
    cut->min = cut->max = PERMUTE_RUN_CUT;
    if (re_elem_ptr expansion = permute_class_run(*cut)) {
      // Every run of at least three starts and ends with three members.
      return ends_around_any_string(*c, std::move(expansion));
    }
  }
  return any_string_with_anchors(*c);
}

size_t permutation_size(const re_elem& e) {
  if (e.type == re_elem_group) return e.children.size();
  if (e.type == re_elem_class && !e.class_is_universal()) return e.class_count();
  return 0;  // not a factor
}

bool is_factor(const re_elem& e) {
  return e.type == re_elem_group || (e.type == re_elem_class && !e.class_is_universal());
}

void widen_to_any_string(re_elem& e) {
  e.type = re_elem_class;
  e.min = 0;
  e.max = RE_UNBOUNDED;
  e.bits.fill(~uint64_t{0});
  e.children.clear();
  e.text.clear();
}

re_elem_ptr reduce_sequence(re_elem_ptr seq) {
  bool reduced = false;
  for (re_elem_ptr& child : seq->children) {
    if (!child || child->type != re_elem_class) continue;
    re_elem* before = child.get();
    re_elem_ptr after = reduce_class(std::move(child));
    if (!after) {
      log_printf(LOG_ERROR, "Error: encountered unexpected condition in class reduction!");
      return nullptr;
    }
    if (after.get() != before) reduced = true;
    child = std::move(after);
  }

  // Widening the largest factor first, the first of equal ones before later
  // ones, until the rest fit: the factors kept are the smallest ones.
  std::vector<size_t> order;
  for (size_t i = 0; i < seq->children.size(); ++i)
    if (seq->children[i] && is_factor(*seq->children[i])) order.push_back(i);
  std::vector<size_t> size(order.size());
  for (size_t k = 0; k < order.size(); ++k) size[k] = permutation_size(*seq->children[order[k]]);
  std::vector<size_t> rank(order.size());
  std::iota(rank.begin(), rank.end(), 0);
  std::stable_sort(rank.begin(), rank.end(), [&](size_t a, size_t b) { return size[a] > size[b]; });
  // rest[t]: the product of the factors left after widening the first t.
  std::vector<size_t> rest(rank.size() + 1, 1);
  for (size_t t = rank.size(); t-- > 0;) rest[t] = saturating_mul(rest[t + 1], size[rank[t]]);

  size_t t = 0;
  for (; rest[t] > PERMUTATION_THRESHOLD; ++t) {
    log_printf(LOG_DEBUG, "Warning: %zu possible permutations exceeded threshold of %u; reducing by factor of %zu.",
               rest[t], static_cast<unsigned>(PERMUTATION_THRESHOLD), size[rank[t]]);
    widen_to_any_string(*seq->children[order[rank[t]]]);
    reduced = true;
  }
  if (!reduced) return seq;
  log_printf(LOG_DEBUG, "Warning: reduced expression to %zu possible permutations.", rest[t]);
  if (log_enabled(LOG_DEBUG)) {
    const std::string text = re_elem_serialize(*seq);
    log_printf(LOG_DEBUG, "Reconstituted reduced expression is: %s", text.c_str());
  }
  return seq;
}

}  // namespace

re_elem_ptr any_string_element() {
  auto any = re_elem_init(re_elem_class);
  widen_to_any_string(*any);
  return any;
}

re_elem_ptr reduce_permutations(re_elem_ptr tree) {
  if (!tree) return tree;
  switch (tree->type) {
    case re_elem_class:
      return reduce_class(std::move(tree));
    case re_elem_sequence:
      return reduce_sequence(std::move(tree));
    default:
      return tree;
  }
}

re_elem_ptr permute_class_pair(const re_elem& first, const re_elem& second) {
  if (first.type != re_elem_class || second.type != re_elem_class) return nullptr;
  if (first.class_is_universal() || second.class_is_universal()) return nullptr;
  // Each member is written as the byte of its trigram symbol, so that the
  // strings hold only what the index tells apart.
  auto group = re_elem_init(re_elem_group);
  const auto a = class_members(first), b = class_members(second);
  group->children.reserve(a.size() * b.size());
  for (unsigned char c1 : a)
    for (unsigned char c2 : b)
      group->children.push_back(literal_alternative({trigram_symbol_char(c1), trigram_symbol_char(c2)}));
  return group;
}

re_elem_ptr extend_literal_group(const re_elem& group, const re_elem& klass, permute_side side, bool force) {
  if (group.type != re_elem_group || klass.type != re_elem_class) return nullptr;
  for (const re_elem_ptr& alt : group.children)
    if (!alt || alt->type != re_elem_literal || alt->text.size() > PERMUTE_LITERAL_LIMIT) return nullptr;
  const auto members = class_members(klass);
  const size_t product = members.size() * group.children.size();
  if (!force && product > GROUP_EXTENSION_THRESHOLD) {
    log_printf(LOG_DEBUG, "Warning: %zu possible permutations exceeded threshold of %u", product,
               static_cast<unsigned>(GROUP_EXTENSION_THRESHOLD));
    return nullptr;
  }
  auto out = re_elem_init(re_elem_group);
  out->children.reserve(product);
  for (const re_elem_ptr& alt : group.children)
    for (unsigned char c : members) {
      const char m = trigram_symbol_char(c);
      out->children.push_back(literal_alternative(side == PERMUTE_APPEND ? alt->text + m : m + alt->text));
    }
  return out;
}

re_elem_ptr permute_class_run(const re_elem& klass) {
  if (klass.type != re_elem_class) return nullptr;
  const uint32_t n = std::min(klass.min, PERMUTE_RUN_CAP);
  if (n < 2) return nullptr;
  re_elem_ptr group = permute_class_pair(klass, klass);
  while (group && !group->children.empty() && group->children[0]->text.size() < n)
    group = extend_literal_group(*group, klass, PERMUTE_APPEND, false);
  if (group && group->children.empty()) return nullptr;
  return group;
}
