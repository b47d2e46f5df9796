#include "input.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <cerrno>
#include <cstring>

namespace {
constexpr size_t READ_SIZE = size_t{1} << 20;

// zlib's message, without the "<fd:N>: " it puts in front.
std::string gz_message(gzFile gz) {
  int code = 0;
  std::string text = gzerror(gz, &code);
  if (code == Z_ERRNO) return strerror(errno);
  if (text.starts_with("<fd:") && text.find(": ") != std::string::npos) text.erase(0, text.find(": ") + 2);
  return text;
}
}  // namespace

input_reader::~input_reader() {
  if (gz_) gzclose(static_cast<gzFile>(gz_));
}

std::unique_ptr<input_reader> input_reader::open(const std::string& path, std::string& err) {
  std::unique_ptr<input_reader> r(new input_reader());
  const bool is_stdin = path == "-";
  r->name_ = is_stdin ? "<stdin>" : path;
  int fd = is_stdin ? dup(STDIN_FILENO) : ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    err = "cannot open " + r->name_ + ": " + strerror(errno);
    return nullptr;
  }
  struct stat st;
  if (fstat(fd, &st) == 0 && S_ISDIR(st.st_mode)) {
    close(fd);
    err = "cannot read " + r->name_ + ": it is a directory";
    return nullptr;
  }
  r->mtime_ = (!is_stdin && S_ISREG(st.st_mode)) ? st.st_mtime : time(nullptr);
  // zlib reads plain data through unchanged, so one path serves both.
  gzFile gz = gzdopen(fd, "rb");
  if (!gz) {
    close(fd);
    err = "cannot read " + r->name_ + ": out of memory";
    return nullptr;
  }
  gzbuffer(gz, 256 * 1024);
  r->gz_ = gz;
  r->buf_.resize(READ_SIZE + CHUNK_PADDING);
  return r;
}

bool input_reader::fill() {
  if (eof_ || failed()) return false;
  if (begin_ > 0) {
    memmove(buf_.data(), buf_.data() + begin_, end_ - begin_);
    end_ -= begin_;
    begin_ = 0;
  }
  if (buf_.size() - end_ < READ_SIZE) buf_.resize(end_ + READ_SIZE);
  auto* gz = static_cast<gzFile>(gz_);
  const int n = gzread(gz, buf_.data() + end_, unsigned(READ_SIZE));
  if (n < 0) {
    error_ = "cannot read " + name_ + ": " + gz_message(gz);
    return false;
  }
  if (n == 0) {
    int code = 0;
    gzerror(gz, &code);
    // A truncated compressed stream ends without its trailer.
    if (code != Z_OK) error_ = "cannot read " + name_ + ": " + gz_message(gz);
    eof_ = true;
    return false;
  }
  end_ += size_t(n);
  bytes_ += size_t(n);
  return true;
}

std::string_view input_reader::peek(size_t n) {
  while (end_ - begin_ < n && fill()) {
  }
  return {buf_.data() + begin_, std::min(n, end_ - begin_)};
}

bool input_reader::next_line(std::string_view& line) {
  size_t scanned = 0;  // bytes after begin_ known to hold no line feed
  bool too_long = false;
  for (;;) {
    const char* nl = static_cast<const char*>(
        memchr(buf_.data() + begin_ + scanned, '\n', end_ - begin_ - scanned));
    if (!nl) {
      scanned = end_ - begin_;
      if (scanned > MAX_LINE) {
        // Drop what is buffered of an overlong line; keep looking for its end.
        too_long = true;
        begin_ = end_;
        scanned = 0;
      }
      if (fill()) continue;
      // After a read error what is left is not a line but a fragment.
      if (failed() || (end_ == begin_ && !too_long)) return false;
      // The end: what is left is the last line.
    }
    const char* base = buf_.data();
    const size_t stop = nl ? size_t(nl - base) : end_;
    line = too_long ? std::string_view() : std::string_view(base + begin_, stop - begin_);
    begin_ = nl ? stop + 1 : end_;
    ++line_no_;
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    // An overlong line comes back empty, so line numbers stay right.
    if (too_long && long_line_) long_line_(line_no_);
    return true;
  }
}

bool input_reader::next_chunk(line_chunk& chunk, size_t target) {
  chunk.first_line = line_no_ + 1;
  chunk.data.clear();
  std::string_view line;
  while (chunk.data.size() < target && next_line(line)) {
    chunk.data.insert(chunk.data.end(), line.begin(), line.end());
    chunk.data.push_back('\n');
  }
  chunk.size = chunk.data.size();
  chunk.data.resize(chunk.size + CHUNK_PADDING, '\0');
  return chunk.size > 0;
}
