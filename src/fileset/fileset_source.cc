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
#include "libmy/my_text.h"
#include "libmy/my_time.h"
#include "log/log.h"
#include "tgdb/tgdb.h"
#include "tgdb/tgdb_merger.h"

namespace {

// What a listed file gave: an index, or none because it is of the other
// kind (it cannot hold an answer) or because it could not be loaded (then
// no search can be complete until the set file changes).
struct listed_file {
  tgdb_ptr index;
  bool unloadable = false;
};
}  // namespace

struct fileset_source final : data_source {
  explicit fileset_source(const char* path);
  std::unique_ptr<tgdb_merger> start(search_context& ctx) override;

  std::string name;  // the set file's path as given
  tgdb_kind kind = tgdb_kind::rrname;
  bool kind_known = false;  // fixed by the first file ever accepted
  int64_t reload_interval = 5;
  timespec last_reload{};
  // Written around a reload, read while a search collects the handles; a
  // search keeps its handles after the lock is released.
  std::shared_mutex lock;
  // Declared last: destroying it unloads every file, which logs `name`.
  std::unique_ptr<my_fileset<listed_file>> files;
};

namespace {

listed_file fileset_load_file(fileset_source& source, const std::string& path) {
  const std::string shown = visible_text(path), set = visible_text(source.name);
  log_printf(LOG_DEBUG, "Fileset %s loading %s", set.c_str(), shown.c_str());
  if (access(path.c_str(), R_OK) != 0) {
    log_printf(LOG_ERROR, "Fileset %s: cannot read %s: %s", set.c_str(), shown.c_str(), strerror(errno));
    return {nullptr, true};
  }
  tgdb_ptr index = tgdb_open(path.c_str());
  if (!index) return {nullptr, true};
  if (!source.kind_known) {
    source.kind = index->kind();
    source.kind_known = true;
    return {index};
  }
  if (index->kind() == source.kind) return {index};
  // Stays listed without a handle until the set file changes again.
  log_printf(LOG_ERROR, "%s file %s rejected from %s fileset %s", tgdb_kind_name(index->kind()), shown.c_str(),
             tgdb_kind_name(source.kind), set.c_str());
  return {};
}

void fileset_unload_file(fileset_source& source, const std::string& path, listed_file& file) {
  log_printf(LOG_DEBUG, "Fileset %s unloading %s", visible_text(source.name).c_str(), visible_text(path).c_str());
  file.index.reset();
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
  files = std::make_unique<my_fileset<listed_file>>(
      name, [this](const std::string& file) { return fileset_load_file(*this, file); },
      [this](const std::string& file, listed_file& listed) { fileset_unload_file(*this, file, listed); });
}

std::unique_ptr<tgdb_merger> fileset_source::start(search_context& ctx) {
  // Reloaded before the search takes the kind, so that the first file ever
  // accepted already decides the kind of this search.
  fileset_reload(*this);
  auto search = std::make_unique<tgdb_merger>(ctx, kind);
  size_t added = 0;
  {
    std::shared_lock guard(lock);
    for (size_t i = 0; const auto* entry = files->get(i); ++i) {
      const listed_file& file = entry->data;
      if (file.index) {
        search->add_file(file.index);
        ++added;
      } else if (file.unloadable) {
        // Without it the answer would look whole while it is not.
        log_printf(LOG_ERROR, "Fileset %s: %s could not be loaded, so this search is incomplete",
                   visible_text(name).c_str(), visible_text(entry->fname).c_str());
        search->file_failed();
      }
    }
  }
  if (added == 0) return nullptr;
  return search;
}

void fileset_source_deleter::operator()(fileset_source* source) const { delete source; }

fileset_source_ptr fileset_init(const char* path) {
  if (!path) return nullptr;
  fileset_source_ptr source(new fileset_source(path));
  log_printf(LOG_INFO, "Loading fileset: %s", visible_text(path).c_str());
  fileset_reload(*source);
  return source;
}

data_source* fileset_data_source(fileset_source& source) { return &source; }
