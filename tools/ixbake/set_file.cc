// Listing new index files in a set file that a running search may be
// watching: the new list is written beside it and renamed over it.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <algorithm>
#include <fstream>
#include <sstream>

#include "commit.h"
#include "dns_text.h"
#include "ixbake.h"
#include "libmy/my_path.h"
#include "libmy/my_text.h"
#include "libmy/my_unfinished_file.h"

namespace {

// The absolute path of an existing directory; empty on failure.
std::string real_dir(const std::string& dir) {
  char buf[PATH_MAX];
  return realpath(dir.c_str(), buf) ? std::string(buf) : std::string();
}

// An existing file's path with its directory resolved (the name itself is
// kept, so a symbolic link stays the link).
std::string resolved(const std::string& path) {
  const std::string dir = real_dir(path_dir(path));
  if (dir.empty()) return {};
  return (dir == "/" ? "" : dir) + "/" + path_base(path);
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

}  // namespace

std::string set_file_target(const std::string& setfile, std::string& err) {
  struct stat lst;
  if (lstat(setfile.c_str(), &lst) != 0 || !S_ISLNK(lst.st_mode)) return setfile;
  char buf[PATH_MAX];
  if (!realpath(setfile.c_str(), buf)) {
    err = "cannot follow the link " + setfile + ": " + strerror(errno);
    return {};
  }
  return buf;
}

bool check_set_file(const std::string& setfile, std::string& err) {
  const std::string target = set_file_target(setfile, err);
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
  return check_writable_dir(path_dir(target), err);
}

namespace {

// The set file's text, "" when it does not exist yet; its mode in `st`.
bool read_set_file(const std::string& setfile, std::string& text, bool& exists, struct stat& st, std::string& err) {
  exists = stat(setfile.c_str(), &st) == 0;
  if (!exists) return true;
  std::ifstream in(setfile, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  if (!in) {
    err = "cannot read " + visible_text(setfile) + ": " + strerror(errno);
    return false;
  }
  text = ss.str();
  return true;
}

// Adds the lines naming `paths` to `text`, skipping those listed already
// (resolved the way the search resolves them: relative to the set file's
// directory).
bool add_lines(const std::string& setfile, std::string& text, const std::vector<std::string>& paths,
               std::string& err) {
  const std::string setdir = path_dir(setfile);
  const std::string real_setdir = real_dir(setdir);
  if (real_setdir.empty()) {
    err = "cannot use the directory of " + visible_text(setfile) + ": " + strerror(errno);
    return false;
  }
  std::vector<std::string> listed;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    listed.push_back(resolved(line.starts_with('/') ? line : setdir + "/" + line));
  }
  if (!text.empty() && text.back() != '\n') text += '\n';
  const std::string dir_prefix = real_setdir == "/" ? "/" : real_setdir + "/";
  for (const auto& path : paths) {
    const std::string abs = resolved(path);
    if (abs.empty()) {
      err = "cannot find " + visible_text(path) + ": " + strerror(errno);
      return false;
    }
    if (std::find(listed.begin(), listed.end(), abs) != listed.end()) continue;
    listed.push_back(abs);
    // Names inside the set file's directory stay relative, so the set can move.
    const std::string line = abs.starts_with(dir_prefix) ? abs.substr(dir_prefix.size()) : abs;
    // One line per file: a line feed would make two.
    if (holds_control_byte(line)) {
      err = "cannot list " + visible_text(abs) + " in a set file: its name holds a control character";
      return false;
    }
    text += line + '\n';
  }
  return true;
}

// Writes `text` to a new file beside `target`, with `mode`; its name in `tmp`.
bool write_beside(const std::string& target, const std::string& setfile, const std::string& text, mode_t mode,
                  std::string& tmp, std::string& err) {
  tmp = unfinished_name(target) + ".tmp.XXXXXX";
  const int fd = mkstemp(tmp.data());
  if (fd < 0) {
    err = "cannot create a file beside " + visible_text(setfile) + ": " + strerror(errno);
    tmp.clear();
    return false;
  }
  bool ok = fchmod(fd, mode) == 0 && write_all(fd, text) && fsync(fd) == 0;
  int error = errno;
  if (close(fd) != 0 && ok) {
    ok = false;
    error = errno;
  }
  if (!ok) {
    err = "cannot write " + visible_text(setfile) + ": " + strerror(error);
    unlink(tmp.c_str());
    tmp.clear();
  }
  return ok;
}

}  // namespace

bool prepare_set_file(const std::string& setfile, const std::vector<std::string>& paths, replacement& out,
                      std::string& err) {
  out = {};
  std::string old;
  bool exists = false;
  struct stat st;
  if (!read_set_file(setfile, old, exists, st, err)) return false;
  std::string text = old;
  if (!add_lines(setfile, text, paths, err)) return false;
  if (exists && text == old) return true;
  const std::string target = set_file_target(setfile, err);
  if (target.empty()) return false;
  mode_t mode = st.st_mode & 07777;
  if (!exists) {
    const mode_t mask = umask(0);
    umask(mask);
    mode = 0666 & ~mask;
  }
  out.path = target;
  return write_beside(target, setfile, text, mode, out.tmp, err);
}

bool add_to_set_file(const std::string& setfile, const std::vector<std::string>& paths, std::string& err) {
  replacement r;
  if (!prepare_set_file(setfile, paths, r, err)) return false;
  return r.tmp.empty() || replace_together({r}, err) == replace_result::replaced;
}
