#include "trace/window_traces.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "output/failure.h"
#include "remote/process.h"
#include "shmwin/layout.h"

namespace encapctl {
namespace {

using encap_inspect::AttachedProcess;
using encap_inspect::Liveness;

// Every process knows the window at the same address.
std::uint64_t lock_address(const Window &window) {
  return window.view.base() + offsetof(vrellis::WindowHeader, user_area) + offsetof(egress_encap_db_t, lock);
}

std::uint64_t monotonic_now() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<std::uint64_t>(now.tv_nsec);
}

// The owner of a file or folder; root when it cannot be told.
uid_t owner_of(const std::string &path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 ? status.st_uid : 0;
}

}  // namespace

Attached attached_to(const Window &window) {
  return {window.db.processes, window.db.window.created, owner_of(window.view.path())};
}

Attached attached_to(const SourceOptions &options) {
  std::vector<std::uint8_t> header(sizeof(vrellis::WindowHeader));
  const std::string path = options.path();
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | (options.file ? 0 : O_NOFOLLOW));
  const ssize_t got = fd < 0 ? -1 : pread(fd, header.data(), header.size(), 0);
  const int error = errno;
  close(fd);
  if (got < 0) {
    throw Failure(fmt::format("cannot read '{}': {}; --all-traces reads the trace files of all processes", path,
                              std::strerror(error)));
  }
  const encap_inspect::View view = encap_inspect::View::copy_of(header.data(), static_cast<std::size_t>(got));
  const encap_inspect::Database db = encap_inspect::decode(view);
  if (!db.window.is_window) {
    throw Failure(fmt::format("'{}' is no window", path));
  }
  return {db.processes, db.window.created, owner_of(path)};
}

TraceFiles traces_of(const Attached &attached, const TraceDirectory &directory) {
  return open_traces(directory, [&](const vrellis::TraceListing &listing, uid_t owner) {
    const auto is_its = [&](const AttachedProcess &process) {
      return static_cast<std::uint32_t>(process.pid) == listing.pid && process.start_ticks == listing.start_time;
    };
    const bool believed = owner == 0 || owner == geteuid() || owner == attached.owner ||
                          (listing.alive && owner == owner_of(fmt::format("/proc/{}", listing.pid)));
    return believed && std::any_of(attached.processes.begin(), attached.processes.end(), is_its);
  });
}

std::vector<LockWait> lock_waits(const Window &window, const TraceFiles &files) {
  std::vector<LockWait> waits;
  const std::uint64_t now = monotonic_now();
  for (const auto &file : files) {
    if (!window.view.is_live() || !file->alive()) {
      continue;
    }
    for (const ptd_wait_t &wait : file->waits()) {
      if (wait.mutex == lock_address(window)) {
        waits.push_back({file->pid(), file->comm(), wait, now - std::min(now, wait.since_ns)});
      }
    }
  }
  std::sort(waits.begin(), waits.end(), [](const LockWait &a, const LockWait &b) { return a.waited_ns > b.waited_ns; });
  return waits;
}

ProcessNames names_of(const Attached &attached, const TraceFiles &files) {
  ProcessNames names;
  for (const auto &file : files) {
    names[file->pid()] = file->comm();
  }
  for (const AttachedProcess &process : attached.processes) {
    if (process.liveness == Liveness::kAlive) {
      names[static_cast<std::uint32_t>(process.pid)] = comm_of(static_cast<std::uint32_t>(process.pid));
    }
  }
  return names;
}

}  // namespace encapctl
