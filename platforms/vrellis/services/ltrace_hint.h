// The calling thread's place in its trace ring. For the services alone.
#ifndef VRELLIS_LTRACE_HINT_H
#define VRELLIS_LTRACE_HINT_H

#include <cstdint>

namespace vrellis {

struct RingEntry;

// Positions count the words of the thread's ring since it was claimed and never wrap. All zero: no ring. A record is
// written from `head` alone, so that one written by a signal handler half-way through another costs no more than that.
struct ThreadTrace {
  std::uint64_t head = 0;          // where the next record goes
  std::uint64_t limit = 0;         // a record that would end past it takes the slow path: block full, or a stamp is due
  std::uintptr_t origin = 0;       // address that position 0 would have if the ring had never wrapped
  RingEntry *ring = nullptr;       // the ring's entry in the trace file
  std::uint64_t records = 0;       // records written
  std::uint64_t stamped = 0;       // position of the first record after the newest time stamp
  std::uint64_t block_end = 0;     // position where the open block ends
  std::uint64_t *words = nullptr;  // the ring
  std::uint32_t refused = 0;       // records to drop before asking for a ring again
};

extern constinit thread_local ThreadTrace thread_trace __attribute__((tls_model("initial-exec")));

// More than any one record: an operation that searches twice, with one record in between, is stamped once.
inline constexpr std::uint64_t kHintWords = 10;

// Tells the trace that an operation begins about now: the next record carries a time stamp unless the newest stamp is
// only a record old.
inline void trace_operation_begins() {
  if (thread_trace.head - thread_trace.stamped >= kHintWords) {
    thread_trace.limit = 0;
  }
}

// The next record carries a time stamp, whatever came before: for one that follows a wait.
inline void trace_stamp_next() {
  thread_trace.limit = 0;
}

}  // namespace vrellis

#endif
