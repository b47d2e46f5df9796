// Listing new index files in a set file that a running search may be
// watching: the new list is written beside it and renamed over it.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "ixbake.h"
#include "libmy/my_unfinished_file.h"

namespace {

std::string dir_of(const std::string& path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

std::string base_of(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

// The absolute path of an existing directory; empty on failure.
std::string real_dir(const std::string& dir) {
  char buf[PATH_MAX];
  return realpath(dir.c_str(), buf) ? std::string(buf) : std::string();
}

// An existing file's path with its directory resolved (the name itself is
// kept, so a symbolic link stays the link).
std::string resolved(const std::string& path) {
  const std::string dir = real_dir(dir_of(path));
  if (dir.empty()) return {};
  return (dir == "/" ? "" : dir) + "/" + base_of(path);
}

bool write_all(int fd, const std::string& data) {
  size_t done = 0;
  while (done < data.size()) {
    const ssize_t n = write(fd, data.data() + done, data.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += size_t(n);
  }
  return true;
}

// The file to replace: a symbolic link's target, so the link keeps
// working. Empty (with `err`) for a link that leads nowhere.
std::string replaced_file(const std::string& setfile, std::string& err) {
  struct stat lst;
  if (lstat(setfile.c_str(), &lst) != 0 || !S_ISLNK(lst.st_mode)) return setfile;
  char buf[PATH_MAX];
  if (!realpath(setfile.c_str(), buf)) {
    err = "cannot follow the link " + setfile + ": " + strerror(errno);
    return {};
  }
  return buf;
}

}  // namespace

bool check_set_file(const std::string& setfile, std::string& err) {
  const std::string target = replaced_file(setfile, err);
  if (target.empty()) return false;
  struct stat st;
  if (stat(target.c_str(), &st) == 0) {
    if (!S_ISREG(st.st_mode)) {
      err = "cannot use " + setfile + " as a set file: not a regular file";
      return false;
    }
    if (access(target.c_str(), R_OK) != 0) {
      err = "cannot read " + setfile + ": " + strerror(errno);
      return false;
    }
  } else if (errno != ENOENT) {
    err = "cannot use " + setfile + ": " + strerror(errno);
    return false;
  }
  return check_writable_dir(dir_of(target), err);
}

bool add_to_set_file(const std::string& setfile, const std::vector<std::string>& paths, std::string& err) {
  std::string old;
  struct stat st;
  const bool exists = stat(setfile.c_str(), &st) == 0;
  if (exists) {
    std::ifstream in(setfile, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    if (!in) {
      err = "cannot read " + setfile + ": " + strerror(errno);
      return false;
    }
    old = ss.str();
  }
  const std::string setdir = dir_of(setfile);
  const std::string real_setdir = real_dir(setdir);
  if (real_setdir.empty()) {
    err = "cannot use the directory of " + setfile + ": " + strerror(errno);
    return false;
  }
  // What is listed already, resolved the way the search resolves it
  // (relative to the set file's directory).
  std::vector<std::string> listed;
  std::istringstream lines(old);
  for (std::string line; std::getline(lines, line);) {
    listed.push_back(resolved(line.starts_with('/') ? line : setdir + "/" + line));
  }
  std::string text = old;
  if (!text.empty() && text.back() != '\n') text += '\n';
  const std::string dir_prefix = real_setdir == "/" ? "/" : real_setdir + "/";
  for (const auto& path : paths) {
    const std::string abs = resolved(path);
    if (abs.empty()) {
      err = "cannot find " + path + ": " + strerror(errno);
      return false;
    }
    bool already = false;
    for (const auto& l : listed) already = already || l == abs;
    if (already) continue;
    listed.push_back(abs);
    // Names inside the set file's directory stay relative, so the set can move.
    text += abs.starts_with(dir_prefix) ? abs.substr(dir_prefix.size()) : abs;
    text += '\n';
  }
  if (exists && text == old) return true;

  const std::string target = replaced_file(setfile, err);
  if (target.empty()) return false;
  std::string tmp = target + ".tmp.XXXXXX";
  const int fd = mkstemp(tmp.data());
  if (fd < 0) {
    err = "cannot create a file beside " + setfile + ": " + strerror(errno);
    return false;
  }
  const unfinished_file guard(tmp);
  mode_t mode = st.st_mode & 07777;
  if (!exists) {
    const mode_t mask = umask(0);
    umask(mask);
    mode = 0666 & ~mask;
  }
  bool ok = fchmod(fd, mode) == 0 && write_all(fd, text) && fsync(fd) == 0;
  const int saved = errno;
  ok = (close(fd) == 0) && ok;
  if (!ok || rename(tmp.c_str(), target.c_str()) != 0) {
    err = "cannot write " + setfile + ": " + strerror(ok ? errno : saved);
    unlink(tmp.c_str());
    return false;
  }
  return true;
}
