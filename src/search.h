// Runs one expression from compilation to the last printed result.
#pragma once

#include "cli.h"

// True when the search ran (also when it timed out or hit the limit); false
// when the expression did not compile, the data source yielded no search, or
// some index file's part of it failed (the results printed are then partial).
bool run_search(const search_options& options, const char* expression);
