// The search deadline. Candidate sources call deadline_check before every
// step; when the deadline has passed and the time-out callback refuses to go
// on, it throws search_timeout, which the merger catches at the start of the
// step it is running. Everything on the way is RAII, so nothing leaks.
#pragma once

#include "trigram/search_context.h"

struct search_timeout {};

void deadline_check(search_context& ctx);
