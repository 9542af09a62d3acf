#include "ptd.h"

#include <sched.h>
#include <stdlib.h>

#include <algorithm>
#include <atomic>
#include <cstring>

#include "ltrace/file.h"
#include "ltrace/thread_ring.h"
#include "ptd/entry.h"

namespace vrellis {
namespace {

constexpr std::size_t kFunctionWords = sizeof WaitEntry::function / sizeof(std::uint64_t);
constexpr std::uint64_t kDefaultWatchNs = 100'000;
constexpr std::uint64_t kLongestWatchNs = 1'000'000;
constexpr std::uint64_t kWatchUnread = ~std::uint64_t{0};
constinit std::atomic<std::uint64_t> watch_ns{kWatchUnread};

// A change of the calling thread's wait entry: readers see it whole or try again.
class EntryChange {
 public:
  explicit EntryChange(WaitEntry &wait) : wait_(wait) {
    store_shared(wait_.sequence, wait_.sequence + 1);
    order_stores();
  }
  ~EntryChange() { store_shared(wait_.sequence, wait_.sequence + 1, std::memory_order_release); }
  EntryChange(const EntryChange &) = delete;
  EntryChange &operator=(const EntryChange &) = delete;

  // Release keeps each store behind the odd sequence for readers in this process as well.
  static void set(std::uint64_t &field, std::uint64_t value) { store_shared(field, value, std::memory_order_release); }

 private:
  WaitEntry &wait_;
};

void enter_wait(WaitEntry &wait, const void *mutex, const char *function, int line) {
  std::uint64_t text[kFunctionWords] = {};
  if (function != nullptr) {
    std::memcpy(text, function, strnlen(function, sizeof text - 1));
  }
  const std::uint64_t now = clock_ns(CLOCK_MONOTONIC);
  const EntryChange change(wait);
  change.set(wait.mutex, reinterpret_cast<std::uintptr_t>(mutex));
  change.set(wait.since_ns, now);
  change.set(wait.line, static_cast<std::uint32_t>(line));
  for (std::size_t i = 0; i < kFunctionWords; ++i) {
    change.set(wait.function[i], text[i]);
  }
}

void end_wait(WaitEntry &wait) {
  const std::uint64_t now = clock_ns(CLOCK_MONOTONIC);
  const std::uint64_t waited = now - std::min(now, wait.since_ns);
  const EntryChange change(wait);
  change.set(wait.mutex, 0);
  change.set(wait.waits, wait.waits + 1);
  change.set(wait.longest_ns, std::max(wait.longest_ns, waited));
  change.set(wait.total_ns, wait.total_ns + waited);
}

// On a processor of its own the holder goes on while this thread watches; on the same one it could not.
bool has_processors() {
  cpu_set_t allowed;
  return sched_getaffinity(0, sizeof allowed, &allowed) == 0 && CPU_COUNT(&allowed) > 1;
}

std::uint64_t read_watch_setting() {
  const char *text = secure_getenv("PTD_SPIN_NS");
  const std::uint64_t wanted = text != nullptr ? strtoull(text, nullptr, 10) : kDefaultWatchNs;
  return has_processors() ? std::min(wanted, kLongestWatchNs) : 0;
}

void pause_briefly() {
#if defined(__x86_64__)
  _mm_pause();
#endif
}

#if defined(__GLIBC__)
bool looks_free(pthread_mutex_t *mutex) {
  constexpr int kOwnerBits = 0x3fffffff;  // the others: somebody waits, the owner died
  return (__atomic_load_n(&mutex->__data.__lock, __ATOMIC_RELAXED) & kOwnerBits) == 0;
}

// Each look takes the mutex's cache line from the holder, who then waits for it in turn: so they become rarer, down to
// one in 1 to 2 microseconds. A holder who takes the mutex again at once gets some ten operations done meanwhile.
void watch_mutex(pthread_mutex_t *mutex, std::uint64_t until_ns) {
  constexpr int kMostPauses = 64;
  for (int pauses = 1; !looks_free(mutex) && clock_ns(CLOCK_MONOTONIC) < until_ns;
       pauses = std::min(2 * pauses, kMostPauses)) {
    for (int i = 0; i < pauses; ++i) {
      pause_briefly();
    }
  }
}
#else
void watch_mutex(pthread_mutex_t *, std::uint64_t) {}
#endif

}  // namespace
}  // namespace vrellis

using namespace vrellis;

void ptd_set_mutex_block(pthread_mutex_t *mutex, const char *function, int line) {
  if (attach_thread()) {
    enter_wait(thread_trace.ring->wait, mutex, function, line);
  }
  std::uint64_t budget = watch_ns.load(std::memory_order_relaxed);
  if (budget == kWatchUnread) {
    budget = read_watch_setting();
    watch_ns.store(budget, std::memory_order_relaxed);
  }
  if (budget != 0) {
    watch_mutex(mutex, clock_ns(CLOCK_MONOTONIC) + budget);
  }
}

void ptd_unset_mutex_block(void) {
  if (thread_trace.ring != nullptr && thread_trace.ring->wait.mutex != 0) {
    end_wait(thread_trace.ring->wait);
  }
  trace_stamp_next();
}

int ptd_waits(ptd_wait_t *out, int room) {
  constexpr int kTries = 100;
  FileHeader *file = present_trace_file();
  int count = 0;
  for (RingEntry *ring = file != nullptr ? file->ring : nullptr; ring != nullptr && ring < file->ring + kMaxRings;
       ++ring) {
    ptd_wait_t wait;
    bool known = false;
    for (int i = 0; i < kTries && !known && load_shared(ring->owner) != 0; ++i) {
      known = read_wait(*ring, wait);
    }
    if (known && count++ < room) {
      out[count - 1] = wait;
    }
  }
  return count;
}
