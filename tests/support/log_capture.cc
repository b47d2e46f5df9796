#include "tests/support/log_capture.h"

#include <cstdlib>

#include "log/log.h"

log_capture::log_capture()
    : stream_(open_memstream(&buf_, &len_)), old_stream_(log_get_stream()), old_level_(log_get_level()) {
  log_set_stream(stream_);
  log_set_level(LOG_TRACE);
}

log_capture::~log_capture() {
  log_set_stream(old_stream_);
  log_set_level(old_level_);
  fclose(stream_);
  free(buf_);
}

std::string log_capture::text() {
  fflush(stream_);
  return std::string(buf_, len_);
}
