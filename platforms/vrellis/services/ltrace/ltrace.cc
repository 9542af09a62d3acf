// Writes records into the ring of their thread, and claims the rings.
#include "ltrace.h"

#include <fcntl.h>
#include <linux/futex.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>

#include "ltrace/file.h"
#include "ltrace/thread_ring.h"
#include "oxa_errmsg/outlet.h"

namespace vrellis {

constinit thread_local ThreadTrace thread_trace __attribute__((tls_model("initial-exec")));

namespace {

// Records that a thread without a ring drops before it asks again.
constexpr std::uint32_t kDropsPerTry = 1024;

void store_word(std::uint64_t position, std::uint64_t value) {
  auto *word = reinterpret_cast<std::uint64_t *>(thread_trace.origin + position * sizeof(std::uint64_t));
  store_shared(*word, value);
}

// Goes back to the ring's beginning, and reads the clocks anew: readers place the ring's blocks in time by them.
[[gnu::noinline]] void wrap_ring(ThreadTrace &trace) {
  trace.origin = reinterpret_cast<std::uintptr_t>(trace.words) - trace.head * sizeof(std::uint64_t);
  trace.ring->clocks = read_clocks();
}

void open_block(ThreadTrace &trace) {
  const bool stamp_is_due = trace.limit == 0 || trace.stride == kStampWords;
  if (stamp_is_due) {
    trace.ticks = read_ticks();
  }
  if (trace.head < trace.block_end) {
    store_word(trace.head, 0);
  }
  trace.head = trace.block_end;
  store_shared(trace.ring->head, trace.head, std::memory_order_release);
  order_stores();
  if ((trace.head & trace.ring_mask) == 0) {
    wrap_ring(trace);
  }
  store_word(trace.head, stamp_of(trace.ticks));
  store_word(trace.head + 1, trace.records);
  store_shared(trace.ring->newest, trace.ticks);
  trace.head += kBlockHeadWords;
  trace.block_end += kBlockWords;
  note_stamp(trace);
  trace.stride = kStampWords;
}

// Makes room for a record of `words` words behind a time stamp. Returns: false when the record is to be dropped.
inline bool make_room(std::uint64_t words) {
  ThreadTrace &trace = thread_trace;
  if (trace.ring == nullptr && !attach_thread()) {
    count_drop();
    return false;
  }
  if (trace.head + 1 + words <= trace.block_end) {
    put_stamp(trace);
  } else {
    open_block(trace);
  }
  return true;
}

template <typename... Value>
inline void store_record(ThreadTrace &trace, std::uint64_t handle, std::uint64_t header, Value... value) {
  constexpr std::uint64_t kFixed = kRecordBit | (std::uint64_t{sizeof...(value)} << kCountShift);
  const std::uint64_t position = trace.head;
  auto *word = reinterpret_cast<std::uint64_t *>(trace.origin + position * sizeof(std::uint64_t));
  store_shared(*word, (header & kContractBits) | kFixed | (handle << kHandleShift));
  (store_shared(*++word, value), ...);
  trace.head = position + 1 + sizeof...(value);
  ++trace.records;
  store_shared(trace.ring->head, position + 1 + sizeof...(value), std::memory_order_release);
}

template <typename... Value>
[[gnu::noinline]] void write_slowly(std::uint64_t handle, std::uint64_t header, Value... value) {
  if (make_room(1 + sizeof...(value))) {
    store_record(thread_trace, handle, header, value...);
  }
}

// The slow path takes the same arguments in the same registers, so that the fast one saves nothing for it.
template <typename... Value>
inline void write_record(std::uint64_t handle, std::uint64_t header, Value... value) {
  ThreadTrace &trace = thread_trace;
  if (trace.head + 1 + sizeof...(value) > trace.limit) [[unlikely]] {
    if (trace_state.load(std::memory_order_relaxed) == TraceState::kOff) {
      return;
    }
    return write_slowly(handle, header, value...);
  }
  store_record(trace, handle, header, value...);
}

constinit pthread_key_t ring_key{};  // its value in a thread: the ring to give back when the thread ends
constinit bool has_ring_key = false;

// Rings below this number have their space in the file, so that claiming one takes no system call that could wait.
constinit std::atomic<std::uint32_t> ready_rings{0};

void give_ring_back(RingEntry *ring) {
  store_shared(ring->given_back, clock_ns(CLOCK_MONOTONIC));
  store_shared(ring->owner, 0U, std::memory_order_release);
}

void thread_ends(void *ring) {
  if (ring == thread_trace.ring) {
    thread_trace = ThreadTrace{};
    give_ring_back(static_cast<RingEntry *>(ring));
  }
}

[[gnu::constructor]] void make_ring_key() {
  has_ring_key = pthread_key_create(&ring_key, thread_ends) == 0;
}

// True if the calling thread holds a robust mutex, such as the database lock, or if that cannot be told. Such a thread
// must not make a file or reserve space, which can wait for the file system and for other threads.
bool may_hold_database_lock() {
  robust_list_head *held = nullptr;
  std::size_t size = 0;
  if (syscall(SYS_get_robust_list, 0, &held, &size) != 0) {
    return true;
  }
  return held != nullptr && (held->list.next != &held->list || held->list_op_pending != nullptr);
}

// Reserves the space of the rings below `count`, so that a full file system is found here and not by a signal when a
// record is written. The file is opened anew, since a daemon may have closed every descriptor that it found open.
bool make_ready(const FileHeader &file, std::uint32_t count) {
  std::uint32_t ready = ready_rings.load(std::memory_order_acquire);
  if (count <= ready) {
    return true;
  }
  const int fd = open(ltrace_path(), O_RDWR | O_CLOEXEC | O_NOFOLLOW);
  const auto bytes = static_cast<off_t>(file.ring_words * sizeof(std::uint64_t));
  const bool reserved =
      fd >= 0 && posix_fallocate(fd, off_t{kRingHeaderBytes} + ready * bytes, (count - ready) * bytes) == 0;
  if (fd >= 0) {
    close(fd);
  }
  while (reserved && ready < count && !ready_rings.compare_exchange_weak(ready, count)) {
  }
  return reserved;
}

// The free ring that was given back longest ago; rings that were never used come first. Only the first `count` rings
// are looked at.
RingEntry *oldest_free_ring(FileHeader *file, std::uint32_t count) {
  RingEntry *oldest = nullptr;
  for (RingEntry &ring : std::span(file->ring).first(count)) {
    if (load_shared(ring.owner, std::memory_order_acquire) == 0 &&
        (oldest == nullptr || load_shared(ring.given_back) < load_shared(oldest->given_back))) {
      oldest = &ring;
    }
  }
  return oldest;
}

void empty_ring(RingEntry *ring, std::uint32_t tid) {
  const std::uint32_t epoch = ring->epoch | 1;
  store_shared(ring->epoch, epoch, std::memory_order_release);
  order_stores();
  store_shared(ring->head, std::uint64_t{0}, std::memory_order_release);
  store_shared(ring->tid, tid);
  for (std::uint64_t &word : as_words(ring->wait)) {
    store_shared(word, std::uint64_t{0});
  }
  store_shared(ring->epoch, epoch + 1, std::memory_order_release);
}

// Claims a ring for the calling thread; it comes empty, and `words` is where its words are. With `at_once`, only a ring
// whose space is reserved is taken. Otherwise the space of this ring and of one more is reserved, so that the next
// thread finds a ring at once. Returns: nullptr when no ring is free or there is no space.
RingEntry *claim_ring(FileHeader *file, bool at_once, std::uint64_t *&words) {
  const auto tid = static_cast<std::uint32_t>(gettid());
  const std::uint32_t rings = std::min(file->num_rings, kMaxRings);
  const std::uint32_t count = at_once ? std::min(ready_rings.load(std::memory_order_acquire), rings) : rings;
  RingEntry *ring = oldest_free_ring(file, count);
  std::uint32_t no_owner = 0;
  while (ring != nullptr && !std::atomic_ref(ring->owner).compare_exchange_strong(no_owner, tid)) {
    no_owner = 0;
    ring = oldest_free_ring(file, count);
  }
  if (ring == nullptr) {
    return nullptr;
  }
  const auto number = static_cast<std::uint32_t>(ring - file->ring);
  const bool ready = at_once || make_ready(*file, std::min(number + 2, rings)) || make_ready(*file, number + 1);
  constexpr pthread_key_t kKeysWithoutAllocation = 32;
  const bool has_key = has_ring_key && (!at_once || ring_key < kKeysWithoutAllocation);
  if (!ready || !has_key || pthread_setspecific(ring_key, ring) != 0) {
    store_shared(ring->owner, 0U, std::memory_order_release);
    return nullptr;
  }
  empty_ring(ring, tid);
  words = reinterpret_cast<std::uint64_t *>(reinterpret_cast<char *>(file) + kRingHeaderBytes) +
          std::uint64_t{number} * file->ring_words;
  return ring;
}

}  // namespace

bool attach_thread() {
  ThreadTrace &trace = thread_trace;
  if (trace.ring != nullptr) {
    return true;
  }
  if (trace.refused > 0) {
    --trace.refused;
    return false;
  }
  if (trace_state.load(std::memory_order_relaxed) == TraceState::kOff) {
    return false;
  }
  const CallerState caller;
  const bool at_once = may_hold_database_lock();
  FileHeader *file = at_once ? present_trace_file() : process_trace_file();
  std::uint64_t *words = nullptr;
  RingEntry *ring = file != nullptr ? claim_ring(file, at_once, words) : nullptr;
  if (ring == nullptr) {
    if (!at_once && file != nullptr) {
      std::atomic_ref(file->rings_refused).fetch_add(1, std::memory_order_relaxed);
      trace.refused = kDropsPerTry;
    }
    return false;
  }
  trace = ThreadTrace{};
  trace.words = words;
  trace.ring_mask = file->ring_words - 1;
  trace.stride = kStampWords;
  trace.origin = reinterpret_cast<std::uintptr_t>(words);
  trace.ring = ring;
  return true;
}

void forget_ring() {
  thread_trace = ThreadTrace{};
  ready_rings.store(0, std::memory_order_relaxed);
  if (has_ring_key) {
    pthread_setspecific(ring_key, nullptr);
  }
}

}  // namespace vrellis

using vrellis::write_record;

void _ltrace_1(uint64_t handle, uint64_t header, uint64_t v1) {
  write_record(handle, header, v1);
}

void _ltrace_2(uint64_t handle, uint64_t header, uint64_t v1, uint64_t v2) {
  write_record(handle, header, v1, v2);
}

void _ltrace_3(uint64_t handle, uint64_t header, uint64_t v1, uint64_t v2, uint64_t v3) {
  write_record(handle, header, v1, v2, v3);
}

void _ltrace_4(uint64_t handle, uint64_t header, uint64_t v1, uint64_t v2, uint64_t v3, uint64_t v4) {
  write_record(handle, header, v1, v2, v3, v4);
}

void _ltrace_5(uint64_t handle, uint64_t header, uint64_t v1, uint64_t v2, uint64_t v3, uint64_t v4, uint64_t v5) {
  write_record(handle, header, v1, v2, v3, v4, v5);
}

void _ltrace_6(uint64_t handle, uint64_t header, uint64_t v1, uint64_t v2, uint64_t v3, uint64_t v4, uint64_t v5,
               uint64_t v6) {
  write_record(handle, header, v1, v2, v3, v4, v5, v6);
}

void _ltrace_7(uint64_t handle, uint64_t header, uint64_t v1, uint64_t v2, uint64_t v3, uint64_t v4, uint64_t v5,
               uint64_t v6, uint64_t v7) {
  write_record(handle, header, v1, v2, v3, v4, v5, v6, v7);
}
