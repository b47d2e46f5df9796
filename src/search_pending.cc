// Placeholder search driver until the search stages land.
#include "log/log.h"
#include "search.h"

bool run_search(const search_options&, const char*) {
  log_printf(LOG_ERROR, "Error dispatching search: empty data source");
  return false;
}
