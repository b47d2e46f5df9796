#include "commit.h"

#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "libmy/my_text.h"
#include "libmy/my_unfinished_file.h"

namespace {

struct step {
  const replacement* file;
  std::string old;  // the replaced file's other name; empty when there was none
  bool renamed = false;
};

std::string failed(const char* what, const std::string& path) {
  return std::string(what) + " " + visible_text(path) + ": " + strerror(errno);
}

// Keeps the file at `s.file->path`, if any, under a second name.
bool keep_old(step& s, std::string& err) {
  const std::string old = unfinished_name(s.file->path) + ".old";
  unlink(old.c_str());  // ours from an earlier failed try, if any
  if (link(s.file->path.c_str(), old.c_str()) == 0) {
    s.old = old;
    return true;
  }
  if (errno == ENOENT) return true;
  err = failed("cannot keep the file it replaces beside", s.file->path);
  return false;
}

// Puts back what `s` replaced; false with what is left in `err`.
bool undo(const step& s, std::string& err) {
  if (!s.renamed) return true;
  if (s.old.empty() ? unlink(s.file->path.c_str()) == 0 : rename(s.old.c_str(), s.file->path.c_str()) == 0)
    return true;
  err += s.old.empty() ? "; the new file stays at " + visible_text(s.file->path)
                       : "; the old file stays at " + visible_text(s.old) + ", not back at " + visible_text(s.file->path);
  err += std::string(": ") + strerror(errno);
  return false;
}

// Tests stop the run here, between two renames, to interrupt it or to make
// the next rename fail; only the environment variable makes it happen.
void stop_for_tests() {
  if (getenv("IXBAKE_TEST_STOP_BETWEEN_RENAMES")) raise(SIGSTOP);
}

}  // namespace

replace_result replace_together(const std::vector<replacement>& files, std::string& err) {
  std::vector<step> steps;
  bool ok = true;
  for (const auto& f : files) {
    steps.push_back({&f, {}, false});
    if (ok) ok = keep_old(steps.back(), err);
  }
  for (size_t i = 0; ok && i < steps.size(); ++i) {
    if (i == 1) stop_for_tests();
    steps[i].renamed = rename(steps[i].file->tmp.c_str(), steps[i].file->path.c_str()) == 0;
    if (!steps[i].renamed) {
      err = "cannot rename " + visible_text(steps[i].file->tmp) + " to " + visible_text(steps[i].file->path) + ": " +
            strerror(errno);
      ok = false;
    }
  }
  bool all_undone = true;
  for (auto s = steps.rbegin(); !ok && s != steps.rend(); ++s) all_undone = undo(*s, err) && all_undone;
  for (const auto& s : steps) {
    if (!s.old.empty() && (ok || all_undone || !s.renamed)) unlink(s.old.c_str());
    if (!ok) unlink(s.file->tmp.c_str());
  }
  return ok ? replace_result::replaced : all_undone ? replace_result::kept_old : replace_result::mixed;
}
