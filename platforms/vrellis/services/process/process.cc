#include "process/process.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace vrellis {
namespace {

// Whether /proc speaks of this process's PID namespace: a container may see the /proc of its host.
bool proc_is_ours() {
  char self[16] = {};
  return readlink("/proc/self", self, sizeof self - 1) > 0 && std::strtol(self, nullptr, 10) == getpid();
}

// Start times are shown shifted by the time namespace of the process that reads them.
// Out: *ticks, this process's shift. Returns: false when it cannot be told.
bool own_time_shift(std::int64_t *ticks) {
  *ticks = 0;
  char text[256];
  if (!read_small_file("/proc/self/timens_offsets", text, sizeof text)) {
    return access("/proc/self/ns/time", F_OK) != 0;  // a kernel without time namespaces
  }
  // The file tells the namespace of the children that are still to come.
  struct stat own {};
  struct stat coming {};
  if (stat("/proc/self/ns/time", &own) != 0 || stat("/proc/self/ns/time_for_children", &coming) != 0 ||
      own.st_ino != coming.st_ino) {
    return false;
  }
  const char *const line = std::strstr(text, "boottime");
  long long seconds = 0;
  long nanoseconds = 0;
  if (line == nullptr || std::sscanf(line, "boottime %lld %ld", &seconds, &nanoseconds) != 2) {
    return false;
  }
  const std::int64_t per_second = sysconf(_SC_CLK_TCK);
  *ticks = seconds * per_second + nanoseconds / (1000000000 / per_second);
  return true;
}

// Start times of different time namespaces are rounded differently: they agree to one tick. No process id comes back
// within two ticks.
bool same_start(std::uint64_t a, std::uint64_t b) {
  return a - b + 1 <= 2;
}

bool has_ended(const ProcessStat &stat) {
  return stat.state == 'Z' || stat.state == 'X' || stat.state == 'x';
}

// What remains to be said of an id that /proc does not show.
Liveness liveness_of_hidden(pid_t id) {
  return id <= 0 || (kill(id, 0) != 0 && errno == ESRCH) ? Liveness::kDead : Liveness::kUnknown;
}

// A line of /proc/PID/maps: "begin-end permissions offset device inode path".
// Out: *file, device and inode. Returns: whether it is a shared mapping that covers `address`.
bool is_shared_mapping_of(const char *line, std::uint64_t address, char (&file)[48]) {
  std::uint64_t begin = 0;
  std::uint64_t end = 0;
  char permissions[5] = {};
  char device[16] = {};
  char inode[24] = {};
  const bool read =
      std::sscanf(line, "%" SCNx64 "-%" SCNx64 " %4s %*s %15s %23s", &begin, &end, permissions, device, inode) == 5;
  std::snprintf(file, sizeof file, "%s %s", device, inode);
  return read && begin <= address && address < end && permissions[3] == 's';
}

Mapped find_shared_memory(pid_t pid, std::uint64_t address, char (&file)[48]) {
  char text[4096];
  std::snprintf(text, sizeof text, "/proc/%d/maps", pid);
  const int fd = proc_is_ours() ? open(text, O_RDONLY | O_CLOEXEC) : -1;
  if (fd < 0) {
    return Mapped::kUnknown;
  }
  Mapped answer = Mapped::kUnknown;
  std::size_t kept = 0;     // bytes of a line that is not complete yet
  bool line_begins = true;  // at text[0]
  ssize_t got = 0;
  while (answer != Mapped::kYes && (got = read(fd, text + kept, sizeof text - 1 - kept)) > 0) {
    text[kept + static_cast<std::size_t>(got)] = '\0';
    answer = Mapped::kNo;
    const char *line = text;
    for (const char *end = nullptr; (end = std::strchr(line, '\n')) != nullptr; line = end + 1) {
      if (line_begins && answer == Mapped::kNo && is_shared_mapping_of(line, address, file)) {
        answer = Mapped::kYes;
      }
      line_begins = true;
    }
    kept = std::strlen(line);
    if (kept == sizeof text - 1) {  // a path longer than the buffer: only its end is still to come
      kept = 0;
      line_begins = false;
    }
    std::memmove(text, line, kept);
  }
  close(fd);
  return answer;
}

}  // namespace

bool read_small_file(const char *path, char *text, std::size_t room) {
  const int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    return false;
  }
  const ssize_t got = read(fd, text, room - 1);
  close(fd);
  text[got > 0 ? got : 0] = '\0';
  return got > 0;
}

bool parse_process_stat(const char *text, ProcessStat *stat) {
  const char *const begin = std::strchr(text, '(');
  const char *const end = std::strrchr(text, ')');
  *stat = ProcessStat{};
  if (begin == nullptr || end == nullptr || end < begin) {
    return false;
  }
  std::snprintf(stat->comm, sizeof stat->comm, "%.*s", static_cast<int>(end - begin - 1), begin + 1);
  constexpr char kFields[] =
      ") %c %d %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %" SCNu32 " %*s %" SCNu64;
  return std::sscanf(end, kFields, &stat->state, &stat->parent, &stat->threads, &stat->start) == 4;
}

bool read_process_stat(pid_t id, ProcessStat *stat) {
  char path[32];
  char text[1024];
  std::snprintf(path, sizeof path, "/proc/%d/stat", id);
  if (!proc_is_ours() || !read_small_file(path, text, sizeof text) || !parse_process_stat(text, stat)) {
    return false;
  }
  std::int64_t shift = 0;
  stat->start = own_time_shift(&shift) ? stat->start - static_cast<std::uint64_t>(shift) : 0;
  return true;
}

std::uint64_t own_pid_namespace() {
  struct stat status {};
  return stat("/proc/self/ns/pid", &status) == 0 ? status.st_ino : 0;
}

ProcessId own_process() {
  ProcessStat stat{};
  return {getpid(), read_process_stat(getpid(), &stat) ? stat.start : 0, own_pid_namespace()};
}

Liveness liveness_of(const ProcessId &process) {
  if (process.pid_namespace == 0 || process.pid_namespace != own_pid_namespace()) {
    return Liveness::kUnknown;
  }
  ProcessStat stat{};
  if (!read_process_stat(process.pid, &stat)) {
    return liveness_of_hidden(process.pid);
  }
  if (has_ended(stat) && stat.threads <= 1) {
    return Liveness::kDead;
  }
  if (stat.start == 0 || process.start == 0) {
    return Liveness::kUnknown;
  }
  return same_start(stat.start, process.start) ? Liveness::kAlive : Liveness::kDead;
}

Liveness liveness_of_thread(pid_t tid) {
  ProcessStat stat{};
  if (tid == gettid()) {
    return Liveness::kAlive;
  }
  if (!read_process_stat(tid, &stat)) {
    return liveness_of_hidden(tid);
  }
  return has_ended(stat) ? Liveness::kDead : Liveness::kAlive;
}

Mapped maps_shared_memory(pid_t pid, std::uint64_t address) {
  char file[48];
  return find_shared_memory(pid, address, file);
}

Mapped maps_same_memory(pid_t id, std::uint64_t address, std::uint64_t own) {
  char own_file[48];
  char other_file[48];
  if (find_shared_memory(getpid(), own, own_file) != Mapped::kYes) {
    return Mapped::kUnknown;
  }
  const Mapped mapped = find_shared_memory(id, address, other_file);
  return mapped == Mapped::kYes && std::strcmp(own_file, other_file) != 0 ? Mapped::kNo : mapped;
}

void describe_process(pid_t pid, char (&text)[kProcessTextBytes]) {
  ProcessStat stat{};
  if (!read_process_stat(pid, &stat)) {
    std::snprintf(text, sizeof text, "process %d", pid);
    return;
  }
  for (char *byte = stat.comm; *byte != '\0'; ++byte) {
    *byte = *byte >= ' ' && *byte <= '~' ? *byte : '?';
  }
  const bool stopped = stat.state == 'T' || stat.state == 't';
  std::snprintf(text, sizeof text, "process %d (%s)%s", pid, stat.comm, stopped ? ", which is stopped" : "");
}

}  // namespace vrellis
