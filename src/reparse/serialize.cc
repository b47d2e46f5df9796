// Writes parse trees back out: as regular-expression text for the matcher
// and the logs, and as an indented dump for debugging.
#include <cstdio>

#include "libmy/ubuf.h"
#include "log/log.h"
#include "reparse/reparse.h"
#include "reparse/reparse_internal.h"

namespace {

void serialize_class(const re_class_bits& members, std::string& out) {
  out.push_back('[');
  re_class_bits set = members;
  // Negation is recognised by byte 0: the parser's negated sets always
  // contain it, and nothing else a user can write does (except [:cntrl:]).
  if (set[0] & 1) {
    for (uint64_t& w : set) w = ~w;
    out.push_back('^');
  }
  int run = -1;  // first byte of the current run of members
  for (int c = 0; c < 256; ++c) {
    bool member = (set[c >> 6] >> (c & 63)) & 1;
    if (member && run < 0) {
      run = c;
      serialize_class_char(static_cast<unsigned char>(c), out);
    } else if (!member && run >= 0) {
      if (run < c - 2) out.push_back('-');
      if (run < c - 1) serialize_class_char(static_cast<unsigned char>(c - 1), out);
      run = -1;
    }
  }
  // A run that reaches byte 255 is left as its first byte only.
  out.push_back(']');
}

}  // namespace

void serialize_class_char(unsigned char c, std::string& out) {
  if (c == '-' || c == '\\' || c == ']' || c == '^') out.push_back('\\');
  out.push_back(static_cast<char>(c));
}

void serialize_repeat(uint32_t min, uint32_t max, std::string& out) {
  if (min == 1 && max == 1) return;
  if (min == 1 && max == RE_UNBOUNDED) {
    out.push_back('+');
  } else if (min == 0 && max == 1) {
    out.push_back('?');
  } else if (min == 0 && max == RE_UNBOUNDED) {
    out.push_back('*');
  } else if (min == 0 && max == 0) {
    // Always written in full, never shortened to "{0}".
    out += "{0,0}";
  } else if (min == max) {
    ubuf_add_fmt(out, "{%u}", min);
  } else if (max == RE_UNBOUNDED) {
    ubuf_add_fmt(out, "{%u,}", min);
  } else {
    ubuf_add_fmt(out, "{%u,%u}", min, max);
  }
}

void serialize_elem(const re_elem* e, std::string& out) {
  if (e == nullptr) return;
  if (e->anchor_start) out.push_back('^');
  switch (e->type) {
    case re_elem_group:
      out.push_back('(');
      for (const re_elem_ptr& alt : e->children) {
        serialize_elem(alt.get(), out);
        out.push_back('|');
      }
      if (!out.empty() && out.back() == '|') out.pop_back();
      out.push_back(')');
      serialize_repeat(e->min, e->max, out);
      break;
    case re_elem_sequence:
      for (const re_elem_ptr& m : e->children) serialize_elem(m.get(), out);
      break;
    case re_elem_literal:
      for (char ch : e->text) {
        auto c = static_cast<unsigned char>(ch);
        if (c == 0) continue;
        if (reparse_escaped(c)) out.push_back('\\');
        out.push_back(ch);
      }
      serialize_repeat(e->min, e->max, out);
      break;
    case re_elem_class:
      if (e->class_is_universal()) {
        out.push_back('.');
      } else {
        serialize_class(e->bits, out);
      }
      serialize_repeat(e->min, e->max, out);
      break;
    default:
      break;
  }
  if (e->anchor_end) out.push_back('$');
}

std::string re_elem_serialize(const re_elem& root) {
  std::string out;
  out.reserve(64);
  serialize_elem(&root, out);
  return out;
}

namespace {

const char* type_name(uint32_t type) {
  switch (type) {
    case re_elem_sequence: return "sequence";
    case re_elem_group: return "group";
    case re_elem_class: return "class";
    case re_elem_literal: return "literal";
    default: return nullptr;
  }
}

void dump_class_member(std::string& out, unsigned c) {
  if (reparse_printable(static_cast<unsigned char>(c))) {
    ubuf_add_fmt(out, "'%c'", static_cast<int>(c));
  } else {
    ubuf_add_fmt(out, "\\x%x", c);
  }
}

void dump_class(std::string& out, const re_elem& e) {
  size_t n = e.class_count();
  if (n == 256) {
    out += "*\n";
    return;
  }
  int first = -1, last = -1;
  for (int c = 0; c < 256; ++c) {
    if (!e.class_has(static_cast<unsigned char>(c))) continue;
    if (first < 0) first = c;
    last = c;
  }
  if (n > 0 && static_cast<size_t>(last - first + 1) == n) {
    if (reparse_printable(first) && reparse_printable(last)) {
      ubuf_add_fmt(out, "'%c'-'%c'\n", first, last);
    } else {
      ubuf_add_fmt(out, "\\x%x-\\x%x\n", first, last);
    }
    return;
  }
  ubuf_add_fmt(out, "{%zu}   ", n);
  const char* sep = "";
  for (unsigned c = 0; c < 256; ++c) {
    if (!e.class_has(static_cast<unsigned char>(c))) continue;
    out += sep;
    dump_class_member(out, c);
    sep = ",";
  }
  out.push_back('\n');
}

void dump_into(std::string& out, const re_elem* e, std::string_view prefix, int depth) {
  out += prefix;
  out.push_back('+');
  if (depth > 0) {
    for (int d = 0; d < depth; ++d) out += "+++";
    out.push_back(' ');
  }
  if (e == nullptr) {
    out += "[NULL]\n";
    return;
  }
  const char* name = type_name(e->type);
  if (name == nullptr) {
    out += "[unknown]\n";
    return;
  }
  if (e->anchor_start) out += " ^ ";
  if (e->anchor_end) out += " $ ";
  size_t n = e->child_count();
  if (e->min == e->max) {
    ubuf_add_fmt(out, "%s [%zu] | %u", name, n, e->min);
  } else if (e->max == RE_UNBOUNDED) {
    ubuf_add_fmt(out, "%s [%zu] | %u..MAX", name, n, e->min);
  } else {
    ubuf_add_fmt(out, "%s [%zu] | %u..%u", name, n, e->min, e->max);
  }
  out += "    ";
  switch (e->type) {
    case re_elem_literal:
      out.push_back('"');
      out += e->text;
      out += "\"\n";
      return;
    case re_elem_class:
      dump_class(out, *e);
      return;
    default:
      out.push_back('\n');
      for (const re_elem_ptr& c : e->children) dump_into(out, c.get(), prefix, depth + 1);
  }
}

}  // namespace

std::string re_elem_dump_text(const re_elem* e, std::string_view prefix, int depth) {
  std::string out;
  dump_into(out, e, prefix, depth);
  return out;
}

void re_elem_dump(const re_elem* e, int level, int depth) {
  if (!log_enabled(level)) return;
  std::string text = re_elem_dump_text(e, log_get_prefix(), depth);
  FILE* stream = log_get_stream();
  flockfile(stream);
  fwrite(text.data(), 1, text.size(), stream);
  funlockfile(stream);
}
