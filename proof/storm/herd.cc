#include "herd.h"

#include <linux/futex.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include "mpls_egress_encap_db.h"
#include "process/process.h"
#include "support/driver.h"

namespace crash {
namespace {

constexpr double kSleepSeconds = 2;  // no thread sleeps longer beside a free lock

void on_hang(int /*signal*/) {
  static constexpr char kText[] = "FAILED: a step of the verifier took too long\n";
  [[maybe_unused]] const ssize_t told = write(STDOUT_FILENO, kText, sizeof kText - 1);
  kill(0, SIGKILL);
}

bool sleeps(const ThreadState &thread) {
  vrellis::ProcessStat stat{};
  return vrellis::read_process_stat(thread.tid, &stat) && stat.state == 'S';
}

bool lock_is_free() {
  const int word = __atomic_load_n(&egress_encap_db->lock.mutex.__data.__lock, __ATOMIC_RELAXED);
  return (static_cast<unsigned>(word) & FUTEX_TID_MASK) == 0;
}

}  // namespace

void park_if_asked(HerdState &state, std::uint32_t owner) {
  ThreadState &own = state.thread[owner];
  if (own.tid == 0) {
    own.tid = gettid();
  }
  do {
    while (state.pause) {
      own.parked = true;
      usleep(200);
    }
    own.parked = false;
  } while (state.pause);  // asked again before the verifier could see that this thread goes on
}

void work_in_steps(HerdState &state, std::uint32_t owner, const std::function<bool()> &step) {
  ThreadState &own = state.thread[owner];
  do {
    park_if_asked(state, owner);
    own.operations.fetch_add(1, std::memory_order_relaxed);
  } while (!state.stop && own.failure[0] == '\0' && step());
  own.parked = true;
}

Herd::Herd(HerdState &state, std::string context, Live live)
    : state_(state), context_(std::move(context)), live_(std::move(live)) {
  setpgid(0, 0);
  signal(SIGALRM, on_hang);
}

void Herd::start(std::uint32_t process, std::uint64_t seed) {
  for (std::uint32_t owner = process * kThreads; owner < (process + 1) * kThreads; ++owner) {
    state_.thread[owner].parked = false;
    state_.thread[owner].tid = 0;
  }
  pid_[process] = fork();
  if (pid_[process] == 0) {
    alarm(0);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    live_(process, seed);
    _exit(0);
  }
}

void Herd::end(std::uint32_t process) {
  if (is_alive(process)) {
    kill(pid_[process], SIGKILL);
    waitpid(pid_[process], nullptr, 0);
    pid_[process] = 0;
  }
}

void Herd::send(std::uint32_t process, int signal) const {
  kill(pid_[process], signal);
}

void Herd::expect_well() const {
  for (const ThreadState &thread : state_.thread) {
    if (thread.failure[0] != '\0') {
      fail(thread.failure);
    }
  }
  for (const pid_t pid : pid_) {
    if (pid != 0 && waitpid(pid, nullptr, WNOHANG) != 0) {
      fail("a process ended by itself");
    }
  }
}

void Herd::pause() {
  state_.pause = true;
  for (std::uint32_t owner = 0; owner <= kOwners; ++owner) {
    const ThreadState &own = state_.thread[owner];
    const bool lives = owner == kOwners || is_alive(owner / kThreads);
    Stopwatch asleep;  // on a busy machine a thread that was woken may sleep on for a moment
    while (lives && own.tid != 0 && !own.parked) {
      if (!lock_is_free() || !sleeps(own)) {
        asleep = {};
      } else if (asleep.seconds() > kSleepSeconds) {
        expect_well();
        fail("thread " + std::to_string(own.tid) + " sleeps beside a free lock");
      }
      usleep(100);
    }
  }
}

void Herd::stop() {
  state_.stop = true;
  resume();
  for (pid_t &pid : pid_) {
    if (pid != 0) {
      waitpid(pid, nullptr, 0);
      pid = 0;
    }
  }
  expect_well();
}

std::uint64_t Herd::operations() const {
  std::uint64_t sum = 0;
  for (const ThreadState &thread : state_.thread) {
    sum += thread.operations;
  }
  return sum;
}

void Herd::fail(const std::string &text) const {
  for (const pid_t pid : pid_) {
    if (pid != 0) {
      kill(pid, SIGKILL);
    }
  }
  give_up("FAILED (%s):\n%s", context_.c_str(), text.c_str());
}

}  // namespace crash
