#include "json_record.h"

#include <simdjson.h>

#include <optional>

#include "dns_text.h"
#include "libmy/my_time.h"

namespace sj = simdjson;
namespace dom = simdjson::dom;

namespace {

// Seconds since the epoch, or an ISO 8601 text, within 32 bits.
bool get_time(dom::element v, const char* name, uint32_t& out, std::string& err) {
  uint64_t t = 0;
  std::string_view text;
  int64_t iso = 0;
  bool ok = v.get_uint64().get(t) == sj::SUCCESS;
  if (!ok && v.get_string().get(text) == sj::SUCCESS && parse_iso_time(text, iso) && iso >= 0) {
    t = uint64_t(iso);
    ok = true;
  }
  if (!ok || t > UINT32_MAX) {
    err = std::string("\"") + name +
          "\" must be a whole number of seconds from 0 to 4294967295, or an ISO 8601 time from 1970 to 2106";
    return false;
  }
  out = uint32_t(t);
  return true;
}

bool get_type(dom::element v, uint16_t& out, std::string& err) {
  const dom::element_type type = v.type();
  if (type == dom::element_type::INT64 || type == dom::element_type::UINT64 || type == dom::element_type::DOUBLE) {
    uint64_t n = 0;
    if (v.get_uint64().get(n) != sj::SUCCESS || n == 0 || n > 65535) {
      err = "\"rrtype\" must be a type number from 1 to 65535";
      return false;
    }
    out = uint16_t(n);
    return true;
  }
  std::string_view text;
  if (v.get_string().get(text) != sj::SUCCESS) {
    err = "\"rrtype\" must be a string or a number";
    return false;
  }
  out = parse_rrtype_name(text);
  if (out == 0) {
    err = "unknown record type " + quoted(text);
    return false;
  }
  return true;
}

bool get_rdata(dom::element v, std::vector<std::string_view>& out, std::string& err) {
  const char* bad = "\"rdata\" must be a string or an array of strings";
  const dom::element_type type = v.type();
  std::string_view text;
  if (type == dom::element_type::STRING) {
    if (v.get_string().get(text) != sj::SUCCESS) {
      err = bad;
      return false;
    }
    out.push_back(text);
    return true;
  }
  dom::array array;
  if (type != dom::element_type::ARRAY || v.get_array().get(array) != sj::SUCCESS) {
    err = bad;
    return false;
  }
  for (dom::element element : array) {
    if (element.get_string().get(text) != sj::SUCCESS) {
      err = bad;
      return false;
    }
    out.push_back(text);
  }
  if (out.empty()) {
    err = "\"rdata\" is an empty array";
    return false;
  }
  return true;
}

}  // namespace

struct json_line_parser::impl {
  dom::parser parser;
};

json_line_parser::json_line_parser() : impl_(std::make_unique<impl>()) {}
json_line_parser::~json_line_parser() = default;

size_t json_line_parser::padding() { return sj::SIMDJSON_PADDING; }

namespace {

// The members an observation is made of; others are ignored.
struct members {
  std::optional<dom::element> rrname, rrtype, rdata, count;
  std::optional<dom::element> time_first, time_last, zone_time_first, zone_time_last;
};

members find_members(dom::object object) {
  members m;
  for (dom::key_value_pair field : object) {
    const std::string_view key = field.key;
    for (auto [name, slot] : {std::pair{"rrname", &m.rrname}, {"rrtype", &m.rrtype}, {"rdata", &m.rdata},
                              {"count", &m.count}, {"time_first", &m.time_first}, {"time_last", &m.time_last},
                              {"zone_time_first", &m.zone_time_first}, {"zone_time_last", &m.zone_time_last}}) {
      if (key == name) *slot = field.value;
    }
  }
  return m;
}

// A time from its own member, else from the zone's one; `used` names the one read.
bool pick_time(const std::optional<dom::element>& own, const char* own_name, const std::optional<dom::element>& zone,
               const char* zone_name, const char*& used, uint32_t& out, std::string& err) {
  if (!own && !zone) {
    err = std::string("missing \"") + own_name + "\"";
    return false;
  }
  used = own ? own_name : zone_name;
  return get_time(own ? *own : *zone, used, out, err);
}

bool get_count(const std::optional<dom::element>& v, uint64_t& out, std::string& err) {
  if (!v) {
    out = 1;  // a feed that does not count: each observation was seen once
    return true;
  }
  if (v->get_uint64().get(out) != sj::SUCCESS || out == 0) {
    err = "\"count\" must be a positive integer";
    return false;
  }
  return true;
}

bool read_members(const members& m, json_record& out, std::string& err) {
  const char* missing = !m.rrname ? "rrname" : !m.rrtype ? "rrtype" : !m.rdata ? "rdata" : nullptr;
  if (missing) {
    err = std::string("missing \"") + missing + "\"";
    return false;
  }
  if (m.rrname->get_string().get(out.rrname) != sj::SUCCESS) {
    err = "\"rrname\" must be a string";
    return false;
  }
  const char *first = nullptr, *last = nullptr;
  if (!get_type(*m.rrtype, out.rrtype, err) || !get_rdata(*m.rdata, out.rdata, err) ||
      !pick_time(m.time_first, "time_first", m.zone_time_first, "zone_time_first", first, out.time_first, err) ||
      !pick_time(m.time_last, "time_last", m.zone_time_last, "zone_time_last", last, out.time_last, err) ||
      !get_count(m.count, out.count, err))
    return false;
  if (out.time_last < out.time_first) {
    err = std::string("\"") + last + "\" is before \"" + first + "\"";
    return false;
  }
  return true;
}

}  // namespace

bool json_line_parser::parse(const char* line, size_t length, size_t capacity, json_record& out, std::string& err) {
  out = json_record{};
  dom::element doc;
  // The buffer's own bytes serve as padding when there are enough of them.
  const bool copy = capacity < length + sj::SIMDJSON_PADDING;
  if (auto e = impl_->parser.parse(reinterpret_cast<const uint8_t*>(line), length, copy).get(doc)) {
    err = std::string("not valid JSON (") + sj::error_message(e) + ")";
    return false;
  }
  dom::object object;
  if (doc.get_object().get(object) != sj::SUCCESS) {
    err = "not a JSON object";
    return false;
  }
  return read_members(find_members(object), out, err);
}
