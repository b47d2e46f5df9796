#include "trigram/matcher.h"

#include "libmy/ubuf.h"
#include "log/log.h"
#include "reparse/reparse.h"
#include "trigram/trigramize.h"

namespace {

bool fail(std::string* error_out, std::string message) {
  if (error_out) *error_out = std::move(message);
  return false;
}

}  // namespace

bool compile_pattern(const std::optional<std::string>& message_pattern, hs_database_ptr& database,
                     hs_scratch_ptr& scratch, const char* pattern, std::string* error_out) {
  hs_platform_info_t platform;
  if (hs_populate_platform(&platform) != HS_SUCCESS)
    return fail(error_out, "Internal regexp initialization error: platform");
  database.reset();
  hs_database_t* db = nullptr;
  hs_compile_error_t* compile_error = nullptr;
  if (hs_compile(pattern, MATCHER_FLAGS, HS_MODE_BLOCK, &platform, &db, &compile_error) != HS_SUCCESS) {
    std::string message;
    ubuf_add_fmt(message, "Internal regexp error: %s (%s)", compile_error ? compile_error->message : "",
                 message_pattern ? message_pattern->c_str() : "(null)");
    hs_free_compile_error(compile_error);
    return fail(error_out, std::move(message));
  }
  database.reset(db);
  scratch.reset();
  hs_scratch_t* s = nullptr;
  if (hs_alloc_scratch(db, &s) != HS_SUCCESS) return fail(error_out, "Internal regexp initialization error: scratch");
  scratch.reset(s);
  return true;
}

bool compile_search(search_match& ctx, const char* expression, bool is_glob, int* status_out,
                    std::string* error_out) {
  std::string local_error;
  std::string* error = error_out ? error_out : &local_error;
  ctx.query = trigramize(expression, &ctx.pattern, status_out, error, is_glob);
  if (!ctx.query && !error->empty()) {
    log_printf(LOG_DEBUG, "Error in decomposition: %s", error->c_str());
    return false;
  }
  if (!ctx.pattern) return false;  // only a parse failure leaves no pattern
  return compile_pattern(ctx.pattern, ctx.databases[0], ctx.scratches[0], ctx.pattern->c_str(), error);
}

bool compile_exclude(search_match& ctx, const char* expression, bool is_glob, std::string* error_out) {
  std::string message;
  re_elem_ptr tree = is_glob ? glob_parse(expression, &message) : regex_parse(expression, &message);
  if (!tree) return fail(error_out, std::move(message));
  ctx.exclude_pattern = re_elem_serialize(*tree);
  tree.reset();
  return compile_pattern(ctx.pattern, ctx.databases[1], ctx.scratches[1], ctx.exclude_pattern->c_str(), error_out);
}

int match_callback(unsigned int, unsigned long long, unsigned long long, unsigned int, void* context) {
  *static_cast<unsigned char*>(context) = 1;
  return 1;  // the first match decides
}

bool match_line(search_match& ctx, const char* data, size_t length) {
  if (!ctx.databases[0]) return true;
  unsigned char matched = 0, excluded = 0;
  hs_scan(ctx.databases[0].get(), data, static_cast<unsigned int>(length), 0, ctx.scratches[0].get(), match_callback,
          &matched);
  if (!matched) return false;
  if (ctx.databases[1])
    hs_scan(ctx.databases[1].get(), data, static_cast<unsigned int>(length), 0, ctx.scratches[1].get(), match_callback,
            &excluded);
  return !excluded;
}
