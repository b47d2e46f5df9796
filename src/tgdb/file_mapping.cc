#include "tgdb/file_mapping.h"

#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <utility>

namespace {

// The guard's table, read by the signal handler: fixed-size and lock-free,
// since the handler may allocate nothing and take no lock. A slot is
// claimed, filled, then published through `used`.
struct guarded {
  std::atomic<bool> claimed{false};
  std::atomic<bool> used{false};
  std::atomic<uintptr_t> begin{0}, end{0};
  std::atomic<uintptr_t> text_begin{0}, text_end{0};
  std::atomic<bool> lost{false};
};

// The kernel's default limit of mappings per process is just below this.
constexpr size_t CAPACITY = size_t{1} << 16;
guarded slots[CAPACITY];
std::atomic<size_t> slots_bound{0};  // no slot at or above it was ever claimed
const std::atomic<bool> never_lost{false};
uintptr_t page_size = 4096;
struct sigaction previous_action;
std::once_flag install_once;

// Hands a fault that is not ours to whoever handled SIGBUS before; with no
// handler, restores the default so that the retried read ends the process
// as it would have.
void pass_on(int sig, siginfo_t* info, void* context) {
  const struct sigaction& prev = previous_action;
  if ((prev.sa_flags & SA_SIGINFO) && prev.sa_sigaction) {
    prev.sa_sigaction(sig, info, context);
    return;
  }
  if (!(prev.sa_flags & SA_SIGINFO) && prev.sa_handler != SIG_DFL && prev.sa_handler != SIG_IGN) {
    prev.sa_handler(sig);
    return;
  }
  struct sigaction dfl {};
  dfl.sa_handler = SIG_DFL;
  sigaction(SIGBUS, &dfl, nullptr);
}

bool replace_page(const guarded& g, uintptr_t addr) {
  const uintptr_t page = addr & ~(page_size - 1);
  void* p = mmap(reinterpret_cast<void*>(page), page_size, PROT_READ | PROT_WRITE,
                 MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0);
  if (p == MAP_FAILED) return false;
  const uintptr_t from = std::max(page, g.text_begin.load(std::memory_order_relaxed));
  const uintptr_t to = std::min(page + page_size, g.text_end.load(std::memory_order_relaxed));
  if (from < to) memset(reinterpret_cast<void*>(from), '\t', to - from);
  mprotect(p, page_size, PROT_READ);
  return true;
}

void on_sigbus(int sig, siginfo_t* info, void* context) {
  const int saved_errno = errno;
  const uintptr_t addr = reinterpret_cast<uintptr_t>(info->si_addr);
  const size_t bound = slots_bound.load(std::memory_order_acquire);
  for (size_t i = 0; i < bound; ++i) {
    guarded& g = slots[i];
    if (!g.used.load(std::memory_order_acquire)) continue;
    if (addr < g.begin.load(std::memory_order_relaxed) || addr >= g.end.load(std::memory_order_relaxed)) continue;
    if (!replace_page(g, addr)) break;
    g.lost.store(true, std::memory_order_relaxed);
    errno = saved_errno;
    return;
  }
  errno = saved_errno;
  pass_on(sig, info, context);
}

void install_handler() {
  page_size = uintptr_t(sysconf(_SC_PAGESIZE));
  struct sigaction action {};
  action.sa_sigaction = on_sigbus;
  action.sa_flags = SA_SIGINFO | SA_NODEFER;
  sigemptyset(&action.sa_mask);
  sigaction(SIGBUS, &action, &previous_action);
}

int claim(const void* addr, size_t len) {
  for (size_t i = 0; i < CAPACITY; ++i) {
    bool expected = false;
    if (!slots[i].claimed.compare_exchange_strong(expected, true)) continue;
    guarded& g = slots[i];
    g.lost.store(false);
    g.text_begin.store(0);
    g.text_end.store(0);
    g.begin.store(reinterpret_cast<uintptr_t>(addr));
    g.end.store(reinterpret_cast<uintptr_t>(addr) + len);
    size_t bound = slots_bound.load();
    while (bound <= i && !slots_bound.compare_exchange_weak(bound, i + 1)) {
    }
    g.used.store(true, std::memory_order_release);
    return int(i);
  }
  return -1;
}

void unclaim(int slot) {
  guarded& g = slots[slot];
  g.used.store(false, std::memory_order_release);
  g.begin.store(0);
  g.end.store(0);
  g.claimed.store(false, std::memory_order_release);
}

}  // namespace

size_t file_mapping_guard_capacity() { return CAPACITY; }

file_mapping::file_mapping() : lost_(&never_lost) {}

file_mapping::~file_mapping() { release(); }

file_mapping::file_mapping(file_mapping&& o) noexcept
    : addr_(std::exchange(o.addr_, nullptr)),
      len_(std::exchange(o.len_, 0)),
      slot_(std::exchange(o.slot_, -1)),
      lost_(std::exchange(o.lost_, &never_lost)) {}

file_mapping& file_mapping::operator=(file_mapping&& o) noexcept {
  if (this != &o) {
    release();
    addr_ = std::exchange(o.addr_, nullptr);
    len_ = std::exchange(o.len_, 0);
    slot_ = std::exchange(o.slot_, -1);
    lost_ = std::exchange(o.lost_, &never_lost);
  }
  return *this;
}

void file_mapping::release() {
  if (slot_ >= 0) unclaim(slot_);
  if (addr_) munmap(addr_, len_);
  addr_ = nullptr;
  len_ = 0;
  slot_ = -1;
  lost_ = &never_lost;
}

bool file_mapping::map(int fd, size_t size, std::string& err) {
  release();
  std::call_once(install_once, install_handler);
  void* addr = mmap(nullptr, size, PROT_READ, MAP_SHARED, fd, 0);
  if (addr == MAP_FAILED) {
    err = strerror(errno);
    return false;
  }
  addr_ = addr;
  len_ = size;
  slot_ = claim(addr, size);
  if (slot_ >= 0) lost_ = &slots[slot_].lost;
  return true;
}

void file_mapping::set_text_region(uint64_t offset, uint64_t size) {
  if (slot_ < 0) return;
  const uintptr_t begin = reinterpret_cast<uintptr_t>(addr_) + offset;
  slots[slot_].text_begin.store(begin);
  slots[slot_].text_end.store(begin + size);
}
