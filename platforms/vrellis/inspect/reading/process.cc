// Who is attached to a window, who holds its lock, and whether they live.
#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "lock_word.h"
#include "process/robust_lock.h"
#include "shmwin/process_table.h"

namespace encap_inspect {
namespace {

constexpr std::uint64_t kLockOffset = offsetof(vrellis::WindowHeader, user_area) + offsetof(egress_encap_db_t, lock);

pid_t process_of_thread(pid_t tid) {
  if (tid == gettid()) {
    return getpid();
  }
  char path[32];
  char text[2048];
  std::snprintf(path, sizeof path, "/proc/%d/status", tid);
  const char *const line = vrellis::read_small_file(path, text, sizeof text) ? std::strstr(text, "\nTgid:") : nullptr;
  return line != nullptr ? static_cast<pid_t>(std::strtol(line + 6, nullptr, 10)) : 0;
}

const vrellis::WindowHeader *identity_of(const View &view) {
  return static_cast<const vrellis::WindowHeader *>(view.at(0, 64, 8));
}

bool ids_mean_something(const View &view) {
  const auto *const header = identity_of(view);
  return view.is_live() && header != nullptr && vrellis::own_pid_namespace() == header->pid_namespace;
}

// What a mutex of a database is like, by making one.
int wanted_kind() {
  egress_encap_lock_t fresh{};
  eencap_lock_init(&fresh);
  const int kind = fresh.mutex.__data.__kind;
  pthread_mutex_destroy(&fresh.mutex);
  return kind;
}

}  // namespace

MappedFile::MappedFile(const View &view) : MappedFile(view.path()) {
  if (view.path().empty()) {
    address_ = reinterpret_cast<Address>(view.bytes().data());
  }
}

MappedFile::MappedFile(const std::string &path) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW);
  if (fd >= 0) {
    page_ = mmap(nullptr, vrellis::kPageBytes, PROT_READ, MAP_SHARED, fd, 0);
    address_ = page_ != MAP_FAILED ? reinterpret_cast<Address>(page_) : 0;
    close(fd);
  }
}

MappedFile::~MappedFile() {
  if (page_ != MAP_FAILED) {
    munmap(page_, vrellis::kPageBytes);
  }
}

vrellis::Mapped MappedFile::at(pid_t id, Address address) const {
  return address_ != 0 ? vrellis::maps_same_memory(id, address, address_) : vrellis::Mapped::kUnknown;
}

std::vector<AttachedProcess> decode_processes(const View &view) {
  std::vector<AttachedProcess> processes;
  const void *table = view.at(offsetof(vrellis::WindowHeader, process), 8 * vrellis::kMaxProcesses, 8);
  const auto *const header = identity_of(view);
  const bool meaningful = ids_mean_something(view);
  for (std::size_t i = 0; table != nullptr && i < vrellis::kMaxProcesses; ++i) {
    std::uint64_t word = 0;
    std::memcpy(&word, static_cast<const std::uint8_t *>(table) + 8 * i, sizeof word);
    if (word == 0) {
      continue;
    }
    AttachedProcess process{vrellis::pid_of_entry(word), vrellis::start_of_entry(word), Liveness::kUnknown};
    if (meaningful) {
      process.liveness = vrellis::liveness_of_entry(*header, word);
    }
    if (process.liveness == Liveness::kAlive && MappedFile(view).at(process.pid, view.base()) == vrellis::Mapped::kNo) {
      process.liveness = Liveness::kDead;  // it has the window that this one is a copy of
    }
    processes.push_back(process);
  }
  return processes;
}

LockState decode_lock(const View &view) {
  LockState lock;
  pthread_mutex_t mutex;
  const void *bytes = view.at(kLockOffset, sizeof mutex);
  if (bytes == nullptr) {
    return lock;
  }
  std::memcpy(&mutex, bytes, sizeof mutex);
  const vrellis::RobustLock read = vrellis::read_robust_lock(mutex);
  lock.owner_died = read.owner_died;
  lock.waiters = read.waiters;
  lock.held = read.held;
  lock.recognised =
      read.kind == wanted_kind() && (static_cast<std::uint32_t>(mutex.__data.__owner) <= 0x3fffffff || read.taken_over);
  if (!lock.recognised || !lock.held) {
    return lock;
  }
  lock.depth = read.depth;
  lock.owner_tid = read.owner;
  if (lock.owner_died) {
    lock.owner = Liveness::kDead;
  } else if (ids_mean_something(view)) {
    const MappedFile file(view);
    lock.owner = vrellis::liveness_of_owner(read, view.base() + kLockOffset, file.address());
    lock.owner_pid = process_of_thread(lock.owner_tid);
    if (lock.owner == Liveness::kDead && word_now(view, kLockOffset, read.word) != read.word) {
      lock.owner = Liveness::kUnknown;  // it gave the lock back before it ended
    }
  }
  return lock;
}

std::uint32_t word_now(const View &view, std::uint64_t offset, std::uint32_t otherwise) {
  std::uint32_t word = otherwise;
  const int fd = view.path().empty() ? -1 : open(view.path().c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd >= 0) {
    if (pread(fd, &word, sizeof word, static_cast<off_t>(offset)) != sizeof word) {
      word = otherwise;
    }
    close(fd);
  }
  return word;
}

bool lock_is_held_by_the_living(const View &view) {
  const LockState lock = decode_lock(view);
  return lock.recognised && lock.held && lock.owner != Liveness::kDead;
}

}  // namespace encap_inspect
