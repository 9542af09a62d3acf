// Reads the wait entries of a trace file: for the service, and for programs that read the files of other processes.
#ifndef VRELLIS_PTD_ENTRY_H
#define VRELLIS_PTD_ENTRY_H

#include <cstdint>
#include <cstring>

#include "ltrace/file.h"
#include "ptd.h"

namespace vrellis {

// Reads the wait entry of `ring`. Returns: false when it was being written meanwhile, or its thread never waited.
inline bool read_wait(RingEntry &ring, ptd_wait_t &out) {
  WaitEntry copy{};
  const std::uint64_t before = load_shared(ring.wait.sequence, std::memory_order_acquire);
  for (std::size_t i = 0; i < as_words(copy).size(); ++i) {
    as_words(copy)[i] = load_shared(as_words(ring.wait)[i], std::memory_order_acquire);
  }
  if (before % 2 != 0 || before == 0 || load_shared(ring.wait.sequence) != before) {
    return false;
  }
  out = {};
  out.mutex = copy.mutex;
  out.since_ns = copy.since_ns;
  out.waits = copy.waits;
  out.longest_ns = copy.longest_ns;
  out.total_ns = copy.total_ns;
  out.tid = static_cast<std::int32_t>(load_shared(ring.tid));
  out.line = static_cast<std::int32_t>(copy.line);
  std::memcpy(out.function, copy.function, sizeof out.function);
  out.function[sizeof out.function - 1] = '\0';
  return true;
}

}  // namespace vrellis

#endif
