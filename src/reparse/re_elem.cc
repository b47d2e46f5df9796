// The parse-tree record and the normalising operations both parsers build with.
#include <algorithm>
#include <bit>
#include <cstdarg>
#include <cstdio>
#include <utility>

#include "libmy/my_alloc.h"
#include "libmy/ubuf.h"
#include "reparse/reparse.h"

#include "reparse/reparse_internal.h"

re_elem::~re_elem() {
  if (children.empty()) return;
  std::vector<re_elem_ptr> doomed = std::move(children);
  while (!doomed.empty()) {
    re_elem_ptr e = std::move(doomed.back());
    doomed.pop_back();
    if (!e) continue;
    for (re_elem_ptr& c : e->children) doomed.push_back(std::move(c));
    e->children.clear();
  }
}

size_t re_elem::class_count() const {
  size_t n = 0;
  for (uint64_t w : bits) n += std::popcount(w);
  return n;
}

bool re_elem::class_is_universal() const {
  for (uint64_t w : bits)
    if (w != ~uint64_t{0}) return false;
  return true;
}

bool reparse_fail(std::string* err, const char* format, ...) {
  if (err == nullptr) return false;
  err->clear();
  va_list ap;
  va_start(ap, format);
  ubuf_add_vfmt(*err, format, ap);
  va_end(ap);
  return false;
}

re_elem_ptr re_elem_init(re_elem_type type) { return std::make_unique<re_elem>(type); }

re_elem_ptr re_elem_at(re_elem_type type, int pos) {
  re_elem_ptr e = re_elem_init(type);
  e->pos = static_cast<uint32_t>(pos);
  return e;
}

void re_elem_free(re_elem_ptr& e) { e.reset(); }

re_elem_ptr re_elem_clone(const re_elem& e) {
  auto copy = std::make_unique<re_elem>(e.type);
  copy->anchor_start = e.anchor_start;
  copy->anchor_end = e.anchor_end;
  copy->min = e.min;
  copy->max = e.max;
  copy->bits = e.bits;
  copy->text = e.text;
  copy->pos = e.pos;
  copy->children.reserve(e.children.size());
  for (const re_elem_ptr& c : e.children) copy->children.push_back(c ? re_elem_clone(*c) : nullptr);
  return copy;
}

re_elem_ptr elemvec_pop(std::vector<re_elem_ptr>& vec) {
  if (vec.empty()) return nullptr;
  re_elem_ptr last = std::move(vec.back());
  vec.pop_back();
  return last;
}

bool anchor_start(re_elem& seq, std::string* err, int pos) {
  my_assert(seq.type == re_elem_sequence, "seq->type == re_elem_sequence");
  if (seq.anchor_start) return reparse_fail(err, "Duplicate '^' at %d", pos);
  if (!seq.children.empty()) return reparse_fail(err, "Invalid '^' at %d", pos);
  seq.anchor_start = true;
  return true;
}

bool anchor_end(re_elem& seq, std::string* err, int pos) {
  my_assert(seq.type == re_elem_sequence, "seq->type == re_elem_sequence");
  if (seq.anchor_end) return reparse_fail(err, "Duplicate '$' at %d", pos);
  seq.anchor_end = true;
  return true;
}

namespace {

bool is_plain_literal(const re_elem& e) {
  return e.type == re_elem_literal && e.min == 1 && e.max == 1;
}

// Both the same class without an upper bound, and their lower bounds still
// add up to a bound the parser could have read.
bool same_open_class_run(const re_elem& a, const re_elem& b) {
  return a.type == re_elem_class && b.type == re_elem_class && a.bits == b.bits && a.max == RE_UNBOUNDED &&
         b.max == RE_UNBOUNDED && a.min + b.min < RE_UNBOUNDED;
}

bool is_empty_alternative(const re_elem& e) {
  return e.type == re_elem_sequence && e.children.empty();
}

unsigned empty_kind(const re_elem& e) {
  return (e.anchor_start ? 1u : 0u) | (e.anchor_end ? 2u : 0u);
}

}  // namespace

bool sequence_add(re_elem& seq, re_elem_ptr& pending, std::string* err, int pos) {
  my_assert(seq.type == re_elem_sequence, "seq->type == re_elem_sequence");
  // Nothing may follow "$" in the same sequence, not even an empty slot.
  if (seq.anchor_end) return reparse_fail(err, "Invalid characters after '$' at %d", pos);
  if (!pending) return true;

  group_unwrap(pending);
  if (pending->anchor_start) {
    pending->anchor_start = false;
    if (!anchor_start(seq, err, pos)) return false;
  }
  if (pending->anchor_end) {
    pending->anchor_end = false;
    if (seq.anchor_end) return reparse_fail(err, "Duplicate '$' at %d", pos);
    seq.anchor_end = true;
  }

  if (pending->type == re_elem_sequence) {
    // Spliced literals keep their own boundaries; a class run that meets
    // one across the splice still collapses, so that the written form reads
    // back the same.
    for (re_elem_ptr& m : pending->children) {
      if (!seq.children.empty() && same_open_class_run(*seq.children.back(), *m))
        seq.children.back()->min += m->min;
      else
        seq.children.push_back(std::move(m));
    }
    pending.reset();
    return true;
  }
  if (pending->type == re_elem_class && pending->class_count() == 1) {
    // Byte 255 is never found: the scan stops before it, so such a class stays.
    for (unsigned c = 0; c < 255; ++c) {
      if (!pending->class_has(static_cast<unsigned char>(c))) continue;
      re_elem_ptr lit = re_elem_at(re_elem_literal, static_cast<int>(pending->pos));
      if (c != 0) lit->text.push_back(static_cast<char>(c));
      lit->min = pending->min;
      lit->max = pending->max;
      pending = std::move(lit);
      break;
    }
  }
  if (!seq.children.empty() && is_plain_literal(*pending) && is_plain_literal(*seq.children.back())) {
    seq.children.back()->text += pending->text;
    pending.reset();
    return true;
  }
  if (!seq.children.empty() && same_open_class_run(*seq.children.back(), *pending)) {
    seq.children.back()->min += pending->min;
    pending.reset();
    return true;
  }
  seq.children.push_back(std::move(pending));
  return true;
}

void group_add(re_elem& group, re_elem_ptr& seq, unsigned* empty_kinds) {
  my_assert(group.type == re_elem_group, "group->type == re_elem_group");
  my_assert(seq && seq->type == re_elem_sequence, "(*pseq)->type == re_elem_sequence");
  sequence_unwrap(seq);
  if (is_empty_alternative(*seq)) {
    unsigned kind = empty_kind(*seq);
    bool duplicate = false;
    if (empty_kinds != nullptr) {
      duplicate = (*empty_kinds >> kind) & 1;
      *empty_kinds |= 1u << kind;
    } else {
      for (const re_elem_ptr& alt : group.children)
        if (is_empty_alternative(*alt) && empty_kind(*alt) == kind) duplicate = true;
    }
    if (duplicate) {
      seq.reset();
      return;
    }
  }
  group.children.push_back(std::move(seq));
}

bool rep_start(re_elem& seq, re_elem_ptr& pending, char op, std::string* err, int pos) {
  if (!pending) {
    // The previous item was appended already (it carries its own
    // repetition): repeat it as a group, so "a**" means "(a*)*".
    re_elem_ptr last = elemvec_pop(seq.children);
    if (!last) return reparse_fail(err, "Invalid '%c' at %d", op, pos);
    const int from = static_cast<int>(last->pos);
    re_elem_ptr wrap = re_elem_at(re_elem_sequence, from);
    if (!sequence_add(*wrap, last, err, pos)) return false;
    re_elem_ptr group = re_elem_at(re_elem_group, from);
    group_add(*group, wrap);
    pending = std::move(group);
  }
  switch (pending->type) {
    case re_elem_group:
    case re_elem_class:
      return true;
    case re_elem_literal: {
      my_assert(!pending->text.empty(), "len > 0");
      if (pending->text.size() == 1) return true;
      // The operator binds to the last character only.
      char last = pending->text.back();
      pending->text.pop_back();
      if (!sequence_add(seq, pending, err, pos)) return false;
      pending = re_elem_at(re_elem_literal, pos - 1);
      pending->text.push_back(last);
      return true;
    }
    default:
      return reparse_fail(err, "Invalid '%c' at %d", op, pos);
  }
}

void sequence_unwrap(re_elem_ptr& e) {
  if (!e || e->type != re_elem_sequence || e->children.size() != 1) return;
  re_elem_ptr member = std::move(e->children.front());
  member->anchor_start = e->anchor_start;
  member->anchor_end = e->anchor_end;
  e = std::move(member);
}

void group_unwrap(re_elem_ptr& e) {
  if (!e || e->type != re_elem_group) return;
  size_t n = e->children.size();
  my_assert(n > 0, "group->elems._n > 0");
  if (n > 2) return;

  size_t empty = n;
  for (size_t i = 0; i < n; ++i) {
    const re_elem& alt = *e->children[i];
    if (is_empty_alternative(alt) && !alt.anchor_start) {
      empty = i;
      break;
    }
  }

  if (empty == n) {
    if (n == 2) return;
    re_elem& a = *e->children.front();
    if (e->min != 1 || e->max != 1) {
      // Moving the bounds down is only safe onto a single unbounded atom.
      bool atom = a.type == re_elem_group || a.type == re_elem_class ||
                  (a.type == re_elem_literal && a.text.size() == 1);
      if (a.min != 1 || a.max != 1 || !atom) return;
      a.min = e->min;
      a.max = e->max;
    }
    a.anchor_start = a.anchor_start || e->anchor_start;
    a.anchor_end = a.anchor_end || e->anchor_end;
    re_elem_ptr only = std::move(e->children.front());
    e = std::move(only);
    return;
  }

  if (n == 1) {
    re_elem_ptr seq = re_elem_at(re_elem_sequence, static_cast<int>(e->pos));
    seq->anchor_start = e->anchor_start;
    seq->anchor_end = e->anchor_end;
    e = std::move(seq);
    return;
  }
  // "(a|)" is "(a)?"; the upper bound stays, so "(a|){2,3}" is "(a){0,3}".
  e->min = 0;
  re_elem_ptr other = std::move(e->children[1 - empty]);
  e->children.clear();
  e->children.push_back(std::move(other));
}

namespace {

// Deepest count of the elements that `counts` along one path from `e`.
template <typename Counts>
size_t deepest_path(const re_elem* e, Counts counts) {
  if (e == nullptr) return 0;
  size_t deepest = 0;
  std::vector<std::pair<const re_elem*, size_t>> todo{{e, counts(*e)}};
  while (!todo.empty()) {
    auto [cur, level] = todo.back();
    todo.pop_back();
    deepest = std::max(deepest, level);
    for (const re_elem_ptr& c : cur->children)
      if (c) todo.emplace_back(c.get(), level + counts(*c));
  }
  return deepest;
}

}  // namespace

size_t re_elem_depth(const re_elem* e) {
  return deepest_path(e, [](const re_elem&) { return size_t{1}; });
}

size_t re_elem_repeat_depth(const re_elem* e) {
  return deepest_path(e, [](const re_elem& x) { return size_t{x.min != 1 || x.max != 1}; });
}

const char* re_elem_check(const re_elem& root) {
  if (re_elem_depth(&root) > RE_MAX_DEPTH) return "tree too deep";
  std::vector<const re_elem*> todo{&root};
  while (!todo.empty()) {
    const re_elem& e = *todo.back();
    todo.pop_back();
    if (e.type > re_elem_literal) return "unknown element type";
    if (e.min > e.max || e.max > RE_UNBOUNDED) return "bad repetition bounds";
    if (e.type != re_elem_sequence && e.type != re_elem_group && !e.children.empty())
      return "leaf element with children";
    if (e.type == re_elem_literal && e.text.find('\0') != std::string::npos)
      return "zero byte inside a literal";
    if (e.type == re_elem_class) {
      size_t n = e.class_count();
      if (n == 0) return "empty class";
      if (n == 1 && !e.class_has(255)) return "one-member class";
    }
    if (e.type == re_elem_sequence && (e.min != 1 || e.max != 1)) return "sequence with bounds";
    if (e.type == re_elem_group && e.children.empty()) return "group without alternatives";
    unsigned empty_seen = 0;
    for (const re_elem_ptr& c : e.children) {
      if (!c) return "null child";
      if (e.type == re_elem_sequence) {
        if (c->type == re_elem_sequence) return "sequence inside a sequence";
        if (c->anchor_start || c->anchor_end) return "anchored sequence member";
      } else if (is_empty_alternative(*c)) {
        unsigned bit = 1u << empty_kind(*c);
        if (empty_seen & bit) return "duplicate empty alternative";
        empty_seen |= bit;
      }
      todo.push_back(c.get());
    }
  }
  return nullptr;
}
