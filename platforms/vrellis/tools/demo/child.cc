#include "child.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <stdexcept>

namespace demo {

Child::Child(const Plan &plan, std::uint32_t worker) {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
    throw std::runtime_error("no socket for a worker");
  }
  std::string words[] = {"encap_demo", "--worker", std::to_string(worker), plan.directory, plan.route_file};
  char *const arguments[] = {words[0].data(), words[1].data(), words[2].data(),
                             words[3].data(), words[4].data(), nullptr};
  const pid_t supervisor = getpid();
  pid_ = fork();
  if (pid_ == 0) {  // only async-signal-safe calls up to the exec
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const int end = fcntl(ends[1], F_DUPFD_CLOEXEC, kWorkerFd + 1);  // dup2() onto itself would keep the close-on-exec
    if (getppid() == supervisor && dup2(end, kWorkerFd) == kWorkerFd) {
      execv("/proc/self/exe", arguments);
    }
    _exit(127);
  }
  close(ends[1]);
  fd_ = ends[0];
  if (pid_ < 0) {
    throw std::runtime_error("no process for a worker");
  }
}

Child::~Child() {
  close(fd_);
  if (pid_ > 0) {
    kill();
  }
}

void Child::command(Verb verb, std::uint32_t count) {
  const Command command{verb, count};
  if (send(fd_, &command, sizeof command, MSG_NOSIGNAL) != sizeof command) {
    throw std::runtime_error("a worker takes no more commands");
  }
}

Reply Child::reply() {
  Reply reply{};
  if (recv(fd_, &reply, sizeof reply, 0) != sizeof reply) {
    throw std::runtime_error("a worker ended unexpectedly");
  }
  return reply;
}

Reply Child::ask(Verb verb, std::uint32_t count) {
  command(verb, count);
  return reply();
}

bool Child::has_replied() const {
  pollfd replies{fd_, POLLIN, 0};
  return poll(&replies, 1, 0) > 0;
}

void Child::stop() {
  int status = 0;
  ::kill(pid_, SIGSTOP);
  if (waitpid(pid_, &status, WUNTRACED) != pid_ || !WIFSTOPPED(status)) {
    pid_ = -1;
    throw std::runtime_error("a worker ended unexpectedly");
  }
}

void Child::go_on() const {
  ::kill(pid_, SIGCONT);
}

int Child::kill() {
  ::kill(pid_, SIGKILL);
  return wait_until_end();
}

int Child::wait_until_end() {
  int status = 0;
  while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
  }
  pid_ = -1;
  return status;
}

}  // namespace demo
