#include "my_unfinished_file.h"

#include <dirent.h>
#include <limits.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <string.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <mutex>
#include <thread>

#include "my_path.h"

namespace {

// Fixed storage: the slots are read while other threads come and go.
enum slot_state : int { FREE, FILLING, SET };
struct slot {
  std::atomic<int> state{FREE};
  char path[PATH_MAX];
};
constexpr int SLOTS = 16;
slot slots[SLOTS];
std::atomic<const char*> interrupt_message{""};
// Held by an interrupts_held, and by the interrupt, which keeps it to the end.
std::mutex hold;
sigset_t interrupts;
// The interrupt has been taken (set before it leaves the pending set).
std::atomic<bool> interrupted{false};

// Called with `hold` locked.
[[noreturn]] void end_by(int sig) {
  for (slot& s : slots) {
    if (s.state.load() == SET) unlink(s.path);
  }
  const char* text = interrupt_message.load();
  [[maybe_unused]] ssize_t n = write(STDERR_FILENO, text, strlen(text));
  // Die of the signal itself, so whoever started us sees why we stopped.
  signal(sig, SIG_DFL);
  sigset_t one;
  sigemptyset(&one);
  sigaddset(&one, sig);
  pthread_sigmask(SIG_UNBLOCK, &one, nullptr);
  raise(sig);
  _exit(128 + sig);
}

// Waits for a signal without taking it, then takes `hold`, then the signal:
// so until `hold` is ours the signal stays pending, where an interrupts_held
// ending can see it.
void wait_for_interrupt() {
  const int fd = signalfd(-1, &interrupts, SFD_CLOEXEC);
  pollfd ready{fd, POLLIN, 0};
  for (;;) {
    if (fd >= 0 && poll(&ready, 1, -1) <= 0) continue;
    const std::lock_guard lock(hold);
    interrupted = true;
    signalfd_siginfo info;
    int sig = 0;
    if (fd >= 0) {
      if (read(fd, &info, sizeof info) == sizeof info) end_by(int(info.ssi_signo));
    } else if (sigwait(&interrupts, &sig) == 0) {
      end_by(sig);
    }
    interrupted = false;
  }
}

bool interrupt_pending() {
  sigset_t pending;
  if (sigpending(&pending) != 0) return false;
  for (int sig : {SIGINT, SIGTERM, SIGHUP}) {
    if (sigismember(&interrupts, sig) && sigismember(&pending, sig)) return true;
  }
  return false;
}

// The process `pid` is gone (a pid we may not signal still runs).
bool process_gone(const std::string& digits) {
  long pid = 0;
  const auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), pid);
  if (ec != std::errc() || end != digits.data() + digits.size() || pid <= 0 || pid > INT_MAX) return false;
  return pid != getpid() && kill(pid_t(pid), 0) != 0 && errno == ESRCH;
}

}  // namespace

unfinished_file::unfinished_file(const std::string& path) : slot_(-1) {
  if (path.size() >= PATH_MAX) return;
  for (int i = 0; i < SLOTS; ++i) {
    int expected = FREE;
    if (!slots[i].state.compare_exchange_strong(expected, FILLING)) continue;
    memcpy(slots[i].path, path.c_str(), path.size() + 1);
    slots[i].state.store(SET);
    slot_ = i;
    return;
  }
}

unfinished_file::~unfinished_file() {
  if (slot_ >= 0) slots[slot_].state.store(FREE);
}

void remove_unfinished_files_on_signal(const char* message) {
  static std::once_flag once;
  std::call_once(once, [message] {
    interrupt_message.store(message);
    sigemptyset(&interrupts);
    for (int sig : {SIGINT, SIGTERM, SIGHUP}) {
      struct sigaction old = {};
      // A signal ignored by whoever started us (nohup, a background job) stays ignored.
      if (sigaction(sig, nullptr, &old) == 0 && old.sa_handler == SIG_IGN) continue;
      sigaddset(&interrupts, sig);
    }
    pthread_sigmask(SIG_BLOCK, &interrupts, nullptr);
    std::thread(wait_for_interrupt).detach();
  });
}

void set_interrupt_message(const char* message) { interrupt_message.store(message); }

interrupts_held::interrupts_held() { hold.lock(); }

interrupts_held::~interrupts_held() {
  hold.unlock();
  // An interrupt that came meanwhile ends the process now: going on could
  // end it with a status that says all went well.
  while (interrupted || interrupt_pending()) std::this_thread::sleep_for(std::chrono::milliseconds(10));
}

std::string unfinished_name(const std::string& path) { return path + ".partial." + std::to_string(getpid()); }

std::vector<std::string> remove_stale_unfinished_files(const std::string& path) {
  std::vector<std::string> removed;
  const std::string dir = path_dir(path), prefix = path_base(path) + ".partial.";
  DIR* d = opendir(dir.c_str());
  if (!d) return removed;
  while (const dirent* e = readdir(d)) {
    const std::string name = e->d_name;
    if (!name.starts_with(prefix)) continue;
    const size_t pid_end = name.find('.', prefix.size());
    if (!process_gone(name.substr(prefix.size(), pid_end == std::string::npos ? pid_end : pid_end - prefix.size())))
      continue;
    const std::string stale = path.find('/') == std::string::npos ? name : dir == "/" ? "/" + name : dir + "/" + name;
    if (unlink(stale.c_str()) == 0) removed.push_back(stale);
  }
  closedir(d);
  return removed;
}
