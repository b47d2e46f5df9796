// Reading inputs: a file or standard input, plain or gzip-compressed
// (recognised by content), as lines or as chunks of whole lines. A UTF-8
// byte-order mark at the start is dropped.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

// Bytes of zeros after a chunk's lines, so parsers that read ahead in
// blocks stay inside the buffer.
inline constexpr size_t CHUNK_PADDING = 64;
// Lines longer than this are skipped as bad records rather than buffered.
inline constexpr size_t MAX_LINE = size_t{16} << 20;

struct line_chunk {
  uint64_t first_line = 0;  // number of the chunk's first line (1-based)
  std::vector<char> data;   // lines, each ended by '\n', then CHUNK_PADDING zeros
  size_t size = 0;          // bytes of lines
  // Each line's number, when they do not simply count up from first_line
  // (records cut out of a document rather than lines of it).
  std::vector<uint64_t> line_numbers;

  uint64_t line_number(size_t index) const {
    return line_numbers.empty() ? first_line + index : line_numbers[index];
  }
};

class input_reader {
 public:
  ~input_reader();
  input_reader(const input_reader&) = delete;
  input_reader& operator=(const input_reader&) = delete;

  // Opens `path` ("-" is standard input). Null with a message in `err`.
  static std::unique_ptr<input_reader> open(const std::string& path, std::string& err);

  // The name for messages: the path, or "<stdin>".
  const std::string& name() const { return name_; }
  // The file's modification time, or the current time for a stream.
  time_t mtime() const { return mtime_; }

  // Called with the number of each line longer than MAX_LINE (it is skipped).
  void on_long_line(std::function<void(uint64_t)> f) { long_line_ = std::move(f); }

  // Up to `n` bytes of what is to come, for recognising the format.
  std::string_view peek(size_t n);

  // The next line without its line feed (or a CR before it); valid until
  // the next call. False at the end or on a read error.
  bool next_line(std::string_view& line);
  // The number of the line last returned.
  uint64_t line_number() const { return line_no_; }

  // The next bytes, as many as are at hand (reading more when none are);
  // valid until the next call. False at the end or on a read error.
  bool next_bytes(std::string_view& bytes);

  // Fills `chunk` with whole lines, about `target` bytes (at least one line
  // unless at the end). False when nothing was left.
  bool next_chunk(line_chunk& chunk, size_t target);

  // A read or decompression error ends the input; this says what it was.
  bool failed() const { return !error_.empty(); }
  const std::string& error() const { return error_; }
  uint64_t bytes_read() const { return bytes_; }

 private:
  struct inflater;
  input_reader();
  // Reads more into the buffer; false at the end or on error.
  bool fill();
  bool fill_compressed();
  // Raw bytes of the file: the count, 0 at its end, -1 on error (recorded).
  ssize_t read_raw(void* dst, size_t n);

  std::string name_;
  time_t mtime_ = 0;
  int fd_ = -1;
  std::unique_ptr<inflater> z_;  // null for plain input
  bool eof_ = false;
  std::string error_;
  std::vector<char> buf_;
  size_t begin_ = 0, end_ = 0;  // unread bytes are buf_[begin_, end_)
  uint64_t line_no_ = 0;
  uint64_t bytes_ = 0;
  std::function<void(uint64_t)> long_line_;
};
