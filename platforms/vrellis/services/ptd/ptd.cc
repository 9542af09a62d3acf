#include "ptd.h"

#include <sched.h>
#include <stdlib.h>
#if defined(ENCAP_THREAD_SANITIZER)
#include <sanitizer/tsan_interface.h>
#endif

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstring>

#include "between_services.h"
#include "ltrace/file.h"
#include "oxa_errmsg/log_line.h"
#include "oxa_errmsg/outlet.h"
#include "ptd/entry.h"

namespace vrellis {
namespace {

constexpr std::size_t kFunctionWords = sizeof WaitEntry::function / sizeof(std::uint64_t);
constexpr std::uint64_t kDefaultWatchNs = 100'000;
constexpr std::uint64_t kLongestWatchNs = 1'000'000;
constexpr std::uint64_t kWatchUnread = ~std::uint64_t{0};
constexpr std::uint64_t kSliceNs = 50'000'000;
constinit std::atomic<std::uint64_t> watch_ns{kWatchUnread};

// The mutex that ptd_set_mutex_block() took for the calling thread and ptd_unset_mutex_block() has to give back.
constinit thread_local pthread_mutex_t *taken __attribute__((tls_model("initial-exec"))) = nullptr;

// A change of the calling thread's wait entry. Readers see the whole entry, or they read it again.
class EntryChange {
 public:
  explicit EntryChange(WaitEntry &wait) : wait_(wait) {
    store_shared(wait_.sequence, wait_.sequence + 1);
    order_stores();
  }
  ~EntryChange() { store_shared(wait_.sequence, wait_.sequence + 1, std::memory_order_release); }
  EntryChange(const EntryChange &) = delete;
  EntryChange &operator=(const EntryChange &) = delete;

  // The release order keeps each store behind that of the odd sequence, for readers in this process too.
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

// Spinning helps only if the holder of the lock can run on another CPU.
bool has_processors() {
  cpu_set_t allowed;
  return sched_getaffinity(0, sizeof allowed, &allowed) == 0 && CPU_COUNT(&allowed) > 1;
}

void tell_of_bad_setting(const char *text) {
  LogLine line;
  line.text("PTD_SPIN_NS is not a number from 0 to 1000000 and counts as 100000: '").text(text).text("'");
  write_to_stderr(line.finish());
}

// How long this process watches a mutex. The first wait reads the setting. Its thread does not hold the mutex yet, so a
// slow reader of stderr delays no other process.
std::uint64_t watch_setting() {
  std::uint64_t setting = watch_ns.load(std::memory_order_relaxed);
  if (setting != kWatchUnread) {
    return setting;
  }
  const char *const text = secure_getenv("PTD_SPIN_NS");
  const char *const end = text != nullptr ? text + std::strlen(text) : nullptr;
  std::uint64_t wanted = kDefaultWatchNs;
  const auto [stop, error] = std::from_chars(text, end, wanted);
  const bool good = text == nullptr || (error == std::errc{} && stop == end && wanted <= kLongestWatchNs);
  if (!good) {
    wanted = kDefaultWatchNs;
  }
  wanted = has_processors() ? wanted : 0;
  if (watch_ns.compare_exchange_strong(setting, wanted, std::memory_order_relaxed) && !good) {
    tell_of_bad_setting(text);
  }
  return wanted;
}

void pause_briefly() {
#if defined(__x86_64__)
  _mm_pause();
#endif
}

#if defined(__GLIBC__)
bool looks_free(pthread_mutex_t *mutex) {
  constexpr int kOwnerBits = 0x3fffffff;  // the other bits: a thread waits, the owner died
  return (__atomic_load_n(&mutex->__data.__lock, __ATOMIC_RELAXED) & kOwnerBits) == 0;
}

// Each look takes the mutex's cache line from its holder, which then has to wait for the line. So looks become rarer,
// down to one in 1.5 microseconds: a holder that takes the mutex again at once gets some ten operations done in that
// time. The gaps are measured by the clock, since a pause takes 40 cycles on one processor and 140 on another.
void watch_mutex(pthread_mutex_t *mutex, std::uint64_t until_ns) {
  constexpr std::uint64_t kShortestGapNs = 50;
  constexpr std::uint64_t kLongestGapNs = 1500;
  std::uint64_t now = clock_ns(CLOCK_MONOTONIC);
  for (std::uint64_t gap = kShortestGapNs; !looks_free(mutex) && now < until_ns;
       gap = std::min(2 * gap, kLongestGapNs)) {
    for (const std::uint64_t next = now + gap; now < next; now = clock_ns(CLOCK_MONOTONIC)) {
      pause_briefly();
    }
  }
}

// True if a thread that has the mutex can lock it once more: what the caller does next.
bool is_robust_and_recursive(const pthread_mutex_t *mutex) {
  constexpr int kTypeBits = 0x7f;
  constexpr int kRobust = 0x10;
  return (mutex->__data.__kind & kTypeBits) == (kRobust | PTHREAD_MUTEX_RECURSIVE);
}
#else
void watch_mutex(pthread_mutex_t *, std::uint64_t) {}
bool is_robust_and_recursive(const pthread_mutex_t *) {
  return false;
}
#endif

// ThreadSanitizer does not know pthread_mutex_clocklock(), so it has to be told what that took.
void tell_sanitizer_of_lock([[maybe_unused]] pthread_mutex_t *mutex) {
#if defined(ENCAP_THREAD_SANITIZER)
  __tsan_mutex_pre_lock(mutex, __tsan_mutex_write_reentrant);
  __tsan_mutex_post_lock(mutex, __tsan_mutex_write_reentrant, 0);
#endif
}

// Waits until the calling thread holds the mutex. Each slice looks at the mutex anew: the kernel may have woken another
// waiter, which died before it could take the mutex, and no unlock then wakes this thread.
// Returns: false when the mutex cannot be had; the caller's own call learns why.
bool take_in_slices(pthread_mutex_t *mutex) {
  int status = ETIMEDOUT;
  while (status == ETIMEDOUT) {
    const std::uint64_t until = clock_ns(CLOCK_MONOTONIC) + kSliceNs;
    const timespec end{static_cast<time_t>(until / 1'000'000'000), static_cast<long>(until % 1'000'000'000)};
    status = pthread_mutex_clocklock(mutex, CLOCK_MONOTONIC, &end);
  }
  if (status == EOWNERDEAD) {
    // The caller's lock will count one more and return 0, so the mutex has to be made consistent here. If that fails,
    // the unlock makes it unrecoverable, which the caller's lock then reports.
    status = pthread_mutex_consistent(mutex);
    if (status != 0) {
      pthread_mutex_unlock(mutex);
    }
  }
  if (status == 0) {
    tell_sanitizer_of_lock(mutex);
  }
  return status == 0;
}

}  // namespace
}  // namespace vrellis

using namespace vrellis;

// A signal handler may wait for another mutex between the two calls of the thread that it interrupts. It then finds
// `taken` set and takes nothing, and its own ptd_unset_mutex_block() gives the thread's mutex back early. That is
// harmless: the thread's lock call takes the mutex, or has taken it already.
void ptd_set_mutex_block(pthread_mutex_t *mutex, const char *function, int line) {
  if (attach_thread()) {
    enter_wait(thread_trace.ring->wait, mutex, function, line);
  }
  const std::uint64_t budget = watch_setting();
  if (budget != 0) {
    watch_mutex(mutex, clock_ns(CLOCK_MONOTONIC) + budget);
  }
  if (taken == nullptr && is_robust_and_recursive(mutex) && take_in_slices(mutex)) {
    taken = mutex;
  }
}

void ptd_unset_mutex_block(void) {
  pthread_mutex_t *const mutex = __atomic_exchange_n(&taken, nullptr, __ATOMIC_RELAXED);
  if (mutex != nullptr) {
    pthread_mutex_unlock(mutex);
  }
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
