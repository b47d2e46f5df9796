#include "tgdb/tgdb_writer.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstring>
#include <utility>

#include "libmy/my_alloc.h"
#include "libmy/my_unfinished_file.h"
#include "libmy/ubuf.h"
#include "tgdb/posting_list.h"
#include "tgdb/tgdb_format.h"

namespace {

constexpr uint64_t MAX_LINE_NUMBER = (uint64_t{1} << 37) - 1;
// Every file this writer makes has a full nref table.
constexpr uint64_t STRING_TABLE_OFFSET = tgdb_string_table_offset(TGDB_NREF_SIZE);

bool fail(std::string* err, std::string text) {
  if (err) *err = std::move(text);
  return false;
}

bool fail_errno(std::string* err, const char* what, const std::string& path) {
  return fail(err, ubuf_fmt("%s %s: %s", what, path.c_str(), strerror(errno)));
}

}  // namespace

struct tgdb_writer::impl {
  std::string path, tmp_path;
  std::unique_ptr<unfinished_file> interrupt_guard;
  tgdb_write_options opts;
  int fd = -1;
  bool finished = false;

  std::vector<char> buf;  // pending output at file offset `pos - buf.size()`
  uint64_t pos = 0;       // file offset after everything buffered

  uint64_t lines = 0;
  uint64_t table_size = 0;
  // The current block of 64 lines: the offsets of its first line and of
  // lines 16, 32 and 48, as far as they exist.
  uint64_t block[4] = {};
  int block_marks = 0;
  std::vector<uint8_t> line_index;
  std::vector<posting_encoder> postings{size_t(TRIGRAM_COUNT)};

  ~impl() {
    if (fd >= 0) close(fd);
    if (!finished && !tmp_path.empty()) unlink(tmp_path.c_str());
  }

  bool flush(std::string* err) {
    size_t done = 0;
    while (done < buf.size()) {
      ssize_t n = write(fd, buf.data() + done, buf.size() - done);
      if (n < 0) {
        if (errno == EINTR) continue;
        return fail_errno(err, "cannot write", tmp_path);
      }
      done += size_t(n);
    }
    buf.clear();
    return true;
  }

  bool emit(const void* data, size_t n, std::string* err) {
    const char* p = static_cast<const char*>(data);
    buf.insert(buf.end(), p, p + n);
    pos += n;
    return buf.size() < (size_t{1} << 20) || flush(err);
  }

  bool pad_to(uint64_t offset, std::string* err) {
    static const char zeros[4096] = {};
    while (pos < offset) {
      size_t n = size_t(std::min<uint64_t>(offset - pos, sizeof zeros));
      if (!emit(zeros, n, err)) return false;
    }
    return true;
  }

  // Records the block's line index entry. Each checkpoint distance counts
  // from where the lookup has got to, in units of two bytes, so an odd
  // distance lands on the newline before the checkpoint line, which the
  // lookup steps over. A distance that does not fit ends the chain.
  void close_block() {
    if (block_marks == 0) return;
    tgdb_line_entry e;
    e.offset = block[0];
    uint64_t reached = block[0];
    for (int j = 1; j < block_marks; ++j) {
      uint64_t d = (block[j] - reached) / 2;
      if (d == 0 || d > 0xffff) break;
      e.half_distance[j - 1] = uint16_t(d);
      reached += 2 * d;
    }
    uint8_t bytes[TGDB_LINE_ENTRY_SIZE];
    tgdb_line_entry_encode(e, bytes);
    line_index.insert(line_index.end(), bytes, bytes + sizeof bytes);
    block_marks = 0;
  }

  // Appends every posting list and fills the nref table and the directory
  // in `head` (the header's part of the file).
  bool write_postings(std::vector<uint8_t>& head, std::string* err) {
    uint8_t* nref = head.data() + TGDB_HEADER_SIZE;
    uint8_t* dir = nref + TGDB_NREF_SIZE;
    for (size_t t = 0; t < size_t(TRIGRAM_COUNT); ++t) {
      posting_encoder& enc = postings[t];
      enc.finish();
      tgdb_put_le(nref + 8 * t, enc.values(), 8);
      if (enc.bytes().empty()) continue;
      tgdb_put_le(dir + TGDB_DIR_ENTRY_SIZE * t, enc.bytes().size() / TGDB_REF_SIZE, 8);
      tgdb_put_le(dir + TGDB_DIR_ENTRY_SIZE * t + 8, pos, 8);
      if (!emit(enc.bytes().data(), enc.bytes().size(), err)) return false;
      std::vector<uint8_t>().swap(enc.bytes());
    }
    return flush(err);
  }

  // Writes the header's part of the file at its start, then moves the file
  // into place.
  bool write_head_and_rename(std::vector<uint8_t>& head, std::string* err) {
    tgdb_header h;
    h.flags = TGDB_FLAG_NREF | tgdb_kind_flags(tgdb_write_kind(opts)) | (opts.has_time_range ? TGDB_FLAG_TIME_RANGE : 0);
    h.nref_length = uint32_t(TGDB_NREF_SIZE);
    h.string_table_size = table_size;
    h.line_index_size = line_index_size;
    h.line_count = lines;
    if (opts.has_time_range) {
      h.first_seen = opts.first_seen;
      h.last_seen = opts.last_seen;
    }
    tgdb_header_encode(h, head.data());
    for (size_t done = 0; done < head.size();) {
      ssize_t n = pwrite(fd, head.data() + done, head.size() - done, off_t(done));
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) return fail_errno(err, "cannot write", tmp_path);
      done += size_t(n);
    }
    if (opts.sync && fsync(fd) != 0) return fail_errno(err, "cannot sync", tmp_path);
    if (close(std::exchange(fd, -1)) != 0) return fail_errno(err, "cannot close", tmp_path);
    if (rename(tmp_path.c_str(), path.c_str()) != 0)
      return fail_errno(err, "cannot rename the index into place at", path);
    finished = true;
    return true;
  }

  uint64_t line_index_size = 0;
};

tgdb_writer::tgdb_writer() = default;
tgdb_writer::~tgdb_writer() = default;

bool tgdb_writer::open(const std::string& path, const tgdb_write_options& opts, std::string* err) {
  impl_ = std::make_unique<impl>();
  impl_->path = path;
  impl_->opts = opts;
  std::string tmp = path + ".tmp.XXXXXX";
  int fd = mkstemp(tmp.data());
  if (fd < 0) {
    impl_.reset();
    return fail_errno(err, "cannot create a temporary file for", path);
  }
  impl_->fd = fd;
  impl_->tmp_path = tmp;
  impl_->interrupt_guard = std::make_unique<unfinished_file>(tmp);
  mode_t mask = umask(0);
  umask(mask);
  if (fchmod(fd, 0666 & ~mask) != 0) {
    fail_errno(err, "cannot set the mode of", tmp);
    impl_.reset();
    return false;
  }
  // The header and directory are written last, once the lists are known.
  if (lseek(fd, off_t(STRING_TABLE_OFFSET), SEEK_SET) < 0) {
    fail_errno(err, "cannot seek in", tmp);
    impl_.reset();
    return false;
  }
  impl_->pos = STRING_TABLE_OFFSET;
  return true;
}

bool tgdb_writer::add(std::string_view line, std::string* err) {
  my_assert(impl_ != nullptr, "tgdb_writer is open");
  impl& w = *impl_;
  const uint64_t n = w.lines;
  if (line.empty()) return fail(err, ubuf_fmt("line %" PRIu64 " is empty", n));
  if (line.find('\n') != std::string_view::npos) return fail(err, ubuf_fmt("line %" PRIu64 " holds a newline", n));
  if (n > MAX_LINE_NUMBER) return fail(err, "too many lines for one index file");
  if (n % TGDB_LINES_PER_ENTRY == 0) w.close_block();
  if (n % TGDB_LINES_PER_CHECKPOINT == 0) w.block[w.block_marks++] = w.table_size;

  for (int32_t id : tgdb_line_trigrams(line)) w.postings[size_t(id)].add(n);

  if (!w.emit(line.data(), line.size(), err) || !w.emit("\n", 1, err)) return false;
  w.table_size += line.size() + 1;
  ++w.lines;
  return true;
}

bool tgdb_writer::finish(std::string* err) {
  my_assert(impl_ != nullptr, "tgdb_writer is open");
  impl& w = *impl_;
  w.close_block();
  const uint64_t p2 = tgdb_line_index_offset(STRING_TABLE_OFFSET, w.table_size);
  if (!w.pad_to(p2, err) || !w.emit(w.line_index.data(), w.line_index.size(), err)) return false;
  w.line_index_size = w.line_index.size();
  std::vector<uint8_t>().swap(w.line_index);
  if (!w.pad_to(tgdb_round_up(p2 + w.line_index_size), err)) return false;

  std::vector<uint8_t> head(TGDB_MIN_SIZE + TGDB_NREF_SIZE, 0);
  if (!w.write_postings(head, err)) return false;
  // With no lines nothing was written past the header's hole.
  if (ftruncate(w.fd, off_t(w.pos)) != 0) return fail_errno(err, "cannot size", w.tmp_path);
  if (!w.write_head_and_rename(head, err)) return false;
  impl_.reset();
  return true;
}

bool tgdb_write(const std::string& path, std::span<const std::string_view> lines, const tgdb_write_options& opts,
                std::string* err) {
  tgdb_writer w;
  if (!w.open(path, opts, err)) return false;
  for (std::string_view line : lines)
    if (!w.add(line, err)) return false;
  return w.finish(err);
}
