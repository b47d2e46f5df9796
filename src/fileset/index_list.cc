// The fixed list of index files named on the command line.
#include <memory>
#include <vector>

#include "fileset/data_source.h"
#include "libmy/my_text.h"
#include "log/log.h"
#include "tgdb/tgdb.h"
#include "tgdb/tgdb_merger.h"

namespace {
const char* kind_name(bool rdata) { return rdata ? "rdata" : "rrname"; }
}  // namespace

struct index_list final : data_source {
  std::unique_ptr<tgdb_merger> start(search_context& ctx) override;

  bool rdata = false;  // the kind of every file, set by the first one added
  std::vector<tgdb_ptr> indexes;
};

std::unique_ptr<tgdb_merger> index_list::start(search_context& ctx) {
  if (indexes.empty()) return nullptr;
  auto search = std::make_unique<tgdb_merger>(ctx, rdata);
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
    list.rdata = index->is_rdata();
  } else if (index->is_rdata() != list.rdata) {
    log_printf(LOG_ERROR, "%s file %s rejected from %s file list", kind_name(index->is_rdata()),
               visible_text(path).c_str(), kind_name(list.rdata));
    return false;
  }
  list.indexes.push_back(std::move(index));
  return true;
}

data_source* index_list_data_source(index_list& list) { return &list; }
