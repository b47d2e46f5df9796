#include "zone_reader.h"

#include "dns_text.h"
#include "input.h"

// stdbool.h first: without it the DNS library's header defines bool, true
// and false as macros.
#include <stdbool.h>

#include <ldns/ldns.h>

#include <cctype>
#include <cstring>
#include <strings.h>

namespace {

bool blank(char c) { return c == ' ' || c == '\t'; }

// The first white-space separated word of `s` from `pos`, and where it ends.
std::string word_at(const std::string& s, size_t& pos) {
  while (pos < s.size() && blank(s[pos])) ++pos;
  const size_t start = pos;
  while (pos < s.size() && !blank(s[pos])) ++pos;
  return s.substr(start, pos - start);
}

bool class_word(const std::string& w) { return ldns_get_rr_class_by_name(w.c_str()) != 0; }

// Checks the words before the record data (owner, time to live and class in
// either order, type) and writes them in the one order the DNS library
// reads. The library itself would take an unknown or out-of-range type as
// type 0 or as another type.
bool normalize_record_head(std::string& text, std::string& err) {
  size_t pos = 0;
  const std::string owner = blank(text[0]) ? std::string() : word_at(text, pos);
  std::string ttl, klass, type;
  for (;;) {
    const std::string w = word_at(text, pos);
    if (w.empty()) break;
    if (ttl.empty() && isdigit(static_cast<unsigned char>(w[0]))) {
      ttl = w;
    } else if (klass.empty() && class_word(w)) {
      klass = w;
    } else {
      type = w;
      break;
    }
  }
  if (type.empty()) {
    err = "the record has no type";
    return false;
  }
  if (parse_rrtype_name(type) == 0 || isdigit(static_cast<unsigned char>(type[0]))) {
    err = "unknown record type " + quoted(type);
    return false;
  }
  while (pos < text.size() && blank(text[pos])) ++pos;
  if (text.size() - pos > MAX_RDATA_TEXT) {
    err = "record data text longer than " + std::to_string(MAX_RDATA_TEXT) + " bytes";
    return false;
  }
  std::string head = owner.empty() ? " " : owner;
  for (const std::string* w : {&ttl, &klass, &type}) {
    if (w->empty()) continue;
    head += ' ';
    head += *w;
  }
  if (pos < text.size()) {
    head += ' ';
    head.append(text, pos);
  }
  text = std::move(head);
  return true;
}

}  // namespace

struct zone_reader::impl {
  ldns_rdf* origin = ldns_dname_new_frm_str(".");
  ldns_rdf* prev = nullptr;  // the last owner, for records that omit it
  uint32_t ttl = 3600;
  ~impl() {
    if (origin) ldns_rdf_deep_free(origin);
    if (prev) ldns_rdf_deep_free(prev);
  }
  // `text` relative to the current origin unless it ends in a dot.
  ldns_status name(const std::string& text, ldns_rdf*& out) {
    out = nullptr;
    std::string full = text;
    if (!ldns_dname_str_absolute(text.c_str())) {
      char* o = ldns_rdf2str(origin);
      if (!o) return LDNS_STATUS_MEM_ERR;
      full += strcmp(o, ".") == 0 ? "." : std::string(".") + o;
      free(o);
    }
    return ldns_str2rdf_dname(&out, full.c_str());
  }
};

zone_reader::zone_reader(input_reader& in) : impl_(std::make_unique<impl>()), in_(in) {}
zone_reader::~zone_reader() = default;

bool zone_reader::set_origin(const std::string& origin, std::string& err) {
  if (origin.empty()) return true;
  ldns_rdf* rdf = nullptr;
  ldns_status s = ldns_str2rdf_dname(&rdf, origin.c_str());
  if (s == LDNS_STATUS_OK && !ldns_dname_absolute(rdf)) {
    ldns_rdf* root = ldns_dname_new_frm_str(".");
    s = ldns_dname_cat(rdf, root);
    ldns_rdf_deep_free(root);
  }
  if (s != LDNS_STATUS_OK) {
    if (rdf) ldns_rdf_deep_free(rdf);
    err = ldns_get_errorstr_by_id(s);
    return false;
  }
  ldns_rdf_deep_free(impl_->origin);
  impl_->origin = rdf;
  origin_given_ = true;
  return true;
}

bool zone_reader::read_entry(std::string& text, uint64_t& start, std::string& err, bool& bad) {
  text.clear();
  bad = false;
  int depth = 0;
  bool have = false, overlong = false;
  std::string_view line;
  while (in_.next_line(line)) {
    bool quoted = false;
    size_t i = 0;
    bool content = false;
    for (; i < line.size(); ++i) {
      const char c = line[i];
      if (c == '\\' && i + 1 < line.size()) {
        text += c;
        text += line[++i];
        content = true;
        continue;
      }
      if (c == '"') quoted = !quoted;
      if (!quoted && c == ';') break;  // a comment runs to the end of the line
      if (!quoted && c == '(') {
        ++depth;
        text += ' ';
        continue;
      }
      if (!quoted && c == ')') {
        if (--depth < 0) {
          if (!have) start = in_.line_number();
          err = "a closing parenthesis without an opening one";
          bad = true;
          depth = 0;
        }
        text += ' ';
        continue;
      }
      if (!blank(c)) content = true;
      text += c;
    }
    if (!have && !content) {
      // Nothing but blanks and comments: drop it, unless parentheses opened.
      if (depth == 0) {
        text.clear();
        continue;
      }
    }
    if (!have) {
      have = true;
      start = in_.line_number();
    }
    text += ' ';
    if (text.size() > MAX_LINE) {
      // A parenthesis left open must not pull the rest of the file into
      // memory: skip to where it closes, holding one line at a time.
      overlong = true;
      text.clear();
    }
    if (depth == 0) {
      if (overlong) {
        err = "record longer than " + std::to_string(MAX_LINE >> 20) + " MiB";
        bad = true;
      }
      return true;
    }
  }
  if (overlong) text.clear();
  if (have) {
    err = "parenthesis not closed before the end of the input";
    bad = true;
    return true;
  }
  return false;
}

zone_reader::result zone_reader::directive(const std::string& text, std::string& err) {
  size_t pos = 0;
  const std::string name = word_at(text, pos);
  if (strcasecmp(name.c_str(), "$ORIGIN") == 0) {
    const std::string arg = word_at(text, pos);
    if (!word_at(text, pos).empty()) {
      err = "$ORIGIN takes one domain name and nothing after it";
      return BAD;
    }
    ldns_rdf* rdf = nullptr;
    const ldns_status s = arg.empty() ? LDNS_STATUS_SYNTAX_ERR : impl_->name(arg, rdf);
    if (s != LDNS_STATUS_OK) {
      err = "$ORIGIN needs a domain name";
      return BAD;
    }
    ldns_rdf_deep_free(impl_->origin);
    impl_->origin = rdf;
    origin_given_ = true;
    return RECORD;
  }
  if (strcasecmp(name.c_str(), "$TTL") == 0) {
    const std::string arg = word_at(text, pos);
    const char* end = nullptr;
    const uint32_t ttl = ldns_str2period(arg.c_str(), &end);
    if (arg.empty() || (end && *end != '\0')) {
      err = "$TTL needs a time to live";
      return BAD;
    }
    impl_->ttl = ttl;
    return RECORD;
  }
  err = "the directive " + name + " is not supported";
  return BAD;
}

void zone_reader::notice_relative_owner(const std::string& text, uint64_t line) {
  if (origin_given_ || !relative_at_root_) return;
  size_t pos = 0;
  const std::string owner = word_at(text, pos);
  if (owner != "@" && ldns_dname_str_absolute(owner.c_str())) return;
  relative_at_root_(line);
  relative_at_root_ = nullptr;  // once is enough
}

zone_reader::result zone_reader::next(ldns_rr*& rr, uint64_t& line, std::string& err) {
  rr = nullptr;
  std::string text;
  for (;;) {
    bool bad = false;
    if (!read_entry(text, line, err, bad)) return END;
    if (bad) return BAD;
    // Some field types take the rest of the text: no trailing blanks.
    while (!text.empty() && blank(text.back())) text.pop_back();
    if (text.find('\0') != std::string::npos) {
      err = "the record holds a NUL byte";
      return BAD;
    }
    size_t first = 0;
    while (first < text.size() && blank(text[first])) ++first;
    if (first == 0 && text[0] == '$') {
      if (directive(text, err) == BAD) return BAD;
      continue;
    }
    if (first > 0 && !impl_->prev) {
      err = "the record has no owner name and none came before it";
      return BAD;
    }
    if (!normalize_record_head(text, err)) return BAD;
    if (first == 0) notice_relative_owner(text, line);
    const ldns_status s = ldns_rr_new_frm_str(&rr, text.c_str(), impl_->ttl, impl_->origin, &impl_->prev);
    if (s != LDNS_STATUS_OK) {
      rr = nullptr;
      err = std::string("record does not parse: ") + ldns_get_errorstr_by_id(s);
      return BAD;
    }
    return RECORD;
  }
}
