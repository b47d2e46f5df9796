#include "trigram/trigram.h"

#include <algorithm>
#include <bit>

int trigram_name(int32_t id, char out[4], int32_t bound) {
  if (bound != 0 && (id < 0 || id >= bound)) return -1;
  uint32_t v = static_cast<uint32_t>(id) % static_cast<uint32_t>(TRIGRAM_COUNT);
  out[0] = TRIGRAM_SYMBOL_CHARS[v % TRIGRAM_SYMBOLS];
  out[1] = TRIGRAM_SYMBOL_CHARS[(v / TRIGRAM_SYMBOLS) % TRIGRAM_SYMBOLS];
  out[2] = TRIGRAM_SYMBOL_CHARS[v / (TRIGRAM_SYMBOLS * TRIGRAM_SYMBOLS)];
  out[3] = '\0';
  return 0;
}

std::vector<int32_t> trigram_bitmap::ids() const {
  std::vector<int32_t> out;
  for (size_t w = 0; w < words_.size(); ++w) {
    uint64_t bits = words_[w];
    while (bits) {
      out.push_back(static_cast<int32_t>(w * 64 + std::countr_zero(bits)));
      bits &= bits - 1;
    }
  }
  return out;
}

namespace {

// Calls `emit` with every trigram id of `s` cut as the index cuts keys.
template <typename Emit>
void for_each_literal_trigram(std::string_view s, bool anchored_start, bool anchored_end, Emit emit) {
  const size_t n = s.size();
  const auto c = [&](size_t i) { return static_cast<unsigned char>(s[i]); };
  if (anchored_start && n >= 1) {
    emit(trigram_id('^', '^', c(0)));
    if (n >= 2) emit(trigram_id('^', c(0), c(1)));
  }
  if (anchored_end && n >= 1) {
    emit(trigram_id(c(n - 1), '^', '^'));
    if (n >= 2) emit(trigram_id(c(n - 2), c(n - 1), '^'));
  }
  for (size_t i = 0; i + 2 < n; ++i) emit(trigram_id(c(i), c(i + 1), c(i + 2)));
}

}  // namespace

void add_literal_trigrams(trigram_bitmap& bits, std::string_view s, bool anchored_start,
                          bool anchored_end) {
  for_each_literal_trigram(s, anchored_start, anchored_end, [&](int32_t id) { bits.set(id); });
}

std::vector<int32_t> literal_trigram_ids(std::string_view s, bool anchored_start, bool anchored_end) {
  // Short keys are the common case: collect and sort instead of sweeping a bitmap.
  std::vector<int32_t> ids;
  ids.reserve(s.size() + 4);
  for_each_literal_trigram(s, anchored_start, anchored_end, [&](int32_t id) { ids.push_back(id); });
  std::sort(ids.begin(), ids.end());
  ids.erase(std::unique(ids.begin(), ids.end()), ids.end());
  return ids;
}

trigram_query_ptr literal_trigrams(std::string_view text, bool anchored_start, bool anchored_end) {
  auto q = std::make_shared<trigram_query>();
  q->type = TQ_SET;
  q->ids = literal_trigram_ids(text, anchored_start, anchored_end);
  q->leaves = q->ids.size();
  return q;
}

bool trigram_query_accepts(const trigram_query* q, const trigram_bitmap& present) {
  if (!q) return true;
  switch (q->type) {
    case TQ_SET:
      return std::all_of(q->ids.begin(), q->ids.end(), [&](int32_t id) { return present.test(id); });
    case TQ_UNION: {
      bool any_member = false;
      for (const auto& m : q->members) {
        if (!m) return true;  // an empty branch places no constraint
        any_member = true;
        if (trigram_query_accepts(m.get(), present)) return true;
      }
      return !any_member;
    }
    default:
      return std::all_of(q->members.begin(), q->members.end(),
                         [&](const trigram_query_ptr& m) { return trigram_query_accepts(m.get(), present); });
  }
}
