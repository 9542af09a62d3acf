#include "window_traces.h"

#include <algorithm>
#include <ctime>

#include "remote_process.h"
#include "shmwin/layout.h"

namespace encapctl {
namespace {

using encap_inspect::AttachedProcess;
using encap_inspect::Liveness;

bool is_attached(const Window &window, const vrellis::TraceListing &listing) {
  return std::any_of(window.db.processes.begin(), window.db.processes.end(), [&](const AttachedProcess &process) {
    return static_cast<std::uint32_t>(process.pid) == listing.pid && process.start_ticks == listing.start_time;
  });
}

// Every process knows the window at the same address.
std::uint64_t lock_address(const Window &window) {
  return window.view.base() + offsetof(vrellis::WindowHeader, user_area) + offsetof(egress_encap_db_t, lock);
}

std::uint64_t monotonic_now() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<std::uint64_t>(now.tv_nsec);
}

}  // namespace

std::vector<LockWait> lock_waits(const Window &window, const std::string &trace_directory) {
  std::vector<LockWait> waits;
  if (!window.view.is_live()) {
    return waits;
  }
  const std::vector<std::string> directories = trace_directories(trace_directory);
  const TraceFiles files = open_traces(
      directories, [&](const vrellis::TraceListing &listing) { return listing.alive && is_attached(window, listing); });
  const std::uint64_t now = monotonic_now();
  for (const auto &file : files) {
    for (const ptd_wait_t &wait : file->waits()) {
      if (wait.mutex == lock_address(window)) {
        waits.push_back({file->pid(), file->comm(), wait, now - std::min(now, wait.since_ns)});
      }
    }
  }
  std::sort(waits.begin(), waits.end(), [](const LockWait &a, const LockWait &b) { return a.waited_ns > b.waited_ns; });
  return waits;
}

ProcessNames names_of_attached(const Window &window, const std::string &trace_directory) {
  ProcessNames names;
  for (const AttachedProcess &process : window.db.processes) {
    if (process.liveness == Liveness::kAlive) {
      names[static_cast<std::uint32_t>(process.pid)] = comm_of(static_cast<std::uint32_t>(process.pid));
    }
  }
  const std::vector<std::string> directories = trace_directories(trace_directory);
  for (const auto &file : open_traces(directories, [&](const vrellis::TraceListing &listing) {
         return !listing.alive && is_attached(window, listing);
       })) {
    names[file->pid()] = file->comm();
  }
  return names;
}

TraceFiles traces_of(const Window &window, const std::string &trace_directory) {
  const std::vector<std::string> directories = trace_directories(trace_directory);
  return open_traces(directories, [&](const vrellis::TraceListing &listing) {
    return !listing.alive || is_attached(window, listing);
  });
}

}  // namespace encapctl
