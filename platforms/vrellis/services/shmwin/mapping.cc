// A window's place in a process: one address in all of them, and never over something that lies there.
#include "shmwin/mapping.h"

#include <linux/magic.h>
#include <sys/mman.h>
#include <sys/vfs.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "shmwin/file.h"
#include "shmwin/layout.h"

namespace vrellis {
namespace {

// Default addresses: below where programs are loaded, and free in processes under Address- and ThreadSanitizer, too.
constexpr std::uint64_t kFirstAddress = 0x551000000000;
constexpr std::uint64_t kAddressStep = std::uint64_t{32} << 30;
constexpr std::uint32_t kAddresses = 8;
constexpr std::uint64_t kHugeWindowBytes = 16 << 20;
static_assert(kFirstAddress + kAddresses * kAddressStep <= 0x555500000000);

// What lies first in an address range of this process, as the system lists it: its name, or what it is.
void name_mapping(std::uint64_t begin, std::uint64_t end, char (&name)[160]) {
  std::snprintf(name, sizeof name, "something that is gone by now");
  std::FILE *const maps = std::fopen("/proc/self/maps", "re");
  char line[512];
  while (maps != nullptr && std::fgets(line, sizeof line, maps) != nullptr) {
    std::uint64_t from = 0;
    std::uint64_t to = 0;
    int at = 0;
    if (std::sscanf(line, "%" SCNx64 "-%" SCNx64 " %*s %*s %*s %*s %n", &from, &to, &at) >= 2 && from < end &&
        begin < to) {
      line[std::strcspn(line, "\n")] = '\0';
      const char *const file = at != 0 && line[at] != '\0' ? line + at : "memory of no file";
      std::snprintf(name, sizeof name, "%.100s at %#" PRIx64 "-%#" PRIx64, file, from, to);
      break;
    }
  }
  if (maps != nullptr) {
    std::fclose(maps);
  }
}

}  // namespace

std::uint64_t page_bytes_of(int fd) {
  struct statfs system;
  return fstatfs(fd, &system) == 0 && system.f_type == HUGETLBFS_MAGIC ? static_cast<std::uint64_t>(system.f_bsize)
                                                                       : kPageBytes;
}

int map_file(int fd, std::uint64_t address, std::uint64_t size) {
  void *const wanted = reinterpret_cast<void *>(address);
  void *const mapped = mmap(wanted, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED_NOREPLACE, fd, 0);
  if (mapped == MAP_FAILED) {
    return errno;
  }
  if (mapped != wanted) {  // a kernel that takes the address for advice
    munmap(mapped, size);
    return EEXIST;
  }
  if (size >= kHugeWindowBytes) {
    madvise(mapped, size, MADV_HUGEPAGE);  // a system without huge pages refuses, and nothing depends on them
  }
  return 0;
}

int refuse_mapping(const char *window, int status, std::uint64_t address, std::uint64_t size, shmwin_error_t *error) {
  if (status != EEXIST) {
    return refuse(error, status, "window '%s' cannot be mapped at %#" PRIx64 ": %s", window, address,
                  std::strerror(status));
  }
  char name[160];
  name_mapping(address, address + size, name);
  return refuse(error, EEXIST, "window '%s' needs %#" PRIx64 "-%#" PRIx64 ", where this process has %s", window,
                address, address + size, name);
}

int map_new(int fd, const shmwin_config_t &config, std::uint64_t size, std::uint64_t *address, shmwin_error_t *error) {
  int status = EEXIST;
  for (std::uint32_t i = 0; i < kAddresses && status == EEXIST; ++i) {
    *address = config.address != 0 ? config.address
                                   : kFirstAddress + (config.shm_id + std::uint64_t{i}) % kAddresses * kAddressStep;
    status = map_file(fd, *address, size);
    if (config.address != 0) {
      break;
    }
  }
  return status == 0 ? 0 : refuse_mapping(config.name, status, *address, size, error);
}

}  // namespace vrellis
