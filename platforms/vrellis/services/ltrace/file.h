// The trace file: its layout, for the writer and the reader, and its making, for the writer. For the services alone.
//
//        0  FileHeader: what the file is, clocks, losses, component names, one RingEntry for each ring
//    16384  ring 0, then the others: words in blocks of 256; its space is reserved when the ring is first claimed
//
// A block:
//        0  time stamp; a repetition of the last one when the block was opened in the midst of an operation
//        1  records written into the ring before this block
//        2  records and time stamps; a zero word says that the rest of the block is unused
// No record crosses a block. Each but the newest of a ring's blocks is closed.
//
// A record: its header word, then its values.
//     63                    38 37 35 34 32 31 30 28 27  23 22                    0
//    |  handle, low 26 bits   |  n  | 7  |1 | num  |  tag |     trace-point id    |   n: values, 1 to 7
// A time stamp: ticks of the file's clock, shifted around bit 31, which is 0; never zero.
//     63                                    32 31 30                              1  0
//    |             ticks, bits 62-31          |0 |        ticks, bits 30-1        |1 |
//
// Writing: the words first, then RingEntry.head with release. Before the first word of a block is written, `head` is
// published as that block's start: a reader that has read a word of block b sees a head of at least b * 256 afterwards,
// so what it copied of block b - blocks is known to be lost, and all later blocks are known to be whole.
#ifndef VRELLIS_LTRACE_FILE_H
#define VRELLIS_LTRACE_FILE_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <span>

#include "ltrace.h"
#if defined(__x86_64__)
#include <x86intrin.h>
#endif

namespace vrellis {

inline constexpr std::uint64_t kTraceMagic = 0x45434152544c5256;  // "VRLTRACE"
inline constexpr std::uint32_t kTraceVersion = 2;
inline constexpr std::uint32_t kBlockWords = 256;
inline constexpr std::uint32_t kBlockHeadWords = 2;
inline constexpr std::uint32_t kMaxRings = 64;
inline constexpr std::uint32_t kMinRingKib = 8;
inline constexpr std::uint32_t kMaxRingKib = 16384;
inline constexpr std::uint32_t kRingHeaderBytes = 16384;
inline constexpr std::uint32_t kNameBytes = 32;

inline constexpr unsigned kCountShift = 35;
inline constexpr unsigned kHandleShift = 38;
inline constexpr std::uint64_t kRecordBit = std::uint64_t{1} << 31;
inline constexpr std::uint64_t kContractBits = (std::uint64_t{1} << kCountShift) - 1;

enum class TickKind : std::uint32_t { kNanoseconds = 0, kTsc = 1 };

#if defined(__x86_64__)
inline constexpr TickKind kTickKind = TickKind::kTsc;
inline std::uint64_t read_ticks() {
  return __rdtsc();
}
#else
inline constexpr TickKind kTickKind = TickKind::kNanoseconds;
inline std::uint64_t read_ticks() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<std::uint64_t>(now.tv_nsec);
}
#endif

constexpr std::uint64_t stamp_of(std::uint64_t ticks) {
  return ((ticks >> 31) << 32) | (ticks & (kRecordBit - 1)) | 1;
}
constexpr std::uint64_t ticks_of(std::uint64_t stamp) {
  return ((stamp >> 32) << 31) | (stamp & (kRecordBit - 1));
}
static_assert(ticks_of(stamp_of(0x1234'5678'9abc'def1)) == 0x1234'5678'9abc'def1);

inline std::uint64_t clock_ns(clockid_t clock) {
  timespec now;
  clock_gettime(clock, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<std::uint64_t>(now.tv_nsec);
}

// The file's clock beside the system's, all read at one moment.
struct ClockPoint {
  std::uint64_t ticks;
  std::uint64_t monotonic_ns;
  std::uint64_t realtime_ns;
};

// Reads the clocks close together: a reading that was interrupted is taken again.
inline ClockPoint read_clocks() {
  ClockPoint best{};
  std::uint64_t best_width = ~std::uint64_t{0};
  for (int attempt = 0; attempt < 4 && best_width > 1500; ++attempt) {
    const std::uint64_t before = read_ticks();
    const std::uint64_t monotonic = clock_ns(CLOCK_MONOTONIC);
    const std::uint64_t realtime = clock_ns(CLOCK_REALTIME);
    const std::uint64_t width = read_ticks() - before;
    if (width < best_width) {
      best_width = width;
      best = {before + width / 2, monotonic, realtime};
    }
  }
  return best;
}

// A thread's wait for a mutex. Written by the ring's thread alone, word by word; `sequence` is odd meanwhile.
struct WaitEntry {
  std::uint64_t sequence;     //   0
  std::uint64_t mutex;        //   8  address; 0 = does not wait
  std::uint64_t since_ns;     //  16  CLOCK_MONOTONIC
  std::uint64_t line;         //  24
  std::uint64_t function[6];  //  32  text, zero-filled, cut at 47 characters
  std::uint64_t waits;        //  80  waits that ended
  std::uint64_t longest_ns;   //  88
  std::uint64_t total_ns;     //  96
  std::uint64_t zero[3];      // 104
};
static_assert(sizeof(WaitEntry) == 128);

// One ring. Written by its owner alone, `owner` apart, which a thread takes by compare-and-swap.
struct RingEntry {
  std::uint64_t head;        //   0  words written since it was claimed, unused ends of blocks included
  std::uint64_t newest;      //   8  ticks of the newest block
  std::uint32_t owner;       //  16  thread id; 0 = given back, or never claimed
  std::uint32_t epoch;       //  20  changes with each claim; odd while the entry is being taken over; 0 = never used
  std::uint32_t tid;         //  24  thread whose records the ring holds; stays when it is given back
  std::uint32_t zero;        //  28
  ClockPoint clocks;         //  32  read at the claim and each time the ring wraps
  std::uint64_t given_back;  //  56  CLOCK_MONOTONIC ns
  WaitEntry wait;            //  64
};
static_assert(sizeof(RingEntry) == 192 && offsetof(RingEntry, wait) == 64);

struct FileHeader {
  std::uint64_t magic;                                //    0  kTraceMagic; written last
  std::uint32_t version;                              //    8
  std::uint32_t header_bytes;                         //   12  where ring 0 begins
  std::uint32_t block_words;                          //   16
  std::uint32_t ring_words;                           //   20  a power of two
  std::uint32_t num_rings;                            //   24  at most kMaxRings
  TickKind tick_kind;                                 //   28
  std::uint32_t pid;                                  //   32
  std::uint32_t uid;                                  //   36
  std::uint64_t start_time;                           //   40  of the process, ticks since boot
  std::uint64_t pid_namespace;                        //   48  inode; pids of another one mean nothing here
  char comm[16];                                      //   56
  char boot_id[40];                                   //   72  ticks of one boot compare across files
  ClockPoint created;                                 //  112
  std::uint64_t rings_refused;                        //  136  threads that found no ring, counted at each try
  std::uint64_t records_dropped;                      //  144  of threads without a ring
  std::uint8_t zero[104];                             //  152
  char component[LTRACE_MAX_COMPONENTS][kNameBytes];  //  256  names by tag
  RingEntry ring[kMaxRings];                          // 1280
};
static_assert(offsetof(FileHeader, created) == 112 && offsetof(FileHeader, component) == 256);
static_assert(offsetof(FileHeader, ring) == 1280 && sizeof(FileHeader) <= kRingHeaderBytes);

template <typename T>
void store_shared(T &field, T value, std::memory_order order = std::memory_order_relaxed) {
  std::atomic_ref<T>(field).store(value, order);
}

template <typename T>
T load_shared(T &field, std::memory_order order = std::memory_order_relaxed) {
  return std::atomic_ref<T>(field).load(order);
}

// Keeps later stores behind earlier ones.
inline void order_stores() {
#if defined(__x86_64__)
  std::atomic_signal_fence(std::memory_order_release);  // the processor keeps the order of stores by itself
#else
  std::atomic_thread_fence(std::memory_order_release);
#endif
}

inline std::span<std::uint64_t> as_words(WaitEntry &wait) {
  return {&wait.sequence, sizeof wait / sizeof(std::uint64_t)};
}

// Whether this process traces. kOff is final but for a fork.
enum class TraceState : int { kUnknown, kOn, kOff };
extern constinit std::atomic<TraceState> trace_state;

// This process's trace file, which the first call makes. The calling thread must not hold the database lock.
// Returns: nullptr when it cannot be made.
FileHeader *process_trace_file();

// This process's trace file, or nullptr while it is not made.
FileHeader *present_trace_file();

// Counts a record that was dropped.
void count_drop();

// Makes sure that the calling thread has a ring. A thread that may hold the database lock gets one only when the file
// exists and a ring's space is reserved: all else can wait for the file system. Returns: false when it gets none.
bool attach_thread();

// In the child of a fork: takes the calling thread's ring from it without touching the ring.
void forget_ring();

}  // namespace vrellis

#endif
