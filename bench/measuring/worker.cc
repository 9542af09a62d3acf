#include "measuring/worker.h"

#include <sys/mman.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <new>

namespace encap_bench {
namespace {

void worker_ended(int) {
  constexpr char kText[] = "a worker ended before its time\n";
  [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, kText, sizeof kText - 1);
  _exit(1);
}

}  // namespace

Board &shared_board() {
  void *const mapped = mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (mapped == MAP_FAILED) {
    std::perror("shared memory");
    std::exit(1);
  }
  auto *board = new (mapped) Board{};
  pthread_barrierattr_t attributes;
  pthread_barrierattr_init(&attributes);
  pthread_barrierattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
  pthread_barrier_init(&board->begin, &attributes, kWorkers + 1);
  pthread_barrier_init(&board->end, &attributes, kWorkers + 1);
  return *board;
}

pid_t fork_worker() {
  std::signal(SIGCHLD, worker_ended);
  const pid_t child = fork();
  if (child < 0) {
    std::perror("fork");
    std::exit(1);
  }
  if (child == 0) {
    std::signal(SIGCHLD, SIG_DFL);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
  }
  return child;
}

void let_workers_go() {
  std::signal(SIGCHLD, SIG_DFL);
}

std::vector<std::uint32_t> own_positions(const Workload &workload, std::uint32_t number, std::uint32_t processes) {
  std::vector<std::uint32_t> positions;
  positions.reserve(workload.used.size() / processes + 1);
  for (std::uint32_t i = 0; i < workload.used.size(); ++i) {
    if (workload.used[i].nh % processes == number) {
      positions.push_back(i);
    }
  }
  return positions;
}

}  // namespace encap_bench
