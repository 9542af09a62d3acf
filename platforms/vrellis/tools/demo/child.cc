#include "child.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <stdexcept>

#include "plan.h"
#include "worker.h"

namespace demo {
namespace {

// In the fresh child: only async-signal-safe calls up to the exec.
[[noreturn]] void become_worker(int commands, int replies, pid_t supervisor, char *const arguments[]) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  // Out of the way of the two fixed places first.
  const int from = fcntl(commands, F_DUPFD_CLOEXEC, kReplyFd + 1);
  const int to = fcntl(replies, F_DUPFD_CLOEXEC, kReplyFd + 1);
  if (getppid() == supervisor && dup2(from, kCommandFd) == kCommandFd && dup2(to, kReplyFd) == kReplyFd) {
    execv("/proc/self/exe", arguments);
  }
  _exit(127);
}

}  // namespace

Child::Child(std::uint32_t worker, const std::string &route_file, const std::string &directory)
    : letter_(letter_of(worker)) {
  int commands[2];
  int replies[2];
  if (pipe2(commands, O_CLOEXEC) != 0 || pipe2(replies, O_CLOEXEC) != 0) {
    throw std::runtime_error("no pipe for a worker");
  }
  std::string words[] = {"encap_demo", "--worker", std::to_string(worker), directory, route_file};
  char *const arguments[] = {words[0].data(), words[1].data(), words[2].data(),
                             words[3].data(), words[4].data(), nullptr};
  const pid_t supervisor = getpid();
  pid_ = fork();
  if (pid_ == 0) {
    become_worker(commands[0], replies[1], supervisor, arguments);
  }
  close(commands[0]);
  close(replies[1]);
  commands_ = commands[1];
  replies_ = replies[0];
  if (pid_ < 0) {
    throw std::runtime_error("no process for a worker");
  }
}

Child::~Child() {
  close(commands_);
  close(replies_);
  if (pid_ > 0) {
    kill();
    wait();
  }
}

void Child::command(Verb verb, std::uint32_t count) {
  if (!send(commands_, Command{verb, count})) {
    throw std::runtime_error(fmt::format("worker {} takes no more commands", letter_));
  }
}

void Child::recover(const std::vector<Reference> &others) {
  command(Verb::kRecover, static_cast<std::uint32_t>(others.size()));
  send(commands_, others);
}

Reply Child::reply() {
  std::vector<Reference> references;
  return reply(references);
}

Reply Child::reply(std::vector<Reference> &references) {
  Reply reply{};
  bool whole = receive(replies_, reply);
  references.resize(reply.references);
  whole = whole && receive(replies_, references);
  if (!whole) {
    throw std::runtime_error(fmt::format("worker {} ended unexpectedly", letter_));
  }
  return reply;
}

Reply Child::ask(Verb verb, std::uint32_t count) {
  command(verb, count);
  return reply();
}

bool Child::has_replied() const {
  pollfd replies{replies_, POLLIN, 0};
  return poll(&replies, 1, 0) > 0;
}

void Child::kill() const {
  ::kill(pid_, SIGKILL);
}

int Child::wait() {
  int status = 0;
  while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
  }
  pid_ = -1;
  return status;
}

}  // namespace demo
