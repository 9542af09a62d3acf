// Processes and the names of their trace files, for the writer and the reader alike.
#ifndef VRELLIS_LTRACE_PROC_H
#define VRELLIS_LTRACE_PROC_H

#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "process/process.h"

namespace vrellis {

inline constexpr char kTraceSuffix[] = ".ltrace";

// Names this boot of the machine; empty when unknown.
inline void read_boot_id(char (&id)[40]) {
  read_small_file("/proc/sys/kernel/random/boot_id", id, sizeof id);
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
