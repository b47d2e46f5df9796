#include "json_record.h"

#include <simdjson.h>

#include "dns_text.h"

namespace sj = simdjson;
namespace dom = simdjson::dom;

namespace {

bool get_time(dom::element v, const char* name, uint32_t& out, std::string& err) {
  uint64_t t = 0;
  if (v.get_uint64().get(t) != sj::SUCCESS || t > UINT32_MAX) {
    err = std::string("\"") + name + "\" must be a whole number of seconds from 0 to 4294967295";
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
  bool have_name = false, have_type = false, have_rdata = false, have_first = false, have_last = false,
       have_count = false;
  for (dom::key_value_pair field : object) {
    const std::string_view key = field.key;
    const dom::element value = field.value;
    if (key == "rrname") {
      if (value.get_string().get(out.rrname) != sj::SUCCESS) {
        err = "\"rrname\" must be a string";
        return false;
      }
      have_name = true;
    } else if (key == "rrtype") {
      if (!get_type(value, out.rrtype, err)) return false;
      have_type = true;
    } else if (key == "rdata") {
      out.rdata.clear();
      if (!get_rdata(value, out.rdata, err)) return false;
      have_rdata = true;
    } else if (key == "time_first") {
      if (!get_time(value, "time_first", out.time_first, err)) return false;
      have_first = true;
    } else if (key == "time_last") {
      if (!get_time(value, "time_last", out.time_last, err)) return false;
      have_last = true;
    } else if (key == "count") {
      if (value.get_uint64().get(out.count) != sj::SUCCESS || out.count == 0) {
        err = "\"count\" must be a positive integer";
        return false;
      }
      have_count = true;
    }
  }
  const char* missing = !have_name ? "rrname" : !have_type ? "rrtype" : !have_rdata ? "rdata"
                      : !have_first ? "time_first" : !have_last ? "time_last" : !have_count ? "count" : nullptr;
  if (missing) {
    err = std::string("missing \"") + missing + "\"";
    return false;
  }
  if (out.time_last < out.time_first) {
    err = "\"time_last\" is before \"time_first\"";
    return false;
  }
  return true;
}
