// The collections a search runs over: a fixed list of index files (-l) or a
// reloadable fileset (-f). Both start searches through data_source.
#pragma once

#include <memory>

struct search_context;
class tgdb_merger;

struct data_source {
  virtual ~data_source() = default;
  // A running search over the source's files, or null when it has none.
  virtual std::unique_ptr<tgdb_merger> start(search_context& ctx) = 0;
};

std::unique_ptr<tgdb_merger> data_source_start(data_source& source, search_context& ctx);

// Owners hold these through unique_ptrs whose deleters live with the types,
// so the front end needs no more than this header.
struct index_list;
struct index_list_deleter {
  void operator()(index_list* list) const;
};
using index_list_ptr = std::unique_ptr<index_list, index_list_deleter>;

index_list_ptr index_list_create();
bool index_list_add(index_list& list, const char* path);
data_source* index_list_data_source(index_list& list);

struct fileset_source;
struct fileset_source_deleter {
  void operator()(fileset_source* source) const;
};
using fileset_source_ptr = std::unique_ptr<fileset_source, fileset_source_deleter>;

fileset_source_ptr fileset_init(const char* path);
data_source* fileset_data_source(fileset_source& source);
