// The Boolean filter over trigrams that the index evaluates before a line is
// confirmed: unions and intersections whose leaves are trigram sets.
//
// A null query, and any node without ids or members, places no constraint:
// every line passes it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

enum trigram_query_type : uint32_t {
  TQ_UNION = 0,         // any member matches
  TQ_SET = 1,           // every listed trigram occurs ("intersection[s]")
  TQ_INTERSECTION = 2,  // every member matches ("intersection[c]")
};

struct trigram_query;
using trigram_query_ptr = std::unique_ptr<trigram_query>;

struct trigram_query {
  uint32_t type = TQ_UNION;
  std::vector<trigram_query_ptr> members;  // TQ_UNION and TQ_INTERSECTION; may hold nulls
  std::vector<int32_t> ids;                // TQ_SET

  // Member count of a union or intersection, id count of a set.
  size_t count() const { return type == TQ_SET ? ids.size() : members.size(); }
};

class trigram_bitmap;

// A new node. A union gets n member slots, each filled with a new node of
// `member_type` sized `member_count` when that is non-zero (null otherwise);
// a set gets n zero ids; an intersection n null member slots; any other type
// nothing.
trigram_query_ptr trigram_query_create(uint32_t type, size_t n, uint32_t member_type = TQ_UNION,
                                       size_t member_count = 0);

// Adds k slots (null members or zero ids) to the node's array. Null is ignored.
void trigram_query_grow(trigram_query* q, size_t k);

// A set of the indexes of the set bits among the first `nbits` bits of
// `bits` (bit i is bit i % 8 of byte i / 8), ascending. Bits beyond the
// buffer are not read.
trigram_query_ptr trigram_query_from_bitmap(std::span<const uint8_t> bits, size_t nbits);
trigram_query_ptr trigram_query_from_bitmap(const trigram_bitmap& bits);

// A union with one single-trigram set per set bit, ascending.
trigram_query_ptr trigram_query_union_from_bitmap(std::span<const uint8_t> bits, size_t nbits);
trigram_query_ptr trigram_query_union_from_bitmap(const trigram_bitmap& bits);

// A new set holding the sorted, distinct union of two sets' ids; null unless
// both are sets.
trigram_query_ptr trigram_query_merge(const trigram_query* a, const trigram_query* b);

// Pulls the trigrams common to every member of a union of sets out in front:
// (x AND a) OR (x AND b) becomes x AND (a OR b). Returns the union unchanged
// when nothing is common or it is not a union of sets.
trigram_query_ptr trigram_query_factor(trigram_query_ptr u);

// Id count of the node's first member when that is a set, else 0.
size_t trigram_query_first_set_size(const trigram_query* q);

// Releases the tree and nulls the pointer.
inline void trigram_query_free(trigram_query_ptr& q) { q.reset(); }

// Writes the tree to the log stream, one prefixed line per node, indented by
// depth. `bound` (an index's trigram count, 0 for none) limits which ids are
// decoded. The caller decides whether the log level allows it.
void trigram_query_print(const trigram_query* q, int depth, int32_t bound = 0);

// Compact one-line form: "{O=type/count:ids or members}".
std::string trigram_query_to_text(const trigram_query* q);
