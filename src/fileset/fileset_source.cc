// The data source that follows a set file: the files it lists are loaded
// and unloaded as it changes, checked at most every few seconds.
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>

#include "fileset/data_source.h"
#include "libmy/my_alloc.h"
#include "libmy/my_fileset.h"
#include "libmy/my_time.h"
#include "log/log.h"
#include "tgdb/tgdb.h"
#include "tgdb/tgdb_merger.h"

namespace {
const char* kind_name(bool rdata) { return rdata ? "rdata" : "rrname"; }
}  // namespace

struct fileset_source final : data_source {
  using handle = std::shared_ptr<const tgdb>;

  explicit fileset_source(const char* path);
  std::unique_ptr<tgdb_merger> start(search_context& ctx) override;

  std::string name;  // the set file's path as given
  bool rdata = false;
  bool kind_known = false;  // fixed by the first file ever accepted
  int64_t reload_interval = 5;
  timespec last_reload{};
  // Written around a reload, read while a search collects the handles; a
  // search keeps its handles after the lock is released.
  std::shared_mutex lock;
  // Declared last: destroying it unloads every file, which logs `name`.
  std::unique_ptr<my_fileset<handle>> files;
};

namespace {

fileset_source::handle fileset_load_file(fileset_source& source, const std::string& path) {
  log_printf(LOG_DEBUG, "Fileset %s loading %s", source.name.c_str(), path.c_str());
  if (access(path.c_str(), R_OK) != 0) {
    log_printf(LOG_ERROR, "Fileset %s: cannot read %s: %s", source.name.c_str(), path.c_str(), strerror(errno));
    return nullptr;
  }
  fileset_source::handle index = tgdb_open(path.c_str());
  if (!index) return nullptr;
  if (!source.kind_known) {
    source.rdata = index->is_rdata();
    source.kind_known = true;
    return index;
  }
  if (index->is_rdata() == source.rdata) return index;
  // Stays listed without a handle until the set file changes again.
  log_printf(LOG_ERROR, "%s file %s rejected from %s fileset %s", kind_name(index->is_rdata()), path.c_str(),
             kind_name(source.rdata), source.name.c_str());
  return nullptr;
}

void fileset_unload_file(fileset_source& source, const std::string& path, fileset_source::handle& index) {
  log_printf(LOG_DEBUG, "Fileset %s unloading %s", source.name.c_str(), path.c_str());
  index.reset();
}

// Looks at the set file only when more than reload_interval whole seconds
// have passed since the last look, so that a stream of searches does not
// stat it every time.
void fileset_reload(fileset_source& source) {
  const timespec now = my_time_now();
  if (now.tv_sec - source.last_reload.tv_sec <= source.reload_interval) return;
  my_assert(source.files != nullptr, "f->fs != NULL");
  {
    std::unique_lock guard(source.lock);
    source.files->reload();
  }
  source.last_reload = now;
}

}  // namespace

fileset_source::fileset_source(const char* path) : name(path) {
  files = std::make_unique<my_fileset<handle>>(
      name, [this](const std::string& file) { return fileset_load_file(*this, file); },
      [this](const std::string& file, handle& index) { fileset_unload_file(*this, file, index); });
}

std::unique_ptr<tgdb_merger> fileset_source::start(search_context& ctx) {
  // Reloaded before the search takes the kind, so that the first file ever
  // accepted already decides the kind of this search.
  fileset_reload(*this);
  auto search = search_create(ctx, rdata);
  size_t added = 0;
  {
    std::shared_lock guard(lock);
    for (size_t i = 0; const auto* entry = files->get(i); ++i) {
      if (!entry->data) continue;  // failed to load or rejected
      search_add_index(*search, entry->data);
      ++added;
    }
  }
  if (added == 0) return nullptr;
  return search;
}

void fileset_source_deleter::operator()(fileset_source* source) const { delete source; }

fileset_source_ptr fileset_init(const char* path) {
  if (!path) return nullptr;
  fileset_source_ptr source(new fileset_source(path));
  log_printf(LOG_INFO, "Loading fileset: %s", path);
  fileset_reload(*source);
  return source;
}

data_source* fileset_data_source(fileset_source& source) { return &source; }
