#include "ltrace/sweep.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "ltrace/proc.h"

namespace vrellis {
namespace {

// A dead process's file, as the sweep weighs it.
struct DeadFile {
  std::uint64_t newest;  // ticks of the last block that was written; 0 in another boot
  char name[64];
};

// Returns: true when the file may be removed, since its process is known to have ended.
bool weigh_dead_file(int directory, const char *name, const FileHeader &own, DeadFile &dead) {
  std::uint32_t pid = 0;
  std::uint64_t start = 0;
  if (std::strlen(name) >= sizeof dead.name || !parse_trace_name(name, pid, start) ||
      liveness_of({static_cast<pid_t>(pid), start, own.pid_namespace}) != Liveness::kDead) {
    return false;
  }
  const int fd = openat(directory, name, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
  FileHeader header{};
  const ssize_t got = fd >= 0 ? pread(fd, &header, sizeof header, 0) : -1;
  if (fd >= 0) {
    close(fd);
  }
  const bool whole = got == static_cast<ssize_t>(sizeof header) && header.magic == kTraceMagic;
  if (got < 0 || (whole && header.pid_namespace != own.pid_namespace)) {
    return false;
  }
  std::memcpy(dead.name, name, std::strlen(name) + 1);
  dead.newest = 0;
  if (whole && std::memcmp(header.boot_id, own.boot_id, sizeof own.boot_id) == 0) {
    for (const RingEntry &ring : header.ring) {
      dead.newest = std::max(dead.newest, ring.newest);
    }
  }
  return true;
}

}  // namespace

void sweep_trace_files(int directory, const FileHeader &own) {
  constexpr std::size_t kKept = 16;
  DeadFile kept[kKept];
  std::size_t count = 0;
  DIR *listing = fdopendir(dup(directory));
  while (const dirent *entry = listing != nullptr ? readdir(listing) : nullptr) {
    DeadFile dead;
    if (!weigh_dead_file(directory, entry->d_name, own, dead)) {
      continue;
    }
    if (count < kKept) {
      kept[count++] = dead;
      continue;
    }
    DeadFile *oldest = std::min_element(kept, kept + kKept, [](auto &a, auto &b) { return a.newest < b.newest; });
    if (oldest->newest < dead.newest) {
      std::swap(*oldest, dead);
    }
    unlinkat(directory, dead.name, 0);
  }
  if (listing != nullptr) {
    closedir(listing);
  }
}

}  // namespace vrellis
