// The table of processes in a window's header. An entry is one word, so that it is made and taken out by one
// compare-and-swap: nothing is ever half entered, whoever dies.
//
//    63                                22 21            0
//   |  start time, ticks since boot      |  process id  |
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "shmwin/file.h"

namespace vrellis {
namespace {

constexpr int kPidBits = 22;  // the kernel's own bound on process ids

// The start time in the text of /proc/<pid>/stat, field 22; 0 when the text is none. The second field, the command in
// parentheses, may itself hold blanks and parentheses.
std::uint64_t start_time_in(char *text) {
  char *at = std::strrchr(text, ')');
  for (int field = 2; at != nullptr && field < 22; ++field) {
    at = std::strchr(at + 1, ' ');
  }
  return at != nullptr ? std::strtoull(at, nullptr, 10) : 0;
}

// Takes no lock and no memory: it runs in the child of a fork, too.
std::uint64_t process_entry(const char *directory, int pid) {
  char text[1024];
  std::snprintf(text, sizeof text, "/proc/%.32s/stat", directory);
  const int fd = open(text, O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    return 0;
  }
  const ssize_t length = read(fd, text, sizeof text - 1);
  close(fd);
  text[length > 0 ? length : 0] = '\0';
  const std::uint64_t start = start_time_in(text);
  return start != 0 ? start << kPidBits | static_cast<std::uint64_t>(pid) : 0;
}

bool is_live(std::uint64_t entry) {
  const int pid = static_cast<int>(entry & ((1u << kPidBits) - 1));
  char directory[16];
  std::snprintf(directory, sizeof directory, "%d", pid);
  return process_entry(directory, pid) == entry;
}

bool swap_entry(std::uint64_t &entry, std::uint64_t from, std::uint64_t to) {
  return std::atomic_ref(entry).compare_exchange_strong(from, to);
}

}  // namespace

std::uint64_t own_pid_namespace() {
  struct stat status;
  return stat("/proc/self/ns/pid", &status) == 0 ? status.st_ino : 0;
}

std::uint64_t own_process_entry() {
  return process_entry("self", getpid());
}

int first_live_process(const std::uint64_t (&table)[kMaxProcesses]) {
  for (const std::uint64_t &entry : table) {
    const std::uint64_t word = load_word(entry);
    if (word != 0 && is_live(word)) {
      return static_cast<int>(word & ((1u << kPidBits) - 1));
    }
  }
  return 0;
}

int enter_process(std::uint64_t (&table)[kMaxProcesses]) {
  const std::uint64_t own = own_process_entry();
  for (std::uint64_t &entry : table) {
    const std::uint64_t word = load_word(entry);
    if (word != 0 && word != own && !is_live(word)) {
      swap_entry(entry, word, 0);
    }
  }
  for (std::uint64_t &entry : table) {
    if (load_word(entry) == own || swap_entry(entry, 0, own)) {
      return 0;
    }
  }
  return EAGAIN;
}

void leave_process(std::uint64_t (&table)[kMaxProcesses]) {
  const std::uint64_t own = own_process_entry();
  for (std::uint64_t &entry : table) {
    if (own != 0 && swap_entry(entry, own, 0)) {
      return;
    }
  }
}

}  // namespace vrellis
