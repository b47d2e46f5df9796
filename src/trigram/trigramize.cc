#include "trigram/trigramize.h"

#include "log/log.h"
#include "reparse/reparse.h"
#include "trigram/extract.h"
#include "trigram/fixup.h"
#include "trigram/permute.h"

namespace {

void log_query(int level, const char* heading, const trigram_query* q) {
  if (!log_enabled(level)) return;
  log_printf(level, "%s", heading);
  if (q)
    trigram_query_print(q, 0);
  else
    log_printf(level, "(no trigram filter)");
  log_printf(level, "%s", "");
}

}  // namespace

trigram_query_ptr trigramize(const char* expression, std::optional<std::string>* pattern_out, int* status_out,
                             std::string* error_out, bool is_glob) {
  if (status_out) *status_out = 0;
  if (error_out) error_out->clear();
  const char* kind = is_glob ? "glob" : "regex";

  std::string message;
  re_elem_ptr tree = is_glob ? glob_parse(expression, &message) : regex_parse(expression, &message);
  if (!tree) {
    if (!message.empty())
      log_printf(LOG_DEBUG, "Error parsing %s expression: %s", kind, message.c_str());
    else
      log_printf(LOG_DEBUG, "Unknown occurred while parsing %s expression!", kind);
    if (error_out) *error_out = std::move(message);
    if (status_out) *status_out = is_glob ? TRIGRAMIZE_GLOB_ERROR : TRIGRAMIZE_REGEX_ERROR;
    return nullptr;
  }

  if (log_enabled(LOG_TRACE)) {
    log_printf(LOG_TRACE, "--- start debug");
    re_elem_dump(tree.get(), LOG_TRACE);
    log_printf(LOG_TRACE, "--- end orig");
  }

  std::optional<std::string> pattern;
  if (pattern_out) {
    pattern = re_elem_serialize(*tree);
    if (*pattern != expression)
      log_printf(is_glob ? LOG_DEBUG : LOG_INFO, "search expression {%s} converted to {%s}", expression,
                 pattern->c_str());
  }

  trigram_query_ptr query;
  tree = reduce_permutations(std::move(tree));
  if (!tree) {
    message = "Unexpected error in permutation reduction.";
  } else {
    tree = fixup_tree(std::move(tree));
    if (!tree) {
      message = "Unexpected error in processing search expression.";
    } else if (log_enabled(LOG_TRACE)) {
      re_elem_dump(tree.get(), LOG_TRACE);
      log_printf(LOG_TRACE, "--- end fixup");
    }
  }
  if (!tree) {
    log_printf(LOG_DEBUG, "%s", message.c_str());
  } else {
    query = extract_trigrams(*tree, &message);
    tree.reset();
    if (!query && !message.empty()) log_printf(LOG_DEBUG, "Error in trigramization: %s", message.c_str());
  }
  if (error_out) *error_out = message;

  log_query(LOG_TRACE, "--- pre-optimized result:", query.get());
  query = trigram_query_reduce(query);
  if (pattern_out) *pattern_out = std::move(pattern);
  log_query(LOG_DEBUG, "--- final result:", query.get());

  if (!query) log_printf(LOG_DEBUG, "Warning: overly broad expression fell back to table scan {%s}", expression);
  return query;
}
