#include "libmy/my_regular_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace {

const char* what_it_is(mode_t mode) {
  if (S_ISDIR(mode)) return "is a directory";
  if (S_ISFIFO(mode)) return "is a FIFO";
  if (S_ISSOCK(mode)) return "is a socket";
  if (S_ISCHR(mode)) return "is a character device";
  if (S_ISBLK(mode)) return "is a block device";
  return "is not a regular file";
}

}  // namespace

int my_open_regular(const char* path, std::string& why, size_t* size) {
  // Non-blocking, so that opening a FIFO returns at once and fstat can
  // refuse it; reads of a regular file ignore the flag.
  const int fd = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
  if (fd < 0) {
    why = strerror(errno);
    return -1;
  }
  struct stat st;
  if (fstat(fd, &st) != 0) {
    why = strerror(errno);
    close(fd);
    return -1;
  }
  if (!S_ISREG(st.st_mode)) {
    why = what_it_is(st.st_mode);
    close(fd);
    return -1;
  }
  if (size) *size = size_t(st.st_size);
  return fd;
}

bool my_read_regular(const char* path, std::string& out, std::string& why) {
  const int fd = my_open_regular(path, why);
  if (fd < 0) return false;
  out.clear();
  char buf[8192];
  for (;;) {
    const ssize_t n = read(fd, buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      why = strerror(errno);
      close(fd);
      return false;
    }
    if (n == 0) break;
    out.append(buf, size_t(n));
  }
  close(fd);
  return true;
}
