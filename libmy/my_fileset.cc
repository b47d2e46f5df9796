#include "libmy/my_fileset.h"

#include <libgen.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>

#include "libmy/my_alloc.h"

my_fileset_setfile::my_fileset_setfile(std::string setfile) : setfile_(std::move(setfile)) {
  struct stat st;
  my_assert(stat(setfile_.c_str(), &st) == 0, "path_exists(setfile)");
  std::string copy = setfile_;
  setdir_ = dirname(copy.data());
}

std::optional<std::vector<std::string>> my_fileset_setfile::read_if_changed() {
  struct stat st;
  if (stat(setfile_.c_str(), &st) != 0) {
    fprintf(stderr, "%s: stat('%s') failed: %s\n", "setfile_updated", setfile_.c_str(), strerror(errno));
    return std::nullopt;
  }
  if (st.st_ino == setfile_ino_ && st.st_mtime == setfile_mtime_) return std::nullopt;
  setfile_ino_ = st.st_ino;
  setfile_mtime_ = st.st_mtime;

  std::ifstream in(setfile_, std::ios::binary);
  if (!in) return std::nullopt;
  std::vector<std::string> paths;
  // Only the line feed is taken off: a carriage return or blanks stay part of the name.
  for (std::string line; std::getline(in, line);) {
    std::string path;
    if (line.empty() || line[0] != '/') path = setdir_ + "/";
    path += line;
    paths.push_back(std::move(path));
  }
  return paths;
}
