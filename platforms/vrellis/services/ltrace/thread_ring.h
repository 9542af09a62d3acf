// The calling thread's place in its trace ring. For the services alone.
#ifndef VRELLIS_LTRACE_THREAD_RING_H
#define VRELLIS_LTRACE_THREAD_RING_H

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "ltrace/file.h"

namespace vrellis {

// The calling thread as a writer of records. Positions count the words of the thread's ring since it was claimed, and
// never wrap. All fields are zero while the thread has no ring. Only the thread itself uses them, and a signal handler
// must not write records: one that interrupts the writing of another record would damage up to two blocks.
struct ThreadTrace {
  std::uint64_t head = 0;          // where the next record goes
  std::uint64_t limit = 0;         // a record that would end past it takes the slow path; 0: a stamp is due at once
  std::uintptr_t origin = 0;       // address that position 0 would have if the ring had never wrapped
  RingEntry *ring = nullptr;       // the ring's entry in the trace file
  std::uint64_t records = 0;       // records written
  std::uint64_t told = 0;          // position at which a search was last told of
  std::uint64_t block_end = 0;     // position where the open block ends
  std::uint64_t *words = nullptr;  // the ring
  std::uint64_t ring_mask = 0;     // its words less one
  std::uint64_t ticks = 0;         // of the newest time stamp
  std::uint64_t stride = 0;        // words after which the next stamp is due, if no operation is told of before
  std::uint32_t refused = 0;       // records to drop before asking for a ring again
};

extern constinit thread_local ThreadTrace thread_trace __attribute__((tls_model("initial-exec")));

// A time stamp is due after so many words, the records of a small operation. Where operations are told of, at each of
// them instead: a block that is opened meanwhile repeats the stamp of the operation.
inline constexpr std::uint64_t kStampWords = 16;

// Fewer words than this lie between two searches of one operation, and more between those of two.
inline constexpr std::uint64_t kHintWords = 10;

// A time stamp lies right before the next record.
inline void note_stamp(ThreadTrace &trace) {
  trace.limit = std::min(trace.block_end, trace.head + trace.stride);
}

// Brings what the next operations write to into the nearest cache: an operation's records take three to eight lines.
// Without this the stores would take long, and the next lock operation would wait for all of them. Inlined by force,
// since g++ drops calls that only prefetch.
[[gnu::always_inline]] inline void prefetch_behind(const std::uint64_t *word) {
  constexpr std::ptrdiff_t kLineWords = 8;
  for (std::ptrdiff_t line = 4; line < 8; ++line) {
    __builtin_prefetch(word + line * kLineWords, 1);
  }
}

// Writes a time stamp where the next record was to go. Requires a ring, and room in the open block.
inline void put_stamp(ThreadTrace &trace) {
  const std::uint64_t position = trace.head;
  auto *word = reinterpret_cast<std::uint64_t *>(trace.origin + position * sizeof(std::uint64_t));
  trace.ticks = read_ticks();
  store_shared(*word, stamp_of(trace.ticks));
  prefetch_behind(word);
  trace.head = position + 1;
  note_stamp(trace);
}

// Tells the trace of a search. When it is an operation's first one, the records that follow stand behind a time stamp,
// which is shown to readers with the next of them.
inline void trace_operation_begins() {
  ThreadTrace &trace = thread_trace;
  const std::uint64_t since = trace.head - trace.told;
  trace.told = trace.head;
  trace.stride = kBlockWords;
  if (since < kHintWords) {
    return;
  }
  if (trace.head + kHintWords <= trace.block_end) {
    put_stamp(trace);
  } else {
    trace.limit = 0;
  }
}

// The next record of the calling thread gets a time stamp. Called after a wait, which takes time between two records.
inline void trace_stamp_next() {
  thread_trace.limit = 0;
}

}  // namespace vrellis

#endif
