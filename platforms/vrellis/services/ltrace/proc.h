// Processes and the names of their trace files, for the writer and the reader alike.
#ifndef VRELLIS_LTRACE_PROC_H
#define VRELLIS_LTRACE_PROC_H

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace vrellis {

inline constexpr char kTraceSuffix[] = ".ltrace";

// Reads all of a small file of /proc as text. Returns: false when it cannot be read.
inline bool read_proc_text(const char *path, char *text, std::size_t room) {
  const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    return false;
  }
  const ssize_t got = ::read(fd, text, room - 1);
  ::close(fd);
  text[got > 0 ? got : 0] = '\0';
  return got > 0;
}

// Start time of process `pid` in ticks since boot: with the pid it names the process for good.
// Returns: 0 when there is no such process, or only its remains.
inline std::uint64_t process_start_time(std::uint32_t pid) {
  char path[40];
  char text[1024];
  std::snprintf(path, sizeof path, "/proc/%" PRIu32 "/stat", pid);
  if (!read_proc_text(path, text, sizeof text)) {
    return 0;
  }
  const char *field = std::strrchr(text, ')');  // the name before it may hold anything
  char state = 0;
  std::uint64_t start = 0;
  constexpr char kFields[] = ") %c %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %" SCNu64;
  if (field == nullptr || std::sscanf(field, kFields, &state, &start) != 2 || state == 'Z' || state == 'X') {
    return 0;
  }
  return start;
}

// The PID namespace that this process's pids belong to; 0 when unknown.
inline std::uint64_t pid_namespace() {
  struct stat status;
  return ::stat("/proc/self/ns/pid", &status) == 0 ? status.st_ino : 0;
}

// Names this boot of the machine; empty when unknown.
inline void read_boot_id(char (&id)[40]) {
  read_proc_text("/proc/sys/kernel/random/boot_id", id, sizeof id);
  id[std::strcspn(id, "\n")] = '\0';
}

// Takes the name of a trace file, <pid>-<start time>[-<n>].ltrace, apart. Returns: false when it is no such name.
inline bool parse_trace_name(const char *name, std::uint32_t &pid, std::uint64_t &start) {
  const std::size_t length = std::strlen(name);
  const std::size_t suffix = sizeof kTraceSuffix - 1;
  if (length <= suffix || std::strcmp(name + length - suffix, kTraceSuffix) != 0) {
    return false;
  }
  return std::sscanf(name, "%" SCNu32 "-%" SCNu64, &pid, &start) == 2;
}

}  // namespace vrellis

#endif
