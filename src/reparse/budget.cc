// The complexity budget of a parsed pattern. The matcher's compiler takes
// time that grows steeply with what a pattern can pile up, so each of these
// has a budget that no realistic name search comes near:
//  - classes and repeated characters (each a state the matcher tracks);
//  - the spans of bounded repetitions such as ".{1,100}": how many more
//    characters they may take than they must. A span is costly when what
//    follows it could also be taken by it ("x.{1,50}x"); one that ends
//    where its class cannot go on ("[a-z0-9-]{1,63}\.", a label and its
//    dot) counts an eighth;
//  - the characters that repeated groups add when written out copy by copy
//    (the compiler writes bounded group repetitions out);
//  - optional parts in a row: each can be skipped, so every later part may
//    follow every earlier one, and the links grow with the square of the run.
// Counts saturate, so a pattern can only look too large, never too small.
#include <algorithm>

#include "libmy/my_saturate.h"
#include "reparse/reparse.h"
#include "reparse/reparse_internal.h"

namespace {

constexpr re_class_bits ANY_BYTE = {~uint64_t{0}, ~uint64_t{0}, ~uint64_t{0}, ~uint64_t{0}};
constexpr size_t CLEAR_END_SHARE = 8;  // a span that ends clearly counts 1/8

re_class_bits either(const re_class_bits& a, const re_class_bits& b) {
  return {a[0] | b[0], a[1] | b[1], a[2] | b[2], a[3] | b[3]};
}

bool overlap(const re_class_bits& a, const re_class_bits& b) {
  return (a[0] & b[0]) | (a[1] & b[1]) | (a[2] & b[2]) | (a[3] & b[3]);
}

// The bytes `e` may start with, in both cases (the matcher ignores case);
// every byte when it may match the empty string, since then what follows
// it may come first.
re_class_bits first_bytes(const re_elem& e) {
  if (e.min == 0) return ANY_BYTE;
  re_class_bits out{};
  switch (e.type) {
    case re_elem_literal: {
      if (e.text.empty()) return ANY_BYTE;
      const auto c = static_cast<unsigned char>(e.text[0]);
      out[c >> 6] |= uint64_t{1} << (c & 63);
      break;
    }
    case re_elem_class:
      out = e.bits;
      break;
    case re_elem_group:
      for (const re_elem_ptr& alt : e.children) out = either(out, first_bytes(*alt));
      break;
    default:
      if (e.children.empty()) return ANY_BYTE;
      out = first_bytes(*e.children.front());
  }
  // Letters in either case: 'A'-'Z' is bits 1-26 of word 1, 'a'-'z' bits 33-58.
  const uint64_t upper = out[1] & (uint64_t{0x3ffffff} << 1), lower = out[1] & (uint64_t{0x3ffffff} << 33);
  out[1] |= (upper << 32) | (lower >> 32);
  return out;
}

// What a sequence needs to know of each child.
struct element_shape {
  bool optional;  // may match the empty string
  size_t width;   // ways it may start or end (alternatives)
};

class budget_walk {
 public:
  explicit budget_walk(std::string* err) : err_(err) {}

  // `copies`: how often the enclosing repeated groups write `e` out;
  // `follower`: the bytes that may come right after it.
  bool visit(const re_elem& e, size_t copies, const re_class_bits& follower, element_shape& shape) {
    switch (e.type) {
      case re_elem_group:
        return visit_group(e, copies, follower, shape);
      case re_elem_sequence:
        return visit_sequence(e, copies, follower, shape);
      default:
        return visit_leaf(e, copies, follower, shape);
    }
  }

 private:
  bool visit_leaf(const re_elem& e, size_t copies, const re_class_bits& follower, element_shape& shape) {
    const bool repeated = e.min != 1 || e.max != 1;
    if (e.type == re_elem_class || repeated) {
      states_ = saturating_add(states_, copies);
      if (states_ > PATTERN_MAX_STATES)
        return reparse_fail(err_, "Pattern too complex at %u: more than %zu classes, wildcards and repetitions", e.pos,
                            PATTERN_MAX_STATES);
    }
    if (e.max != RE_UNBOUNDED && e.max > e.min) {
      size_t span = saturating_mul<size_t>(e.max - e.min, copies);
      if (!overlap(first_bytes(e), follower)) span = (span + CLEAR_END_SHARE - 1) / CLEAR_END_SHARE;
      span_ = saturating_add(span_, span);
      if (span_ > PATTERN_MAX_SPAN)
        return reparse_fail(err_, "Pattern too complex at %u: bounded repetitions span more than %zu characters",
                            e.pos, PATTERN_MAX_SPAN);
    }
    const size_t length = e.type == re_elem_literal ? e.text.size() : 1;
    written_out_ = saturating_add(written_out_, saturating_mul(length, copies - 1));
    if (written_out_ > PATTERN_MAX_WRITTEN_OUT)
      return reparse_fail(err_, "Pattern too complex at %u: repeated groups write out more than %zu characters",
                          written_out_group_ ? written_out_group_->pos : e.pos, PATTERN_MAX_WRITTEN_OUT);
    shape = {e.min == 0 || (e.type == re_elem_literal && e.text.empty()), 1};
    return true;
  }

  bool visit_group(const re_elem& e, size_t copies, const re_class_bits& follower, element_shape& shape) {
    const bool repeats = e.max > 1;
    const size_t own = e.max != RE_UNBOUNDED ? std::max<size_t>(e.max, 1) : std::max<size_t>(e.min, 1);
    const size_t inner = saturating_mul(copies, own);
    // The outermost group written out copy by copy is named when the copies are too many.
    const re_elem* outer_group = written_out_group_;
    if (!written_out_group_ && own > 1) written_out_group_ = &e;
    // After one copy comes the next copy or what follows the group.
    const re_class_bits after = repeats ? either(follower, first_bytes(e)) : follower;
    shape = {e.min == 0, 0};
    for (const re_elem_ptr& alt : e.children) {
      element_shape s{};
      if (!visit(*alt, inner, after, s)) return false;
      shape.optional = shape.optional || s.optional;
      shape.width = saturating_add(shape.width, s.width);
    }
    written_out_group_ = outer_group;
    // Written out, the copies of an optional group form a run of their own.
    if (shape.optional && own > 1) {
      const size_t pairs = saturating_mul(own, own - 1) / 2;
      if (!add_links(e, saturating_mul(copies, saturating_mul(saturating_mul(shape.width, shape.width), pairs))))
        return false;
    }
    return true;
  }

  bool visit_sequence(const re_elem& e, size_t copies, const re_class_bits& follower, element_shape& shape) {
    size_t reach = 0;     // widths of the earlier children a skip over optional ones reaches
    size_t previous = 0;  // width of the child before
    shape = {true, 0};
    for (size_t i = 0; i < e.children.size(); ++i) {
      const re_elem& child = *e.children[i];
      const re_class_bits after = i + 1 < e.children.size() ? first_bytes(*e.children[i + 1]) : follower;
      element_shape s{};
      if (!visit(child, copies, after, s)) return false;
      if (!add_links(child, saturating_mul(copies, saturating_mul(s.width, reach)))) return false;
      reach = s.optional ? saturating_add(reach, previous) : 0;
      previous = s.width;
      if (shape.optional && shape.width == 0) shape.width = s.width;
      shape.optional = shape.optional && s.optional;
    }
    return true;
  }

  bool add_links(const re_elem& at, size_t n) {
    links_ = saturating_add(links_, n);
    if (links_ > PATTERN_MAX_SKIP_LINKS)
      return reparse_fail(err_, "Pattern too complex at %u: too many optional parts in a row", at.pos);
    return true;
  }

  std::string* err_;
  size_t states_ = 0;
  size_t span_ = 0;
  size_t written_out_ = 0;
  size_t links_ = 0;
  const re_elem* written_out_group_ = nullptr;
};

}  // namespace

bool re_elem_within_budget(const re_elem& root, std::string* err) {
  element_shape shape{};
  return budget_walk(err).visit(root, 1, re_class_bits{}, shape);
}
