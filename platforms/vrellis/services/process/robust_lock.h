// A robust mutex as it lies in shared memory: looked at and never locked. For the owner and the inspector.
//
//     31      30       29                     0
//    |waiters|died    |  thread id of the owner|   the mutex's word; 0: free
//
// The kernel keeps `died` when the owner ends: the next thread that locks the mutex takes it over. It can do that only
// for a thread that it knows. A mutex that was copied while it was locked, or has outlived a boot, keeps a thread id
// that never unlocks it.
#ifndef VRELLIS_PROCESS_ROBUST_LOCK_H
#define VRELLIS_PROCESS_ROBUST_LOCK_H

#include <pthread.h>

#include <cstdint>

#include "process/process.h"

namespace vrellis {

struct RobustLock {
  int kind;             // the C library's: recursive, robust, shared
  std::uint32_t word;   // as above
  bool held;            // locked, or left locked by a thread that died
  bool owner_died;      // the next thread that locks it takes it over
  bool waiters;         // a thread waits, or did
  bool taken_over;      // from a dead thread, and not made consistent yet
  pid_t owner;          // thread id; 0: not known
  std::uint32_t depth;  // how often the owner has locked it
};

RobustLock read_robust_lock(const pthread_mutex_t &mutex);

// Whether a thread of this PID namespace that can unlock the mutex lives, as far as it can be told from outside.
// A thread whose process has other memory, or none, where the mutex lies is a later one of the same id: it counts as
// dead. `address`: of the mutex in the owner's process; `own`: where this process has its file mapped; 0: not compared.
Liveness liveness_of_owner(const RobustLock &lock, std::uint64_t address, std::uint64_t own);

// Whether no thread will ever unlock the mutex, nor the kernel mark it: who locks it waits for ever.
// Requires the mutex's memory to be mapped and shared.
bool is_lost(const pthread_mutex_t &mutex);

}  // namespace vrellis

#endif
