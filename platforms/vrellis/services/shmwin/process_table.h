// The table in a window's header of the processes that have the window attached.
//
// An entry is one word, so that one compare-and-swap makes it or takes it out, and no death leaves half an entry:
//
//    63                                22 21            0
//   |  start time, ticks since boot      |  process id  |   0: free
#ifndef VRELLIS_SHMWIN_PROCESS_TABLE_H
#define VRELLIS_SHMWIN_PROCESS_TABLE_H

#include "process/process.h"
#include "shmwin/layout.h"

namespace vrellis {

inline constexpr int kPidBits = 22;  // the kernel's own bound on process ids

inline pid_t pid_of_entry(std::uint64_t entry) {
  return static_cast<pid_t>(entry & ((1U << kPidBits) - 1));
}
inline std::uint64_t start_of_entry(std::uint64_t entry) {
  return entry >> kPidBits;
}

// Whether the process of an entry in this window's table still has the window. It has not when it is dead, and when it
// has run another program since, which keeps its id and start time.
Liveness liveness_of_entry(const WindowHeader &header, std::uint64_t entry);

// Fills `error` when a process has the window attached, or may have. Returns: 0; 16 (EBUSY).
int refuse_if_attached(const WindowHeader &header, const char *name, shmwin_error_t *error);

// Takes the processes that are dead or have run another program out of the table, and counts them in the header.
// Locking: none; safe beside other processes that do the same.
void sweep_processes(WindowHeader &header);

// Enters the calling process; a full table is swept first. Returns: 0; 11 (EAGAIN) when all live; 2 (ENOENT) when /proc
// does not tell who this process is.
// Locking: none; safe beside other processes that do the same, and in the child of a fork.
int enter_process(WindowHeader &header);

// Takes the calling process out.
void leave_process(WindowHeader &header);

}  // namespace vrellis

#endif
