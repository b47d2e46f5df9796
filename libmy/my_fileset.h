// A sorted list of the files named in a set file, one name a line, kept in
// step with that file. A reload after the set file changed (inode or
// modification second) keeps the entries still listed, loads each newly
// listed file in line order and afterwards unloads each file no longer
// listed in name order. Relative names are taken against the set file's
// directory. Timing and locking are the caller's business.
#pragma once

#include <sys/types.h>

#include <algorithm>
#include <ctime>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

template <class Data>
struct fileset_entry {
  bool keep = false;  // during a reload: taken over by the new list
  std::string fname;  // the path as built from the set file
  Data data{};        // what the load callback returned
};

// The set file itself: its path, its directory and the identity it had when
// it was last read.
class my_fileset_setfile {
 public:
  // The set file must exist: a missing one is a fatal assertion.
  explicit my_fileset_setfile(std::string setfile);

  // The paths the set file lists, in line order, when its inode or
  // modification second differ from the last call's. The new identity is
  // stored before the file is read, so a file that cannot be opened is not
  // tried again until it changes once more. Nothing when it did not change,
  // cannot be read, or cannot be found (that is written to standard error).
  std::optional<std::vector<std::string>> read_if_changed();

  const std::string& path() const { return setfile_; }
  const std::string& dir() const { return setdir_; }

 private:
  ino_t setfile_ino_ = 0;
  time_t setfile_mtime_ = 0;
  std::string setfile_;
  std::string setdir_;
};

// `Data` is what a load gives for one file (an opened handle, say); it must
// be copyable, as entries listed again share their old data.
template <class Data>
class my_fileset {
 public:
  using entry = fileset_entry<Data>;
  using load_fn = std::function<Data(const std::string& path)>;
  using unload_fn = std::function<void(const std::string& path, Data& data)>;

  // Reads nothing yet: the first reload does. Either callback may be empty.
  my_fileset(std::string setfile, load_fn load, unload_fn unload)
      : setfile_(std::move(setfile)), load_(std::move(load)), unload_(std::move(unload)) {}
  my_fileset(const my_fileset&) = delete;
  my_fileset& operator=(const my_fileset&) = delete;
  // Unloads every entry, in name order.
  ~my_fileset() {
    for (entry& e : entries_)
      if (unload_) unload_(e.fname, e.data);
  }

  void reload() {
    auto paths = setfile_.read_if_changed();
    if (!paths) return;
    std::vector<entry> fresh;
    fresh.reserve(paths->size());
    for (std::string& path : *paths) {
      entry e;
      if (entry* old = find(path)) {
        old->keep = true;
        e.data = old->data;
      } else if (load_) {
        e.data = load_(path);
      }
      e.fname = std::move(path);
      fresh.push_back(std::move(e));
    }
    std::stable_sort(fresh.begin(), fresh.end(),
                     [](const entry& a, const entry& b) { return a.fname < b.fname; });
    for (entry& old : entries_)
      if (!old.keep && unload_) unload_(old.fname, old.data);
    entries_ = std::move(fresh);
  }

  // The entry at `index` in name order, or null past the end.
  const entry* get(size_t index) const { return index < entries_.size() ? &entries_[index] : nullptr; }
  size_t size() const { return entries_.size(); }
  const std::string& setfile() const { return setfile_.path(); }
  const std::string& setdir() const { return setfile_.dir(); }

 private:
  entry* find(const std::string& path) {
    size_t low = 0, high = entries_.size();
    while (low < high) {
      const size_t middle = (low + high) / 2;
      const int c = path.compare(entries_[middle].fname);
      if (c == 0) return &entries_[middle];
      if (c < 0) {
        high = middle;
      } else {
        low = middle + 1;
      }
    }
    return nullptr;
  }

  my_fileset_setfile setfile_;
  load_fn load_;
  unload_fn unload_;
  std::vector<entry> entries_;  // sorted by fname
};
