// The Boolean filter over trigrams that the index evaluates before a line is
// confirmed: unions and intersections whose leaves are trigram sets.
#pragma once

#include <cstdint>
#include <memory>
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
