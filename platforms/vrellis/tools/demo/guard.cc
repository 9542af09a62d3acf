#include "guard.h"

#include <fmt/format.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <system_error>

namespace demo {
namespace {

constexpr int kGuarded[] = {SIGCHLD, SIGINT, SIGTERM, SIGHUP};

sigset_t guarded_signals() {
  sigset_t set;
  sigemptyset(&set);
  for (const int number : kGuarded) {
    sigaddset(&set, number);
  }
  return set;
}

// Waits for the end of process `body`, at most `seconds`; ends it after that, or on a signal to this process.
int await_end(pid_t body, unsigned seconds, const sigset_t &signals) {
  using Clock = std::chrono::steady_clock;
  const Clock::time_point deadline = Clock::now() + std::chrono::seconds(seconds);
  int status = 0;
  while (waitpid(body, &status, WNOHANG) == 0) {
    const auto left = std::chrono::ceil<std::chrono::seconds>(deadline - Clock::now()).count();
    const timespec limit{left > 0 ? left : 0, 0};
    const int number = sigtimedwait(&signals, nullptr, &limit);
    if (number == SIGCHLD || (number < 0 && errno == EINTR)) {
      continue;
    }
    fmt::print(stderr, "encap_demo: {}\n",
               number < 0 ? fmt::format("not done after {} seconds, ended", seconds) : "interrupted");
    kill(body, SIGKILL);
    waitpid(body, &status, 0);
    return 1;
  }
  if (WIFSIGNALED(status)) {
    fmt::print(stderr, "encap_demo: the supervisor died of signal {}\n", WTERMSIG(status));
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}

[[noreturn]] void run_body(pid_t guard, const sigset_t &signals, const std::string &directory,
                           const std::function<int(const std::string &)> &body) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != guard) {
    _exit(1);
  }
  sigprocmask(SIG_UNBLOCK, &signals, nullptr);
  std::exit(body(directory));
}

}  // namespace

int run_guarded(const std::string &parent, unsigned seconds, const std::function<int(const std::string &)> &body) {
  std::string directory = parent + "/encap_demo.XXXXXX";
  if (mkdtemp(directory.data()) == nullptr) {
    fmt::print(stderr, "encap_demo: no directory can be made in {}: {}\n", parent, std::strerror(errno));
    return 2;
  }
  const sigset_t signals = guarded_signals();
  sigprocmask(SIG_BLOCK, &signals, nullptr);
  std::fflush(nullptr);
  const pid_t guard = getpid();
  const pid_t supervisor = fork();
  if (supervisor == 0) {
    run_body(guard, signals, directory, body);
  }
  const int status = supervisor > 0 ? await_end(supervisor, seconds, signals) : 1;
  std::error_code ignored;
  std::filesystem::remove_all(directory, ignored);
  return status;
}

}  // namespace demo
