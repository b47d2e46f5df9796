#include "dns_text.h"

// stdbool.h first: without it the DNS library's header defines bool, true
// and false as macros.
#include <stdbool.h>

#include <ldns/ldns.h>

#include <algorithm>
#include <charconv>
#include <cstdio>

namespace {

bool plain_name_char(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_' ||
         c == '*';
}

// Names made of letters, digits, '-', '_' and '*' in labels of 1 to 63 bytes
// need no escapes, so lower-casing them gives what the library would render.
// False when the name needs the library.
bool plain_owner_name(std::string_view text, std::string& out) {
  if (text.size() > 1 && text.back() == '.') text.remove_suffix(1);
  if (text.empty() || text.size() > 253) return false;
  size_t label = 0;
  out.clear();
  for (char c : text) {
    if (c == '.') {
      if (label == 0) return false;
      label = 0;
    } else if (!plain_name_char(c) || ++label > 63) {
      return false;
    }
    out += (c >= 'A' && c <= 'Z') ? char(c - 'A' + 'a') : c;
  }
  return label > 0;
}

void trim_spaces(std::string_view& s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
}

}  // namespace

uint16_t parse_rrtype_name(std::string_view text) {
  if (text.empty() || text.size() > 32) return 0;
  unsigned value = 0;
  const char* end = text.data() + text.size();
  if (text.front() >= '0' && text.front() <= '9') {
    auto [p, ec] = std::from_chars(text.data(), end, value);
    return (ec == std::errc() && p == end && value <= 65535) ? uint16_t(value) : 0;
  }
  if (text.size() > 4 && (text.substr(0, 4) == "TYPE" || text.substr(0, 4) == "type")) {
    auto [p, ec] = std::from_chars(text.data() + 4, end, value);
    if (ec == std::errc() && p == end && value <= 65535 && text[4] != '+' && text[4] != '-') return uint16_t(value);
    return 0;
  }
  const std::string name(text);
  // The library's lookup ignores case and also accepts "TYPEnnn" forms,
  // handled above; anything it does not know is 0.
  return uint16_t(ldns_get_rr_type_by_name(name.c_str()));
}

std::string rrtype_name(uint16_t rrtype) {
  const ldns_rr_descriptor* d = ldns_rr_descript(rrtype);
  if (d && d->_name) return d->_name;
  return "TYPE" + std::to_string(rrtype);
}

std::string quoted(std::string_view s) {
  constexpr size_t cut = 60;
  std::string out = "\"";
  out.append(s.substr(0, cut));
  if (s.size() > cut) out += "...";
  escape_control_bytes(out);
  return out + "\"";
}

namespace {
bool control_byte(unsigned char c) { return c < 0x20 || c == 0x7f; }
}  // namespace

bool holds_control_byte(std::string_view text) {
  return std::any_of(text.begin(), text.end(), [](char c) { return control_byte(static_cast<unsigned char>(c)); });
}

void escape_control_bytes(std::string& text) {
  size_t i = 0;
  while (i < text.size() && !control_byte(static_cast<unsigned char>(text[i]))) ++i;
  if (i == text.size()) return;
  std::string out(text, 0, i);
  for (; i < text.size(); ++i) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    if (control_byte(c)) {
      char esc[8];
      snprintf(esc, sizeof esc, "\\%03u", unsigned(c));
      out += esc;
    } else {
      out += char(c);
    }
  }
  text = std::move(out);
}

struct dns_parser::impl {
  ldns_buffer* buf = ldns_buffer_new(512);
  ldns_rdf* root = ldns_dname_new_frm_str(".");
  std::string scratch;

  ~impl() {
    set_last(nullptr);
    ldns_buffer_free(buf);
    ldns_rdf_deep_free(root);
  }

  std::string_view render(const ldns_rdf* rdf) {
    ldns_buffer_clear(buf);
    ldns_rdf2buffer_str(buf, rdf);
    return {reinterpret_cast<const char*>(ldns_buffer_begin(buf)), ldns_buffer_position(buf)};
  }

  // An absolute, lower-cased name's text without its trailing dot.
  void name_text(const ldns_rdf* rdf, std::string& out) {
    std::string_view s = render(rdf);
    if (s.size() > 1 && s.back() == '.') s.remove_suffix(1);
    out.assign(s);
  }

  ldns_rr* last = nullptr;  // the last record parsed or taken over

  void set_last(ldns_rr* rr) {
    if (last) ldns_rr_free(last);
    last = rr;
  }

  // Lower-cases the names in the data and gives its wire form.
  void wire_of(ldns_rr* rr, std::vector<uint8_t>& wire) {
    wire.clear();
    const size_t n = ldns_rr_rd_count(rr);
    for (size_t i = 0; i < n; ++i) {
      ldns_rdf* rdf = ldns_rr_rdf(rr, i);
      if (!rdf) continue;
      if (ldns_rdf_get_type(rdf) == LDNS_RDF_TYPE_DNAME) ldns_dname2canonical(rdf);
      const uint8_t* data = ldns_rdf_data(rdf);
      wire.insert(wire.end(), data, data + ldns_rdf_size(rdf));
    }
  }

  std::string text_of(const ldns_rr* rr) {
    std::string text;
    size_t wire_size = 0;
    const size_t n = ldns_rr_rd_count(rr);
    for (size_t i = 0; i < n; ++i) {
      const ldns_rdf* rdf = ldns_rr_rdf(rr, i);
      if (!rdf) continue;
      wire_size += ldns_rdf_size(rdf);
      std::string_view field = render(rdf);
      if (ldns_rdf_get_type(rdf) == LDNS_RDF_TYPE_DNAME && field.size() > 1 && field.back() == '.') {
        field.remove_suffix(1);
      }
      trim_spaces(field);
      if (field.empty()) continue;
      if (!text.empty()) text += ' ';
      text += field;
    }
    escape_control_bytes(text);
    if (text.empty() && wire_size > 0) {
      // Never an empty key: fall back to the generic form.
      char head[32];
      snprintf(head, sizeof head, "\\# %zu ", wire_size);
      text = head;
      for (size_t i = 0; i < n; ++i) {
        const ldns_rdf* rdf = ldns_rr_rdf(rr, i);
        for (size_t j = 0; rdf && j < ldns_rdf_size(rdf); ++j) {
          snprintf(head, sizeof head, "%02x", ldns_rdf_data(rdf)[j]);
          text += head;
        }
      }
    }
    return text;
  }
};

dns_parser::dns_parser() : impl_(std::make_unique<impl>()) {}
dns_parser::~dns_parser() = default;

bool dns_parser::owner_name(std::string_view text, std::string& out, std::string& err) {
  if (plain_owner_name(text, out)) return true;
  if (text.empty()) {
    err = "empty name";
    return false;
  }
  if (text.find('\0') != std::string_view::npos) {
    err = "name holds a NUL byte";
    return false;
  }
  impl_->scratch.assign(text);
  ldns_rdf* rdf = nullptr;
  // The library takes a name without the final dot as absolute too.
  const ldns_status s = ldns_str2rdf_dname(&rdf, impl_->scratch.c_str());
  if (s != LDNS_STATUS_OK) {
    err = ldns_get_errorstr_by_id(s);
    return false;
  }
  ldns_dname2canonical(rdf);
  impl_->name_text(rdf, out);
  ldns_rdf_deep_free(rdf);
  return true;
}

bool dns_parser::parse_rdata(uint16_t rrtype, std::string_view text, std::vector<uint8_t>& wire,
                             std::string& err) {
  impl_->set_last(nullptr);
  trim_spaces(text);
  if (text.find_first_of(std::string_view("\0\n\r", 3)) != std::string_view::npos) {
    err = "it holds a NUL byte or a line break";
    return false;
  }
  if (text.size() > MAX_RDATA_TEXT) {
    err = "its text is longer than " + std::to_string(MAX_RDATA_TEXT) + " bytes";
    return false;
  }
  std::string& s = impl_->scratch;
  s.assign(". 0 IN TYPE");
  s += std::to_string(rrtype);
  s += ' ';
  s += text;
  ldns_rr* rr = nullptr;
  const ldns_status st = ldns_rr_new_frm_str(&rr, s.c_str(), 0, impl_->root, nullptr);
  if (st != LDNS_STATUS_OK) {
    err = ldns_get_errorstr_by_id(st);
    return false;
  }
  impl_->set_last(rr);
  impl_->wire_of(rr, wire);
  return true;
}

uint16_t dns_parser::take_rr(ldns_rr* rr, std::string& owner, std::vector<uint8_t>& wire) {
  impl_->set_last(rr);
  ldns_rdf* name = ldns_rr_owner(rr);
  ldns_dname2canonical(name);
  impl_->name_text(name, owner);
  impl_->wire_of(rr, wire);
  return uint16_t(ldns_rr_get_type(rr));
}

std::string dns_parser::rdata_text() { return impl_->last ? impl_->text_of(impl_->last) : std::string(); }
