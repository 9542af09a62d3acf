// The way of a record into its thread's ring.
#include "ltrace.h"

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "ltrace/file.h"
#include "ltrace/thread_ring.h"

namespace vrellis {

constinit thread_local ThreadTrace thread_trace __attribute__((tls_model("initial-exec")));

namespace {

// Records that a thread without a ring drops before it asks again.
constexpr std::uint32_t kDropsPerTry = 1024;

void store_word(std::uint64_t position, std::uint64_t value) {
  auto *word = reinterpret_cast<std::uint64_t *>(thread_trace.origin + position * sizeof(std::uint64_t));
  store_shared(*word, value);
}

// At the ring's beginning: what a reader needs to place its blocks in time.
[[gnu::noinline]] void wrap_ring(ThreadTrace &trace) {
  trace.origin = reinterpret_cast<std::uintptr_t>(trace.words) - trace.head * sizeof(std::uint64_t);
  trace.ring->clocks = read_clocks();
}

// The block after the open one comes into the nearest cache before its turn: else the stores to it would be on their
// way for long, and the next lock operation waits for all of them. Inlined by force, as g++ drops calls that only
// prefetch.
[[gnu::always_inline]] inline void prefetch_next_block(const ThreadTrace &trace) {
  const std::uint64_t *const next = trace.words + (trace.block_end & trace.ring_mask);
  constexpr std::uint32_t kLineWords = 8;
  for (std::uint32_t word = 0; word < kBlockWords; word += kLineWords) {
    __builtin_prefetch(next + word, 1);
  }
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
  prefetch_next_block(trace);
  note_stamp(trace);
  trace.stride = kStampWords;
}

void count_drop() {
  if (FileHeader *file = present_trace_file()) {
    std::atomic_ref(file->records_dropped).fetch_add(1, std::memory_order_relaxed);
  }
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

// ---------------------------------------------------------------------------------------------------- rings of threads

constinit pthread_once_t ring_key_once = PTHREAD_ONCE_INIT;
constinit pthread_key_t ring_key{};  // its value in a thread: the ring to give back when the thread ends
constinit bool has_ring_key = false;

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

void make_ring_key() {
  has_ring_key = pthread_key_create(&ring_key, thread_ends) == 0;
}

// The space of a ring, so that a full file system is seen here and not by a signal in the midst of a record. The file
// is opened anew: a daemon may have closed every descriptor it found open.
bool reserve_ring(std::uint64_t offset, std::uint64_t bytes) {
  const int fd = open(ltrace_path(), O_RDWR | O_CLOEXEC | O_NOFOLLOW);
  if (fd < 0) {
    return false;
  }
  const int reason = posix_fallocate(fd, static_cast<off_t>(offset), static_cast<off_t>(bytes));
  close(fd);
  return reason == 0;
}

// Of the rings that nobody owns, the one that was given back longest ago; those never used come first.
RingEntry *oldest_free_ring(FileHeader *file) {
  RingEntry *oldest = nullptr;
  for (RingEntry &ring : file->ring) {
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

// Claims a ring for the calling thread and reserves its space; it comes empty, its words in `words`.
// Returns: nullptr when none is free or there is no space.
RingEntry *claim_ring(FileHeader *file, std::uint64_t *&words) {
  const auto tid = static_cast<std::uint32_t>(gettid());
  const std::uint64_t bytes = std::uint64_t{file->ring_words} * sizeof(std::uint64_t);
  RingEntry *ring = oldest_free_ring(file);
  std::uint32_t nobody = 0;
  while (ring != nullptr && !std::atomic_ref(ring->owner).compare_exchange_strong(nobody, tid)) {
    nobody = 0;
    ring = oldest_free_ring(file);
  }
  if (ring == nullptr) {
    return nullptr;
  }
  const std::uint64_t offset = kRingHeaderBytes + static_cast<std::uint64_t>(ring - file->ring) * bytes;
  if (!reserve_ring(offset, bytes) || !has_ring_key || pthread_setspecific(ring_key, ring) != 0) {
    store_shared(ring->owner, 0U, std::memory_order_release);
    return nullptr;
  }
  empty_ring(ring, tid);
  words = reinterpret_cast<std::uint64_t *>(reinterpret_cast<char *>(file) + offset);
  return ring;
}

// What a call into the trace may not change in its caller: errno, and that no cancellation strikes inside.
class CallerState {
 public:
  CallerState() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancel_state_); }
  ~CallerState() {
    pthread_setcancelstate(cancel_state_, nullptr);
    errno = errno_;
  }
  CallerState(const CallerState &) = delete;
  CallerState &operator=(const CallerState &) = delete;

 private:
  int errno_ = errno;
  int cancel_state_ = 0;
};

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
  const CallerState caller;
  FileHeader *file = trace_state.load(std::memory_order_relaxed) == TraceState::kOff ? nullptr : process_trace_file();
  if (file == nullptr) {
    return false;
  }
  pthread_once(&ring_key_once, make_ring_key);
  std::uint64_t *words = nullptr;
  RingEntry *ring = claim_ring(file, words);
  if (ring == nullptr) {
    std::atomic_ref(file->rings_refused).fetch_add(1, std::memory_order_relaxed);
    trace.refused = kDropsPerTry;
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
