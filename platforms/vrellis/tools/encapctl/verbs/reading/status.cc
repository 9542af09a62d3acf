// encapctl status: the window, who uses it, and its lock.
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cinttypes>
#include <cstdio>
#include <fstream>
#include <optional>

#include "shmwin/layout.h"
#include "trace/window_traces.h"
#include "verbs.h"

namespace encapctl {
namespace {

using namespace encap_inspect;

struct StatusOptions {
  SourceOptions window;
  TraceDirectory traces;
  OutputOptions output;
};

struct Status {
  ProcessNames names;
  std::optional<std::uint64_t> huge_bytes;
  std::vector<LockWait> waits;
  Report report;
};

std::string_view name_of(Liveness liveness) {
  constexpr std::array<std::string_view, 3> kNames = {"unknown", "alive", "dead"};
  return kNames[static_cast<std::size_t>(liveness)];
}

std::string name_in(const ProcessNames &names, pid_t pid) {
  const auto name = names.find(static_cast<std::uint32_t>(pid));
  return name != names.end() ? name->second : "";
}

// The process that holds the lock; 0: not known. Of a dead one the system knows no threads: its first thread has its
// id.
pid_t lock_owner(const Database &db) {
  const auto is_owner = [&](const AttachedProcess &process) { return process.pid == db.lock.owner_tid; };
  const bool known = db.lock.owner_pid != 0 || std::none_of(db.processes.begin(), db.processes.end(), is_owner);
  return known ? db.lock.owner_pid : db.lock.owner_tid;
}

std::string lock_text(const Database &db, const ProcessNames &names) {
  const LockState &lock = db.lock;
  if (!lock.recognised || !lock.held) {
    return std::string(lock_word(lock));
  }
  const pid_t pid = lock_owner(db);
  const std::string owner = pid != 0 ? fmt::format("{}/{} ({})", pid, lock.owner_tid, name_in(names, pid))
                                     : fmt::format("thread {}", lock.owner_tid);
  if (lock.lost()) {
    return fmt::format("lost: {}, which is gone, can never give it back: encapctl repair makes it anew", owner);
  }
  if (lock.owner_died) {
    return fmt::format("left locked by {}, which is dead: the next to lock it takes it over", owner);
  }
  return fmt::format("held by {}, {}, locked {} deep", owner, name_of(lock.owner), lock.depth);
}

// How much of the window a process has mapped by huge pages. Empty when the process may not be looked into.
std::optional<std::uint64_t> huge_bytes_in(pid_t pid, std::uint64_t address) {
  std::ifstream lines(fmt::format("/proc/{}/smaps", pid));
  const std::string begin = fmt::format("{:x}-", address);
  std::string line;
  while (std::getline(lines, line) && !line.starts_with(begin)) {
  }
  std::uint64_t size = 0, page = 0, huge = 0, kib = 0;
  char name[32];
  while (std::getline(lines, line) && std::sscanf(line.c_str(), "%31[A-Za-z]: %" SCNu64 " kB", name, &kib) == 2) {
    const std::string_view field = name;
    size = field == "Size" ? kib : size;
    page = field == "KernelPageSize" ? kib : page;
    huge += field == "ShmemPmdMapped" || field == "FilePmdMapped" ? kib : 0;
  }
  constexpr std::uint64_t kSmallPageKib = vrellis::kPageBytes / 1024;
  return size == 0 ? std::nullopt : std::optional((page > kSmallPageKib ? size : huge) * 1024);
}

std::optional<std::uint64_t> huge_bytes_of(const Window &window) {
  for (const AttachedProcess &process : window.db.processes) {
    if (process.liveness == Liveness::kAlive) {
      if (const auto bytes = huge_bytes_in(process.pid, window.db.window.address)) {
        return bytes;
      }
    }
  }
  return std::nullopt;
}

Json processes_json(const Database &db, const ProcessNames &names) {
  Json processes = Json::array();
  for (const AttachedProcess &process : db.processes) {
    processes.push_back({{"pid", process.pid},
                         {"comm", name_in(names, process.pid)},
                         {"start_ticks", process.start_ticks},
                         {"liveness", name_of(process.liveness)}});
  }
  return processes;
}

Json waits_json(const std::vector<LockWait> &waits) {
  Json all = Json::array();
  for (const LockWait &wait : waits) {
    all.push_back({{"pid", wait.pid},
                   {"tid", wait.wait.tid},
                   {"comm", wait.comm},
                   {"function", wait.wait.function},
                   {"line", wait.wait.line},
                   {"waited_ns", wait.waited_ns}});
  }
  return all;
}

void print_json(const Output &out, const Window &window, const Status &status) {
  const Database &db = window.db;
  out.object(
      "status",
      {{"path", window.view.path()},
       {"live", window.view.is_live()},
       {"stillness", stillness_name(window)},
       {"window",
        {{"valid", db.window.is_window},
         {"version", db.window.version},
         {"shm_id", db.window.shm_id},
         {"size", db.window.size},
         {"file_size", window.view.file_size()},
         {"address", db.window.address},
         {"huge_bytes", status.huge_bytes ? Json(*status.huge_bytes) : Json()},
         {"created_ns", db.window.created}}},
       {"database",
        {{"initialised", db.initialised},
         {"usable", db.usable},
         {"nh_start", db.nh_start},
         {"nh_end", db.nh_end},
         {"tun_start", db.tun_start},
         {"tun_end", db.tun_end},
         {"nhs", db.nhs.size()},
         {"tunnels", db.tunnels.size()}}},
       {"heap", {{"pages", db.heap.pages}, {"free_pages", db.heap.free_pages}, {"high_water", db.heap.high_water}}},
       {"lock",
        {{"state", lock_word(db.lock)},
         {"tid", db.lock.owner_tid},
         {"pid", lock_owner(db)},
         {"owner", name_of(db.lock.owner)},
         {"depth", db.lock.depth},
         {"waiters", db.lock.waiters}}},
       {"undo_log", db.undo_count},
       {"processes", processes_json(db, status.names)},
       {"waits", waits_json(status.waits)},
       {"faults", status.report.faults()},
       {"sound", status.report.sound()}});
}

void print_window(const Output &out, const Window &window, std::optional<std::uint64_t> huge_bytes) {
  const Database &db = window.db;
  out.fact(window.view.is_live() ? "window" : "snapshot", window.view.path());
  if (!db.window.is_window) {
    return;
  }
  out.fact("", fmt::format("id {}, {} at {:#x}, layout version {}", db.window.shm_id, bytes_text(db.window.size),
                           db.window.address, db.window.version));
  if (huge_bytes.value_or(0) != 0) {
    out.fact("", fmt::format("{} of it mapped by huge pages", bytes_text(*huge_bytes)));
  }
  out.fact("created", time_text(static_cast<std::int64_t>(db.window.created)));
  const std::uint64_t used = db.heap.pages - db.heap.free_pages;
  out.fact("use", fmt::format("{} of {} pages ({}), at most {} so far", used, db.heap.pages,
                              percent_text(used, db.heap.pages), db.heap.high_water));
  if (db.usable) {
    out.fact("NHs",
             fmt::format("{} in the trees, indexes {} to {}", db.nhs.size(), db.nh_start, std::int64_t{db.nh_end} - 1));
    out.fact("tunnels", fmt::format("{} in the tree, indexes {} to {}, and 0", db.tunnels.size(), db.tun_start,
                                    std::int64_t{db.tun_end} - 1));
  } else {
    out.fact("database", out.styled(Style::bad, db.initialised ? "cannot be read" : "none"));
  }
}

void print_lock(const Output &out, const Window &window, const Status &status) {
  const LockState &lock = window.db.lock;
  const bool bad = !lock.recognised || lock.owner_died || lock.owner == Liveness::kDead;
  out.fact("lock", out.styled(bad ? Style::bad : Style::plain, lock_text(window.db, status.names)));
  if (window.db.undo_count != 0) {
    out.fact(
        "", fmt::format("a change of a tree is under way or was cut off: {} words to roll back", window.db.undo_count));
  }
  for (const LockWait &wait : status.waits) {
    out.fact("waits", fmt::format("{}/{} ({}) for {}, in {}", wait.pid, wait.wait.tid, wait.comm,
                                  duration_text(wait.waited_ns), wait.wait.function));
  }
}

void print_processes(const Output &out, const Database &db, const ProcessNames &names) {
  for (const AttachedProcess &process : db.processes) {
    const Style style = process.liveness == Liveness::kDead ? Style::bad : Style::plain;
    out.fact("process", out.styled(style, fmt::format("{:>7}  {}  {}", process.pid, name_of(process.liveness),
                                                      name_in(names, process.pid))));
  }
  if (db.processes.empty()) {
    out.fact("process", "none attached");
  }
}

void print_text(const Output &out, const Window &window, const Status &status) {
  print_window(out, window, status.huge_bytes);
  if (window.db.window.is_window) {
    print_lock(out, window, status);
    print_processes(out, window.db, status.names);
  }
  if (window.still()) {
    out.fact("check", status.report.sound()
                          ? out.styled(Style::good, "sound")
                          : out.styled(Style::bad, fmt::format("{}: see encapctl check",
                                                               counted(status.report.faults(), "finding"))));
  }
}

int run(StatusOptions &options) {
  const std::unique_ptr<Window> window = look_at(options.window);
  const Attached attached = attached_to(*window);
  const TraceFiles files = traces_of(attached, options.traces);
  const Status status = {names_of(attached, files), huge_bytes_of(*window), lock_waits(*window, files),
                         check(window->view)};
  const Output out(options.output);
  if (out.json()) {
    print_json(out, *window, status);
  } else {
    print_text(out, *window, status);
  }
  return window->db.window.is_window ? kDone : kUnable;
}

}  // namespace

void add_status(CLI::App &app, int &status) {
  add_verb<StatusOptions>(app, status, run, "status",
                          "The window, the processes attached to it, its lock and who waits for it",
                          "  encapctl status\n"
                          "  encapctl status --dir /dev/shm/encap-demo-1 --name window --json | jq .lock");
}

}  // namespace encapctl
