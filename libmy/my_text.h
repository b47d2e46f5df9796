// Text for messages.
#pragma once

#include <string>
#include <string_view>

// `text` with invisible and control bytes made visible, so that a file name
// ending in a carriage return shows as "x.rrname.tgdb\r": \t, \n, \r, \\ and
// \xHH for other bytes outside printable ASCII.
std::string visible_text(std::string_view text);
