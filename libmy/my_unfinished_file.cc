#include "my_unfinished_file.h"

#include <limits.h>
#include <signal.h>
#include <string.h>
#include <unistd.h>

#include <atomic>

namespace {

// Fixed storage: the handler may only touch memory nothing frees.
enum slot_state : int { FREE, FILLING, SET };
struct slot {
  std::atomic<int> state{FREE};
  char path[PATH_MAX];
};
constexpr int SLOTS = 16;
slot slots[SLOTS];
std::atomic<const char*> interrupt_message{""};

extern "C" void on_signal(int sig) {
  for (slot& s : slots) {
    if (s.state.load() == SET) unlink(s.path);
  }
  const char* text = interrupt_message.load();
  [[maybe_unused]] ssize_t n = write(STDERR_FILENO, text, strlen(text));
  // Die of the signal itself, so whoever started us sees why we stopped.
  signal(sig, SIG_DFL);
  raise(sig);
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
  interrupt_message.store(message);
  struct sigaction sa = {};
  sa.sa_handler = on_signal;
  sigemptyset(&sa.sa_mask);
  for (int sig : {SIGINT, SIGTERM, SIGHUP}) {
    struct sigaction old = {};
    // A signal ignored by whoever started us (nohup, a background job) stays ignored.
    if (sigaction(sig, nullptr, &old) == 0 && old.sa_handler == SIG_IGN) continue;
    sigaction(sig, &sa, nullptr);
  }
}
