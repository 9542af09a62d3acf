// The trace files of the processes that have a window attached, or had it when they died.
#ifndef ENCAPCTL_WINDOW_TRACES_H
#define ENCAPCTL_WINDOW_TRACES_H

#include <map>
#include <string>
#include <vector>

#include "ptd.h"
#include "trace/traces.h"
#include "window/window.h"

namespace encapctl {

// What a window tells of the processes that use it.
struct Attached {
  std::vector<encap_inspect::AttachedProcess> processes;
  std::uint64_t created = 0;  // when the window was made, nanoseconds since 1970
  uid_t owner = 0;            // of the window's file
};

Attached attached_to(const Window &window);
Attached attached_to(const SourceOptions &options);  // reads the header alone; throws Failure when there is no window

// The trace files of the attached processes. Other processes may work on another database: their records would mix
// with those of this one. A file is believed only if it belongs to the window's owner, to root, to the caller, or to
// the user of the live process that it is named after.
TraceFiles traces_of(const Attached &attached, const TraceDirectory &directory);

// A thread that waits for the database's lock.
struct LockWait {
  std::uint32_t pid = 0;
  std::string comm;
  ptd_wait_t wait{};
  std::uint64_t waited_ns = 0;
};

// Who waits for the lock of a live window, the longest wait first. `files` are those of traces_of().
std::vector<LockWait> lock_waits(const Window &window, const TraceFiles &files);

// The names under which the attached processes run, or ran when they died with a trace file left behind.
using ProcessNames = std::map<std::uint32_t, std::string>;
ProcessNames names_of(const Attached &attached, const TraceFiles &files);

}  // namespace encapctl

#endif
