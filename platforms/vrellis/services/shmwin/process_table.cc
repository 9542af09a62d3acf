#include "shmwin/process_table.h"

#include <atomic>
#include <cerrno>

#include "shmwin/file.h"

namespace vrellis {
namespace {

std::uint64_t own_entry() {
  const ProcessId own = own_process();
  return own.start != 0 ? own.start << kPidBits | static_cast<std::uint64_t>(own.pid) : 0;
}

bool swap_entry(std::uint64_t &entry, std::uint64_t from, std::uint64_t to) {
  return std::atomic_ref(entry).compare_exchange_strong(from, to);
}

bool put_entry(WindowHeader &header, std::uint64_t own) {
  for (std::uint64_t &entry : header.process) {
    if (load_word(entry) == own || swap_entry(entry, 0, own)) {
      return true;
    }
  }
  return false;
}

}  // namespace

Liveness liveness_of_entry(const WindowHeader &header, std::uint64_t entry) {
  const ProcessId process{pid_of_entry(entry), start_of_entry(entry), header.pid_namespace};
  const Liveness liveness = liveness_of(process);
  if (liveness == Liveness::kAlive && maps_shared_memory(process.pid, header.address) == Mapped::kNo) {
    return Liveness::kDead;
  }
  return liveness;
}

int refuse_if_attached(const WindowHeader &header, const char *name, shmwin_error_t *error) {
  for (const std::uint64_t &entry : header.process) {
    const std::uint64_t word = load_word(entry);
    const Liveness liveness = word != 0 ? liveness_of_entry(header, word) : Liveness::kDead;
    if (liveness == Liveness::kAlive) {
      char who[kProcessTextBytes];
      describe_process(pid_of_entry(word), who);
      return refuse(error, EBUSY, "window '%s' is attached by %s", name, who);
    }
    if (liveness == Liveness::kUnknown) {
      return refuse(error, EBUSY,
                    "window '%s' may be attached by process %d of PID namespace %llu, which cannot be told from here",
                    name, pid_of_entry(word), static_cast<unsigned long long>(header.pid_namespace));
    }
  }
  return 0;
}

void sweep_processes(WindowHeader &header) {
  const std::uint64_t own = own_entry();
  for (std::uint64_t &entry : header.process) {
    const std::uint64_t word = load_word(entry);
    if (word != 0 && word != own && liveness_of_entry(header, word) == Liveness::kDead && swap_entry(entry, word, 0)) {
      std::atomic_ref(header.deaths).fetch_add(1);
    }
  }
}

int enter_process(WindowHeader &header) {
  const std::uint64_t own = own_entry();
  if (own == 0) {
    return ENOENT;
  }
  if (put_entry(header, own)) {
    return 0;
  }
  sweep_processes(header);
  return put_entry(header, own) ? 0 : EAGAIN;
}

void leave_process(WindowHeader &header) {
  const std::uint64_t own = own_entry();
  for (std::uint64_t &entry : header.process) {
    if (own != 0 && swap_entry(entry, own, 0)) {
      return;
    }
  }
}

}  // namespace vrellis
