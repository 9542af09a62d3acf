#include "support/stepper.h"

#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

namespace crash {
namespace {

// Binds the calling thread to the processor that it runs on. Returns: those that it was allowed.
cpu_set_t stay_on_one_processor() {
  cpu_set_t before{}, one{};
  CPU_SET(static_cast<unsigned>(sched_getcpu()), &one);
  sched_getaffinity(0, sizeof before, &before);
  sched_setaffinity(0, sizeof one, &one);
  return before;
}

// Without the handlers of fork(): the child does not enter itself into the window's table of processes.
pid_t start(const std::function<void()> &work) {
  const pid_t child = _Fork();
  if (child == 0) {
    if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) {
      _exit(1);
    }
    raise(SIGSTOP);
    work();
    _exit(0);
  }
  return child;
}

}  // namespace

Stepper::Stepper(const std::function<void()> &work) : processors_(stay_on_one_processor()), pid_(start(work)) {
  int status = 0;
  if (pid_ < 0 || waitpid(pid_, &status, 0) != pid_ || !WIFSTOPPED(status)) {
    give_up("a child process cannot be traced here: ptrace() is not permitted, and without it no instruction is seen");
  }
}

Stepper::~Stepper() {
  kill();
  sched_setaffinity(0, sizeof processors_, &processors_);
}

bool Stepper::step() {
  int status = 0;
  do {  // on a machine that stops its processes for a while, the work does not see the two signals
    if (ptrace(PTRACE_SINGLESTEP, pid_, nullptr, nullptr) != 0) {
      give_up("process %d cannot be stepped: %s", pid_, std::strerror(errno));
    }
    waitpid(pid_, &status, 0);
  } while (WIFSTOPPED(status) && (WSTOPSIG(status) == SIGSTOP || WSTOPSIG(status) == SIGCONT));
  if (WIFSTOPPED(status) && WSTOPSIG(status) == SIGTRAP) {
    ++instructions_;
    return true;
  }
  ended_ = !WIFSTOPPED(status);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    give_up("the stepped work did not end well: wait status %#x", static_cast<unsigned>(status));
  }
  return false;
}

void Stepper::kill() {
  if (!ended_) {
    ::kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    ended_ = true;
  }
}

bool States::add(Image image) {
  if (!seen_.insert(hash_of(image)).second) {
    return false;
  }
  images_.push_back(std::move(image));
  return true;
}

void States::add_deaths(const Window &window, Image image, const ChangeLog &log, pid_t tid) {
  for (std::uint32_t i = 0; i < log.count; ++i) {
    std::memcpy(image.data() + log.change[i].offset, &log.change[i].value, 8);
    if (i + 1 == log.count || log.change[i + 1].instruction != log.change[i].instruction) {
      Image left = image;
      window.bury(left, tid);
      add(std::move(left));
    }
  }
}

std::string run_in_child(unsigned seconds, const std::function<bool()> &work) {
  std::fflush(stdout);
  const pid_t child = _Fork();
  if (child == 0) {
    alarm(seconds);
    const bool good = work();
    std::fflush(stdout);
    _exit(good ? 0 : 1);
  }
  int status = 0;
  waitpid(child, &status, 0);
  if (WIFSIGNALED(status)) {
    return WTERMSIG(status) == SIGALRM ? "the next process hangs"
                                       : "the next process dies of signal " + std::to_string(WTERMSIG(status));
  }
  return status == 0 ? "" : "the next process fails";
}

Walk walk_through(const Window &window, const std::function<void()> &work) {
  Walk walk;
  Stepper stepper(work);
  Image last = window.image();
  walk.states.add(last);
  while (stepper.step()) {
    if (std::memcmp(last.data(), window.bytes(), window.size()) != 0) {
      ++walk.changes;
      last = window.image();
      Image left = last;
      window.bury(left, stepper.pid());
      walk.states.add(std::move(left));
    }
  }
  walk.instructions = stepper.instructions();
  return walk;
}

Image killed_at(const Window &window, const std::function<void()> &work, std::uint64_t change) {
  Stepper stepper(work);
  Image last = window.image();
  for (std::uint64_t changes = 0; changes < change && stepper.step();) {
    if (std::memcmp(last.data(), window.bytes(), window.size()) != 0) {
      ++changes;
      last = window.image();
    }
  }
  stepper.kill();
  Image left = window.image();
  const auto owner = window.mutex_in(left).__data.__owner;
  window.bury(left, owner != 0 ? owner : stepper.pid());
  return left;
}

}  // namespace crash
