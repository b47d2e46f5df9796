#include "input.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <cerrno>
#include <cstring>

namespace {
constexpr size_t READ_SIZE = size_t{1} << 20;
constexpr size_t RAW_SIZE = size_t{256} << 10;
constexpr unsigned char GZIP_MAGIC[2] = {0x1f, 0x8b};
constexpr char BYTE_ORDER_MARK[] = "\xef\xbb\xbf";
}  // namespace

// Our own gzip decoding rather than zlib's file layer: that one silently
// ignores whatever follows the last compressed member, losing records.
struct input_reader::inflater {
  z_stream zs{};
  std::vector<unsigned char> raw = std::vector<unsigned char>(RAW_SIZE);
  bool in_member = false;
  bool raw_end = false;
  inflater() { inflateInit2(&zs, 16 + MAX_WBITS); }
  ~inflater() { inflateEnd(&zs); }
};

input_reader::input_reader() = default;

input_reader::~input_reader() {
  if (fd_ >= 0) close(fd_);
}

std::unique_ptr<input_reader> input_reader::open(const std::string& path, std::string& err) {
  std::unique_ptr<input_reader> r(new input_reader());
  const bool is_stdin = path == "-";
  r->name_ = is_stdin ? "<stdin>" : path;
  r->fd_ = is_stdin ? dup(STDIN_FILENO) : ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (r->fd_ < 0) {
    err = "cannot open " + r->name_ + ": " + strerror(errno);
    return nullptr;
  }
  struct stat st;
  if (fstat(r->fd_, &st) == 0 && S_ISDIR(st.st_mode)) {
    err = "cannot read " + r->name_ + ": it is a directory";
    return nullptr;
  }
  r->mtime_ = (!is_stdin && S_ISREG(st.st_mode)) ? st.st_mtime : time(nullptr);
  r->buf_.resize(READ_SIZE + CHUNK_PADDING);
  // The first two bytes say whether the input is compressed.
  while (r->end_ < 2) {
    const ssize_t n = r->read_raw(r->buf_.data() + r->end_, 2 - r->end_);
    if (n < 0) {
      err = r->error_;
      return nullptr;
    }
    if (n == 0) break;
    r->end_ += size_t(n);
  }
  if (r->end_ == 2 && memcmp(r->buf_.data(), GZIP_MAGIC, 2) == 0) {
    r->z_ = std::make_unique<inflater>();
    memcpy(r->z_->raw.data(), r->buf_.data(), 2);
    r->z_->zs.next_in = r->z_->raw.data();
    r->z_->zs.avail_in = 2;
    r->end_ = 0;
  }
  r->bytes_ = r->end_;
  if (r->peek(3) == BYTE_ORDER_MARK) r->begin_ += 3;
  return r;
}

ssize_t input_reader::read_raw(void* dst, size_t n) {
  for (;;) {
    const ssize_t got = ::read(fd_, dst, n);
    if (got >= 0) return got;
    if (errno == EINTR) continue;
    error_ = "cannot read " + name_ + ": " + strerror(errno);
    return -1;
  }
}

bool input_reader::fill() {
  if (eof_ || failed()) return false;
  if (begin_ > 0) {
    memmove(buf_.data(), buf_.data() + begin_, end_ - begin_);
    end_ -= begin_;
    begin_ = 0;
  }
  if (buf_.size() - end_ < READ_SIZE + CHUNK_PADDING) buf_.resize(end_ + READ_SIZE + CHUNK_PADDING);
  if (z_) return fill_compressed();
  const ssize_t n = read_raw(buf_.data() + end_, READ_SIZE);
  if (n <= 0) {
    eof_ = n == 0;
    return false;
  }
  end_ += size_t(n);
  bytes_ += size_t(n);
  return true;
}

bool input_reader::fill_compressed() {
  z_stream& zs = z_->zs;
  zs.next_out = reinterpret_cast<unsigned char*>(buf_.data() + end_);
  zs.avail_out = unsigned(READ_SIZE);
  // Reads more raw bytes, keeping the unread ones; false on a read error.
  const auto more_raw = [&] {
    memmove(z_->raw.data(), zs.next_in, zs.avail_in);
    zs.next_in = z_->raw.data();
    const ssize_t n = read_raw(z_->raw.data() + zs.avail_in, RAW_SIZE - zs.avail_in);
    if (n < 0) return false;
    z_->raw_end = n == 0;
    zs.avail_in += unsigned(n);
    return true;
  };
  while (zs.avail_out == READ_SIZE) {
    if (!z_->in_member) {
      // Between members: another one, or the end, or trailing junk.
      while (zs.avail_in < 2 && !z_->raw_end) {
        if (!more_raw()) return false;
      }
      if (zs.avail_in == 0) {
        eof_ = true;
        return false;
      }
      if (zs.avail_in < 2 || memcmp(zs.next_in, GZIP_MAGIC, 2) != 0) {
        error_ = "cannot read " + name_ + ": data follows the end of the compressed stream";
        return false;
      }
      inflateReset(&zs);
      z_->in_member = true;
    }
    if (zs.avail_in == 0) {
      if (!more_raw()) return false;
      if (z_->raw_end) {
        error_ = "cannot read " + name_ + ": unexpected end of file";
        return false;
      }
    }
    const int rc = inflate(&zs, Z_NO_FLUSH);
    if (rc == Z_STREAM_END) {
      z_->in_member = false;
    } else if (rc != Z_OK && rc != Z_BUF_ERROR) {
      error_ = "cannot read " + name_ + ": " + (zs.msg ? zs.msg : "invalid compressed data");
      return false;
    }
  }
  const size_t n = READ_SIZE - zs.avail_out;
  end_ += n;
  bytes_ += n;
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

bool input_reader::next_bytes(std::string_view& bytes) {
  if (begin_ == end_ && !fill()) return false;
  bytes = {buf_.data() + begin_, end_ - begin_};
  begin_ = end_;
  return true;
}

bool input_reader::next_chunk(line_chunk& chunk, size_t target) {
  chunk.first_line = line_no_ + 1;
  chunk.data.clear();
  chunk.line_numbers.clear();
  std::string_view line;
  while (chunk.data.size() < target && next_line(line)) {
    chunk.data.insert(chunk.data.end(), line.begin(), line.end());
    chunk.data.push_back('\n');
  }
  chunk.size = chunk.data.size();
  chunk.data.resize(chunk.size + CHUNK_PADDING, '\0');
  return chunk.size > 0;
}
