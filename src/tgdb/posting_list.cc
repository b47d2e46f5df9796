#include "tgdb/posting_list.h"

#include <cinttypes>

#include "libmy/ubuf.h"

namespace {

// A run this long is cheaper (or no dearer) as a range than as singles and
// packed entries, and a range can keep growing.
constexpr int RUN_MIN = 5;

}  // namespace

std::vector<std::string> describe_posting_fault(const posting_list& list, uint64_t i, posting_fault fault,
                                                int32_t trigram, uint64_t before) {
  const uint64_t v = list.ref(i);
  switch (fault) {
    case posting_fault::none:
      return {};
    case posting_fault::packed_first:
    case posting_fault::packed_empty:
      return {ubuf_fmt("Unknown error occurred parsing trigram index offset values: %" PRIx64, v)};
    case posting_fault::packed_bad_base:
      return {ubuf_fmt("Error: trigram index(%d) reference(@%" PRIu64
                       ") offset values pointed back to bad value: %" PRIx64,
                       trigram, i, list.ref(i - 1))};
    case posting_fault::packed_zero_delta:
      return {ubuf_fmt("Error: trigram index reference(@%" PRIu64 ") packed values do not ascend: %" PRIx64, i, v)};
    case posting_fault::range_end_first: {
      char name[4];
      trigram_name(trigram, name);
      std::vector<std::string> lines{ubuf_fmt("Error: trigram index reference contained bad start value: %" PRIx64
                                              " (%s) @ %" PRIu64 "/%zu",
                                              v, name, i, size_t(list.count))};
      for (uint64_t back = 1; back <= 2 && back <= i; ++back)
        lines.push_back(ubuf_fmt(" + prev ref @ %" PRIu64 " was %" PRIx64, i - back, list.ref(i - back)));
      return lines;
    }
    case posting_fault::range_missing_end:
      return {"Error: trigram index reference was missing range end value"};
    case posting_fault::range_bad_end:
      return {ubuf_fmt("Error: trigram index reference had bad range end value: %" PRIx64, list.ref(i + 1))};
    case posting_fault::range_reversed:
      return {ubuf_fmt("Error: trigram index reference(@%" PRIu64 ") range ends before it starts: %" PRIx64 " %" PRIx64,
                       i, v, list.ref(i + 1))};
    case posting_fault::descending:
      return {ubuf_fmt("Error: trigram index reference(@%" PRIu64 ") does not ascend: %" PRIx64
                       " next to line %" PRIu64,
                       i, v, before)};
  }
  return {};
}

void posting_encoder::put(uint64_t v) {
  const uint8_t b[5] = {uint8_t(v >> 32), uint8_t(v >> 24), uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)};
  out_.insert(out_.end(), b, b + 5);
}

void posting_encoder::put_run() {
  put(TGDB_REF_RANGE_START | run_start_);
  put(TGDB_REF_RANGE_END | run_end_);
  in_run_ = false;
  has_base_ = true;
  base_ = run_end_;
}

void posting_encoder::add(uint64_t line) {
  ++values_;
  if (in_run_) {
    if (line == run_end_ + 1) {
      run_end_ = line;
      return;
    }
    put_run();
  }
  pending_[npending_++] = line;
  if (npending_ == RUN_MIN) drain(false);
}

// How many of the pending values one packed entry after base_ can hold
// (0: none), with the entry in `entry`.
int posting_encoder::pack(uint64_t& entry) const {
  uint64_t d[4] = {};
  const int m = npending_ < 4 ? npending_ : 4;
  uint64_t prev = base_;
  for (int i = 0; i < m; ++i) {
    d[i] = pending_[i] - prev;
    prev = pending_[i];
  }
  const auto b8 = [&](int i) { return d[i] <= 0xff; };
  const auto b16 = [&](int i) { return d[i] <= 0xffff; };
  int take = 0;
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
  entry = TGDB_REF_PACKED | flags << 32 | low;
  return take;
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
      uint64_t entry;
      take = pack(entry);
      if (take > 0) {
        put(entry);
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
  if (in_run_) put_run();
}

std::vector<uint8_t> encode_posting_list(std::span<const uint64_t> lines) {
  posting_encoder enc;
  for (uint64_t v : lines) enc.add(v);
  enc.finish();
  return std::move(enc.bytes());
}
