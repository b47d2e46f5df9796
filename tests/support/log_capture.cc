#include "tests/support/log_capture.h"

#include <cstdlib>

log_capture::log_capture(int level) : stream_(open_memstream(&buf_, &len_)) {
  log_context_push();
  log_set_stream(stream_);
  log_set_level(level);
  log_set_prefix_text("");
}

log_capture::~log_capture() {
  log_context_pop();
  fclose(stream_);
  free(buf_);
}

std::string log_capture::text() {
  fflush(stream_);
  return std::string(buf_, len_);
}
