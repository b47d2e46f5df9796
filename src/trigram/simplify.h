// Rewrites a trigram query into a smaller tree that accepts exactly the same
// lines, so that fewer posting lists need combining. Every rewrite is logged
// at the detail level.
#pragma once

#include "trigram/trigram_query.h"

// One bottom-up pass. Consumes `node` and returns its replacement: the same
// record, another one, or null when the branch places no constraint.
trigram_query_ptr trigram_query_simplify(trigram_query_ptr node);

// The full simplification: a pass, removal of union members implied by
// others, and a second pass. Null means no trigram filter; the result never
// holds null members or nodes without ids or members.
trigram_query_ptr trigram_query_reduce(trigram_query_ptr query);
