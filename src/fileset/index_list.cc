// The fixed list of index files named on the command line.
#include <memory>
#include <vector>

#include "fileset/data_source.h"
#include "libmy/my_text.h"
#include "log/log.h"
#include "tgdb/tgdb.h"
#include "tgdb/tgdb_merger.h"

struct index_list final : data_source {
  std::unique_ptr<tgdb_merger> start(search_context& ctx) override;

  tgdb_kind kind = tgdb_kind::rrname;  // of every file, set by the first one added
  std::vector<tgdb_ptr> indexes;
};

std::unique_ptr<tgdb_merger> index_list::start(search_context& ctx) {
  if (indexes.empty()) return nullptr;
  auto search = std::make_unique<tgdb_merger>(ctx, kind);
  for (const auto& index : indexes) search->add_file(index);
  return search;
}

std::unique_ptr<tgdb_merger> data_source_start(data_source& source, search_context& ctx) { return source.start(ctx); }

void index_list_deleter::operator()(index_list* list) const { delete list; }

index_list_ptr index_list_create() { return index_list_ptr(new index_list); }

bool index_list_add(index_list& list, const char* path) {
  tgdb_ptr index = tgdb_open(path);
  if (!index) return false;
  if (list.indexes.empty()) {
    list.kind = index->kind();
  } else if (index->kind() != list.kind) {
    log_printf(LOG_ERROR, "%s file %s rejected from %s file list", tgdb_kind_name(index->kind()),
               visible_text(path).c_str(), tgdb_kind_name(list.kind));
    return false;
  }
  list.indexes.push_back(std::move(index));
  return true;
}

data_source* index_list_data_source(index_list& list) { return &list; }
