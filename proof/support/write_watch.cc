#include "support/write_watch.h"

#include <signal.h>
#include <sys/mman.h>
#include <ucontext.h>

#include <cstring>
#include <vector>

namespace crash {
namespace {

constexpr greg_t kTrapFlag = 0x100;

struct Watched {
  std::uint8_t *window;
  std::size_t bytes;
  ChangeLog *log;
  std::uint8_t *shadow;
};
Watched watched{};

greg_t &flags_of(void *context) {
  return static_cast<ucontext_t *>(context)->uc_mcontext.gregs[REG_EFL];
}

void note(std::size_t offset) {
  ChangeLog &log = *watched.log;
  if (log.count == ChangeLog::kCapacity) {
    log.overflow = true;
    return;
  }
  Change &change = log.change[log.count++];
  change.instruction = log.instructions;
  change.offset = static_cast<std::uint32_t>(offset);
  std::memcpy(&change.value, watched.window + offset, 8);
  std::memcpy(watched.shadow + offset, watched.window + offset, 8);
}

void on_fault(int /*signal*/, siginfo_t *info, void *context) {
  const auto offset = static_cast<std::size_t>(static_cast<std::uint8_t *>(info->si_addr) - watched.window);
  if (offset >= watched.bytes || (flags_of(context) & kTrapFlag) != 0) {
    signal(SIGSEGV, SIG_DFL);  // a fault of the program's own: it happens again at once
    return;
  }
  mprotect(watched.window, watched.bytes, PROT_READ | PROT_WRITE);
  flags_of(context) |= kTrapFlag;
}

void on_stepped(int /*signal*/, siginfo_t * /*info*/, void *context) {
  flags_of(context) &= ~kTrapFlag;
  if (std::memcmp(watched.window, watched.shadow, watched.bytes) != 0) {
    ++watched.log->instructions;
    for (std::size_t offset = 0; offset < watched.bytes; offset += 8) {
      if (std::memcmp(watched.window + offset, watched.shadow + offset, 8) != 0) {
        note(offset);
      }
    }
  }
  mprotect(watched.window, watched.bytes, PROT_READ);
}

void handle(int number, void (*handler)(int, siginfo_t *, void *)) {
  struct sigaction action {};
  action.sa_sigaction = handler;
  action.sa_flags = SA_SIGINFO;
  sigfillset(&action.sa_mask);
  sigaction(number, &action, nullptr);
}

}  // namespace

void watch_writes(void *window, std::size_t bytes, ChangeLog *log) {
  static std::vector<std::uint8_t> shadow;
  shadow.resize(bytes);
  std::memcpy(shadow.data(), window, bytes);
  watched = {static_cast<std::uint8_t *>(window), bytes, log, shadow.data()};
  log->count = 0;
  log->instructions = 0;
  log->overflow = false;
  handle(SIGSEGV, on_fault);
  handle(SIGTRAP, on_stepped);
  mprotect(window, bytes, PROT_READ);
}

void unwatch_writes() {
  mprotect(watched.window, watched.bytes, PROT_READ | PROT_WRITE);
  signal(SIGSEGV, SIG_DFL);
  signal(SIGTRAP, SIG_DFL);
}

}  // namespace crash
