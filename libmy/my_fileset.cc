#include "libmy/my_fileset.h"

#include <libgen.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "libmy/my_alloc.h"
#include "libmy/my_regular_file.h"
#include "libmy/my_text.h"

my_fileset_setfile::my_fileset_setfile(std::string setfile) : setfile_(std::move(setfile)) {
  struct stat st;
  my_assert(stat(setfile_.c_str(), &st) == 0, "path_exists(setfile)");
  std::string copy = setfile_;
  setdir_ = dirname(copy.data());
}

std::optional<std::vector<std::string>> my_fileset_setfile::read_if_changed() {
  struct stat st;
  if (stat(setfile_.c_str(), &st) != 0) {
    fprintf(stderr, "%s: stat('%s') failed: %s\n", "setfile_updated", visible_text(setfile_).c_str(), strerror(errno));
    return std::nullopt;
  }
  if (st.st_ino == setfile_ino_ && st.st_mtime == setfile_mtime_) return std::nullopt;
  setfile_ino_ = st.st_ino;
  setfile_mtime_ = st.st_mtime;

  // Only a regular file is read: a FIFO put in its place must not block.
  std::string text, why;
  if (!my_read_regular(setfile_.c_str(), text, why)) {
    fprintf(stderr, "%s: cannot read '%s': %s\n", "setfile_updated", visible_text(setfile_).c_str(), why.c_str());
    return std::nullopt;
  }
  std::vector<std::string> paths;
  // Only the line feed is taken off: a carriage return or blanks stay part of the name.
  for (size_t at = 0; at < text.size();) {
    const size_t nl = std::min(text.find('\n', at), text.size());
    const std::string_view line = std::string_view(text).substr(at, nl - at);
    std::string path;
    if (line.empty() || line[0] != '/') path = setdir_ + "/";
    path += line;
    paths.push_back(std::move(path));
    at = nl + 1;
  }
  return paths;
}
