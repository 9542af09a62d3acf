#include "remote/process.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <fstream>

#include "output/failure.h"

namespace encapctl {
namespace {

[[noreturn]] void refuse(std::uint32_t pid, int error) {
  if (error == ESRCH || error == ENOENT) {
    throw Failure(fmt::format("there is no process {}", pid));
  }
  if (error == EPERM || error == EACCES) {
    throw Failure(
        fmt::format("process {} may not be looked into: that takes the permission to trace it (its own user "
                    "where kernel.yama.ptrace_scope allows, or CAP_SYS_PTRACE)",
                    pid));
  }
  throw Failure(fmt::format("process {} cannot be looked into: {}", pid, std::strerror(error)));
}

using Transfer = ssize_t (*)(pid_t, const iovec *, unsigned long, const iovec *, unsigned long, unsigned long);

bool transfer(Transfer call, std::uint32_t pid, void *local, std::uint64_t address, std::size_t size) {
  const iovec here = {local, size};
  const iovec there = {reinterpret_cast<void *>(address), size};
  const ssize_t moved = call(static_cast<pid_t>(pid), &here, 1, &there, 1, 0);
  if (moved < 0 && errno != EFAULT) {
    refuse(pid, errno);
  }
  return moved == static_cast<ssize_t>(size);
}

// A line of /proc/PID/maps. Returns: nothing for a mapping of no file, or one that may not be read.
std::optional<Mapping> parse_mapping(const std::string &line) {
  Mapping mapping;
  char permission[5] = {};
  int path = 0;
  const int fields = std::sscanf(line.c_str(), "%" SCNx64 "-%" SCNx64 " %4s %" SCNx64 " %*s %*s %n", &mapping.begin,
                                 &mapping.end, permission, &mapping.offset, &path);
  if (fields != 4 || path <= 0 || static_cast<std::size_t>(path) >= line.size() || permission[0] != 'r') {
    return std::nullopt;
  }
  mapping.writable = permission[1] == 'w';
  mapping.path = line.substr(static_cast<std::size_t>(path));
  return mapping;
}

}  // namespace

std::string comm_of(std::uint32_t pid) {
  std::ifstream file(fmt::format("/proc/{}/comm", pid));
  std::string name;
  std::getline(file, name);
  return name;
}

std::string RemoteProcess::comm() const {
  return comm_of(pid_);
}

std::vector<Mapping> RemoteProcess::mappings_of(std::string_view file_name) const {
  errno = 0;
  std::ifstream maps(fmt::format("/proc/{}/maps", pid_));
  if (!maps) {
    refuse(pid_, errno);
  }
  std::vector<Mapping> found;
  for (std::string line; std::getline(maps, line);) {
    std::optional<Mapping> mapping = parse_mapping(line);
    if (mapping && std::string_view(mapping->path).substr(mapping->path.rfind('/') + 1).starts_with(file_name)) {
      found.push_back(std::move(*mapping));
    }
  }
  if (maps.bad()) {
    refuse(pid_, EACCES);
  }
  return found;
}

int RemoteProcess::open_mapped(const Mapping &mapping) const {
  const std::string paths[] = {fmt::format("/proc/{}/map_files/{:x}-{:x}", pid_, mapping.begin, mapping.end),
                               fmt::format("/proc/{}/root{}", pid_, mapping.path)};
  for (const std::string &path : paths) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    struct stat status {};
    if (fd >= 0 && fstat(fd, &status) == 0 && S_ISREG(status.st_mode)) {
      return fd;
    }
    close(fd);
  }
  throw Failure(
      fmt::format("process {} has {} loaded, which cannot be read: {}", pid_, mapping.path, std::strerror(errno)));
}

bool RemoteProcess::read(std::uint64_t address, void *out, std::size_t size) const {
  return transfer(process_vm_readv, pid_, out, address, size);
}

bool RemoteProcess::write(std::uint64_t address, const void *from, std::size_t size) const {
  return transfer(process_vm_writev, pid_, const_cast<void *>(from), address, size);
}

}  // namespace encapctl
