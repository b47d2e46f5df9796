#include "trigram/fixup.h"

#include <algorithm>
#include <vector>

#include "libmy/my_saturate.h"
#include "log/log.h"
#include "trigram/permute.h"
#include "trigram/trigram.h"

namespace {

// A class of more members than this says too little to be worth expanding.
constexpr size_t WIDE_CLASS_MEMBERS = 30;

bool is_universal(const re_elem& e) { return e.type == re_elem_class && e.class_is_universal(); }

// Rule 1.
void class_onto_alphabet(re_elem& c) {
  re_class_bits out{};
  for (int v = 0; v < 256; ++v) {
    const auto b = static_cast<unsigned char>(v);
    if (!c.class_has(b)) continue;
    const auto shown = static_cast<unsigned char>(trigram_symbol_char(b));
    out[shown >> 6] |= uint64_t{1} << (shown & 63);
  }
  c.bits = out;
}

uint32_t bound_product(uint32_t a, uint32_t b) { return std::min(saturating_mul(a, b), RE_UNBOUNDED); }

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

// Rule 3. An anchored element stays wrapped when the wrapper repeats: its
// anchor holds for each copy, and would hold once, even for no copy at all,
// outside the repetition.
void unwrap_single_child(re_elem_ptr& child) {
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
}

// Rule 6.
re_elem_ptr empty_literal_like(const re_elem& seq) {
  auto lit = re_elem_init(re_elem_literal);
  lit->min = seq.min;
  lit->max = seq.max;
  lit->anchor_start = seq.anchor_start;
  lit->anchor_end = seq.anchor_end;
  return lit;
}

void normalize_children(re_elem& e) {
  for (size_t i = 0; i < e.children.size();) {
    re_elem_ptr& child = e.children[i];
    if (!child) {
      ++i;
      continue;
    }
    unwrap_single_child(child);
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
      child = empty_literal_like(c);
      ++i;
      continue;
    }
    normalize_tree(c);  // rule 7
    if (c.type == re_elem_class && c.class_count() > WIDE_CLASS_MEMBERS) c.bits.fill(~uint64_t{0});
    ++i;
  }
}

bool is_short_bounded_literal(const re_elem& e) {
  return e.type == re_elem_literal && e.min >= 2 && e.max != RE_UNBOUNDED && !e.text.empty() && e.text.size() < 3;
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
    if (is_short_bounded_literal(c)) {
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

}  // namespace

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
  if (is_short_bounded_literal(*tree)) {
    auto seq = re_elem_init(re_elem_sequence);
    seq->children = write_out_literal(*tree, tree->min >= 3 ? 3 : 2);
    return seq;
  }
  if ((tree->type == re_elem_sequence || tree->type == re_elem_group) && !fixup_children(*tree)) return nullptr;
  return tree;
}
