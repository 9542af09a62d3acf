// Sees every store of this process to a window: each one faults, is let through alone, and is written down.
#ifndef ENCAP_PROOF_WRITE_WATCH_H
#define ENCAP_PROOF_WRITE_WATCH_H

#include <cstddef>
#include <cstdint>

namespace crash {

// One word that an instruction changed. Instructions are numbered from 1.
struct Change {
  std::uint32_t instruction;
  std::uint32_t offset;
  std::uint64_t value;
};

// Lies in memory that survives the process.
struct ChangeLog {
  static constexpr std::size_t kCapacity = 1 << 14;
  std::uint32_t count;
  std::uint32_t instructions;
  bool overflow;
  Change change[kCapacity];
};

/*
 * From watch_writes() to unwatch_writes() each instruction that stores to the `bytes` at `window` is logged. One
 * window, one thread at a time. System calls that would write there fail with EFAULT.
 */
void watch_writes(void *window, std::size_t bytes, ChangeLog *log);
void unwatch_writes();

}  // namespace crash

#endif
