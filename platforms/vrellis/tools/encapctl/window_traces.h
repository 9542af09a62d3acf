// The trace files of the processes that have, or may have had, a window attached.
#ifndef ENCAPCTL_WINDOW_TRACES_H
#define ENCAPCTL_WINDOW_TRACES_H

#include <map>
#include <string>
#include <vector>

#include "ptd.h"
#include "traces.h"
#include "window.h"

namespace encapctl {

// A thread that waits for the database's lock.
struct LockWait {
  std::uint32_t pid = 0;
  std::string comm;
  ptd_wait_t wait{};
  std::uint64_t waited_ns = 0;
};

// The names under which the attached processes run, or ran when they died with a trace file left behind.
using ProcessNames = std::map<std::uint32_t, std::string>;
ProcessNames names_of_attached(const Window &window, const std::string &trace_directory);

// Who waits for the lock of a live window, the longest wait first.
std::vector<LockWait> lock_waits(const Window &window, const std::string &trace_directory);

// Trace files that can tell of this window: of processes attached to it, and of the dead. A live process that is not
// attached works on another one.
TraceFiles traces_of(const Window &window, const std::string &trace_directory);

}  // namespace encapctl

#endif
