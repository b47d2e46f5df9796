// PROVISIONAL (replaced when the matcher lands): compiles the expression as
// typed, with no trigram query (every search is a table scan).
#include "trigram/matcher.h"

#include "reparse/reparse.h"

namespace {
int on_match(unsigned int, unsigned long long, unsigned long long, unsigned int, void* ctx) {
  *static_cast<bool*>(ctx) = true;
  return 1;
}
}  // namespace

bool compile_search(search_context& ctx, const char* expression, bool is_glob, int*, std::string* error_out) {
  std::string err;
  re_elem_ptr tree = is_glob ? glob_parse(expression, &err) : regex_parse(expression, &err);
  if (!tree) {
    if (error_out) *error_out = err;
    return false;
  }
  ctx.pattern = re_elem_serialize(*tree);
  hs_platform_info_t platform;
  hs_populate_platform(&platform);
  hs_database_t* db = nullptr;
  hs_compile_error_t* ce = nullptr;
  if (hs_compile(ctx.pattern->c_str(), 25, HS_MODE_BLOCK, &platform, &db, &ce) != HS_SUCCESS) {
    if (error_out) *error_out = std::string("Internal regexp error: ") + ce->message;
    hs_free_compile_error(ce);
    return false;
  }
  ctx.databases[0].reset(db);
  hs_scratch_t* s = nullptr;
  hs_alloc_scratch(db, &s);
  ctx.scratches[0].reset(s);
  return true;
}

bool match_line(search_context& ctx, const char* data, size_t length) {
  if (!ctx.databases[0]) return true;
  bool matched = false;
  hs_scan(ctx.databases[0].get(), data, static_cast<unsigned>(length), 0, ctx.scratches[0].get(), on_match, &matched);
  return matched;
}

void free_search_context(std::unique_ptr<search_context>& ctx) { ctx.reset(); }
