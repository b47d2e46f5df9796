#include "tgdb/tgdb_writer.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "libmy/my_alloc.h"
#include "libmy/my_unfinished_file.h"
#include "libmy/ubuf.h"
#include "tgdb/tgdb.h"
#include "trigram/trigram.h"

namespace {

// A run this long is cheaper (or no dearer) as a range than as singles and
// packed entries, and a range can keep growing.
constexpr int RUN_MIN = 5;
constexpr uint64_t MAX_LINE_NUMBER = (uint64_t{1} << 37) - 1;

void set_err(std::string* err, const std::string& text) {
  if (err) *err = text;
}

std::string errno_text(const char* what, const std::string& path) {
  std::string s;
  ubuf_add_fmt(s, "%s %s: %s", what, path.c_str(), strerror(errno));
  return s;
}

void put_le(uint8_t* p, uint64_t v, int bytes) {
  for (int i = 0; i < bytes; ++i) p[i] = uint8_t(v >> (8 * i));
}

}  // namespace

// ---- posting list encoding ----

void posting_encoder::put(uint64_t v) {
  const uint8_t b[5] = {uint8_t(v >> 32), uint8_t(v >> 24), uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)};
  out_.insert(out_.end(), b, b + 5);
}

void posting_encoder::add(uint64_t line) {
  ++values_;
  if (in_run_) {
    if (line == run_end_ + 1) {
      run_end_ = line;
      return;
    }
    put(TGDB_REF_RANGE_START | run_start_);
    put(TGDB_REF_RANGE_END | run_end_);
    in_run_ = false;
    has_base_ = true;
    base_ = run_end_;
  }
  pending_[npending_++] = line;
  if (npending_ == RUN_MIN) drain(false);
}

void posting_encoder::drain(bool final) {
  while (npending_ > 0 && (final || npending_ == RUN_MIN)) {
    int take = 0;
    int run = 1;
    while (run < npending_ && pending_[run] == pending_[run - 1] + 1) ++run;
    if (run >= RUN_MIN) {
      in_run_ = true;
      run_start_ = pending_[0];
      run_end_ = pending_[run - 1];
      take = run;
    } else if (has_base_) {
      // Pack as many of the next values as fit one of the delta layouts.
      uint64_t d[4];
      const int m = npending_ < 4 ? npending_ : 4;
      uint64_t prev = base_;
      for (int i = 0; i < m; ++i) {
        d[i] = pending_[i] - prev;
        prev = pending_[i];
      }
      const auto b8 = [&](int i) { return d[i] <= 0xff; };
      const auto b16 = [&](int i) { return d[i] <= 0xffff; };
      uint64_t flags = 0, low = 0;
      if (m >= 4 && b8(0) && b8(1) && b8(2) && b8(3)) {
        take = 4, flags = 0xF, low = d[0] << 24 | d[1] << 16 | d[2] << 8 | d[3];
      } else if (m >= 3 && b8(0) && b8(1) && b16(2)) {
        take = 3, flags = 0xE, low = d[0] << 24 | d[1] << 16 | d[2];
      } else if (m >= 3 && b8(0) && b16(1) && b8(2)) {
        take = 3, flags = 0xD, low = d[0] << 24 | d[1] << 8 | d[2];
      } else if (m >= 3 && b16(0) && b8(1) && b8(2)) {
        take = 3, flags = 0xB, low = d[0] << 16 | d[1] << 8 | d[2];
      } else if (m >= 2 && b16(0) && b16(1)) {
        take = 2, flags = 0xA, low = d[0] << 16 | d[1];
      } else if (b16(0)) {
        take = 1, flags = 0x8, low = d[0] << 16;
      }
      if (take > 0) {
        put(TGDB_REF_PACKED | flags << 32 | low);
        has_base_ = false;
      }
    }
    if (take == 0) {
      put(pending_[0]);
      has_base_ = true;
      base_ = pending_[0];
      take = 1;
    }
    for (int i = take; i < npending_; ++i) pending_[i - take] = pending_[i];
    npending_ = uint8_t(npending_ - take);
  }
}

void posting_encoder::finish() {
  drain(true);
  if (in_run_) {
    put(TGDB_REF_RANGE_START | run_start_);
    put(TGDB_REF_RANGE_END | run_end_);
    in_run_ = false;
    has_base_ = true;
    base_ = run_end_;
  }
}

std::vector<uint8_t> encode_posting_list(std::span<const uint64_t> lines) {
  posting_encoder enc;
  for (uint64_t v : lines) enc.add(v);
  enc.finish();
  return std::move(enc.bytes());
}

// ---- file writer ----

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
        set_err(err, errno_text("cannot write", tmp_path));
        return false;
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
    uint8_t e[TGDB_LINE_ENTRY_SIZE] = {};
    put_le(e, block[0], 8);
    uint64_t reached = block[0];
    for (int j = 1; j < block_marks; ++j) {
      uint64_t d = (block[j] - reached) / 2;
      if (d == 0 || d > 0xffff) break;
      put_le(e + 8 + 2 * (j - 1), d, 2);
      reached += 2 * d;
    }
    line_index.insert(line_index.end(), e, e + sizeof e);
    block_marks = 0;
  }
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
    set_err(err, errno_text("cannot create a temporary file for", path));
    impl_.reset();
    return false;
  }
  impl_->fd = fd;
  impl_->tmp_path = tmp;
  impl_->interrupt_guard = std::make_unique<unfinished_file>(tmp);
  mode_t mask = umask(0);
  umask(mask);
  if (fchmod(fd, 0666 & ~mask) != 0) {
    set_err(err, errno_text("cannot set the mode of", tmp));
    impl_.reset();
    return false;
  }
  // The header and directory are written last, once the lists are known.
  const uint64_t p1 = tgdb_round_up(TGDB_MIN_SIZE + TGDB_NREF_SIZE);
  if (lseek(fd, off_t(p1), SEEK_SET) < 0) {
    set_err(err, errno_text("cannot seek in", tmp));
    impl_.reset();
    return false;
  }
  impl_->pos = p1;
  return true;
}

bool tgdb_writer::add(std::string_view line, std::string* err) {
  my_assert(impl_ != nullptr, "tgdb_writer is open");
  impl& w = *impl_;
  const uint64_t n = w.lines;
  if (line.empty()) {
    std::string s;
    ubuf_add_fmt(s, "line %lu is empty", n);
    set_err(err, s);
    return false;
  }
  if (line.find('\n') != std::string_view::npos) {
    std::string s;
    ubuf_add_fmt(s, "line %lu holds a newline", n);
    set_err(err, s);
    return false;
  }
  if (n > MAX_LINE_NUMBER) {
    set_err(err, "too many lines for one index file");
    return false;
  }
  if (n % TGDB_LINES_PER_ENTRY == 0) w.close_block();
  if (n % 16 == 0) w.block[w.block_marks++] = w.table_size;

  std::string_view key = line.substr(0, line.find('\t'));
  for (int32_t id : literal_trigram_ids(key, true, true)) w.postings[size_t(id)].add(n);

  if (!w.emit(line.data(), line.size(), err) || !w.emit("\n", 1, err)) return false;
  w.table_size += line.size() + 1;
  ++w.lines;
  return true;
}

bool tgdb_writer::finish(std::string* err) {
  my_assert(impl_ != nullptr, "tgdb_writer is open");
  impl& w = *impl_;
  w.close_block();
  const uint64_t p1 = tgdb_round_up(TGDB_MIN_SIZE + TGDB_NREF_SIZE);
  const uint64_t p2 = tgdb_round_up(p1 + w.table_size);
  if (!w.pad_to(p2, err) || !w.emit(w.line_index.data(), w.line_index.size(), err)) return false;
  const uint64_t index_size = w.line_index.size();
  std::vector<uint8_t>().swap(w.line_index);
  if (!w.pad_to(tgdb_round_up(p2 + index_size), err)) return false;

  std::vector<uint8_t> head(size_t(TGDB_MIN_SIZE + TGDB_NREF_SIZE), 0);
  uint8_t* nref = head.data() + TGDB_HEADER_SIZE;
  uint8_t* dir = nref + TGDB_NREF_SIZE;
  for (size_t t = 0; t < size_t(TRIGRAM_COUNT); ++t) {
    posting_encoder& enc = w.postings[t];
    enc.finish();
    put_le(nref + 8 * t, enc.values(), 8);
    if (enc.bytes().empty()) continue;
    put_le(dir + 16 * t, enc.bytes().size() / TGDB_REF_SIZE, 8);
    put_le(dir + 16 * t + 8, w.pos, 8);
    if (!w.emit(enc.bytes().data(), enc.bytes().size(), err)) return false;
    std::vector<uint8_t>().swap(enc.bytes());
  }
  if (!w.flush(err)) return false;
  // With no lines nothing was written past the header's hole.
  if (ftruncate(w.fd, off_t(w.pos)) != 0) {
    set_err(err, errno_text("cannot size", w.tmp_path));
    return false;
  }

  uint32_t flags = TGDB_FLAG_NREF;
  if (w.opts.rdata) flags |= TGDB_FLAG_RDATA;
  if (w.opts.has_time_range) flags |= TGDB_FLAG_TIME_RANGE;
  memcpy(head.data(), TGDB_MAGIC, sizeof TGDB_MAGIC);
  put_le(head.data() + 8, flags, 4);
  put_le(head.data() + 12, TGDB_NREF_SIZE, 4);
  put_le(head.data() + 16, w.table_size, 8);
  put_le(head.data() + 24, index_size, 8);
  put_le(head.data() + 32, w.lines, 8);
  if (w.opts.has_time_range) {
    put_le(head.data() + 40, w.opts.first_seen, 4);
    put_le(head.data() + 44, w.opts.last_seen, 4);
  }
  size_t done = 0;
  while (done < head.size()) {
    ssize_t n = pwrite(w.fd, head.data() + done, head.size() - done, off_t(done));
    if (n < 0) {
      if (errno == EINTR) continue;
      set_err(err, errno_text("cannot write", w.tmp_path));
      return false;
    }
    done += size_t(n);
  }
  if (w.opts.sync && fsync(w.fd) != 0) {
    set_err(err, errno_text("cannot sync", w.tmp_path));
    return false;
  }
  int fd = w.fd;
  w.fd = -1;
  if (close(fd) != 0) {
    set_err(err, errno_text("cannot close", w.tmp_path));
    return false;
  }
  if (rename(w.tmp_path.c_str(), w.path.c_str()) != 0) {
    set_err(err, errno_text("cannot rename the index into place at", w.path));
    return false;
  }
  w.finished = true;
  impl_.reset();
  return true;
}

bool tgdb_write(const std::string& path, std::span<const std::string_view> lines,
                const tgdb_write_options& opts, std::string* err) {
  tgdb_writer w;
  if (!w.open(path, opts, err)) return false;
  for (std::string_view line : lines)
    if (!w.add(line, err)) return false;
  return w.finish(err);
}
