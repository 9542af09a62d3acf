// Throughput and longest wait of one, two and four processes on one store. The processes are forked before anything is
// opened and attach by themselves, as separate daemons would.
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <map>
#include <memory>
#include <string>
#include <tuple>

#include "contestants/db.h"
#include "contestants/hash.h"
#include "contestants/lmdb.h"
#include "contestants/map.h"
#include "operations.h"
#include "rounds.h"
#include "worker.h"

namespace encap_bench {
namespace {

// Two slices a measurement: one for the throughput, and one that looks at the clock around each operation.
int slice_ms() {
  const char *wanted = std::getenv("ENCAP_BENCH_SLICE_MS");
  return wanted != nullptr ? std::max(1, std::atoi(wanted)) : 100;
}

void sleep_ms(int ms) {
  const timespec pause{ms / 1000, ms % 1000 * 1000000L};
  nanosleep(&pause, nullptr);
}

// Runs one slice in `processes` of the workers. Returns: false when one of them got a wrong answer.
bool run_slice(Board &board, int job, std::uint32_t processes, bool clocked) {
  board.job = job;
  board.processes = processes;
  board.clocked = clocked;
  board.stop.store(false);
  pthread_barrier_wait(&board.begin);
  sleep_ms(slice_ms());
  board.stop.store(true);
  pthread_barrier_wait(&board.end);
  bool right = true;
  for (std::uint32_t i = 0; i < processes; ++i) {
    right = right && board.result[i].wrong == 0;
  }
  return right;
}

void measure(benchmark::State &state, Board &board, int job, std::uint32_t processes) {
  double rate = 0;
  double longest = 0;
  for (auto _ : state) {
    const bool right = run_slice(board, job, processes, false);
    for (std::uint32_t i = 0; i < processes; ++i) {
      rate += static_cast<double>(board.result[i].operations) / board.result[i].seconds;
    }
    if (!right || !run_slice(board, job, processes, true)) {
      state.SkipWithError("wrong answers");
      break;
    }
    for (std::uint32_t i = 0; i < processes; ++i) {
      longest = std::max(longest, board.result[i].longest_ns);
    }
  }
  state.counters["rate"] = rate;
  state.counters["wait"] = longest;
}

template <typename... C>
class Contest {
 public:
  Contest(const Place &place, const Workload &workload) : workload_(workload), place_(place) {}

  // The creator's part: fills, measures, and lets the workers go.
  int lead(const Arguments &arguments, Board &board) {
    const std::tuple<std::unique_ptr<C>...> stores(std::make_unique<C>(place_, workload_, Role::creator)...);
    if (!(fill(*std::get<std::unique_ptr<C>>(stores), workload_) && ...)) {
      std::fprintf(stderr, "a store cannot be filled\n");
      std::exit(1);
    }
    add_all<FindHit>(board, 0);
    add_all<DeleteInsert>(board, 1);
    add_all<Mix>(board, 2);
    board.job = kOpen;
    pthread_barrier_wait(&board.begin);
    pthread_barrier_wait(&board.end);
    const int status = run_rounds(arguments);
    board.job = kQuit;
    let_workers_go();
    pthread_barrier_wait(&board.begin);
    while (wait(nullptr) > 0) {
    }
    return status;
  }

  // A worker's: attaches when told to, then takes one job after the other.
  void serve(Board &board, std::uint32_t number) {
    pthread_barrier_wait(&board.begin);
    const std::tuple<std::unique_ptr<C>...> stores(std::make_unique<C>(place_, workload_, Role::user)...);
    (warm_up(*std::get<std::unique_ptr<C>>(stores), workload_), ...);
    for (const std::uint32_t processes : kProcesses) {
      if (number < processes) {
        positions_[processes] = own_positions(workload_, number, processes);
      }
    }
    pthread_barrier_wait(&board.end);
    for (;;) {
      pthread_barrier_wait(&board.begin);
      if (board.job == kQuit) {
        return;
      }
      if (number < board.processes) {
        int job = 0;
        (take<FindHit>(board, number, job++, *std::get<std::unique_ptr<C>>(stores)), ...);
        (take<DeleteInsert>(board, number, job++, *std::get<std::unique_ptr<C>>(stores)), ...);
        (take<Mix>(board, number, job++, *std::get<std::unique_ptr<C>>(stores)), ...);
      }
      pthread_barrier_wait(&board.end);
    }
  }

 private:
  static constexpr int kOpen = -1;
  static constexpr int kQuit = -2;
  static constexpr std::array<std::uint32_t, 3> kProcesses = {1, 2, kWorkers};

  template <typename Op, typename Store>
  void take(Board &board, std::uint32_t number, int job, Store &store) {
    if (job == board.job) {
      work<Op>(board, number, store, workload_, positions_[board.processes]);
    }
  }

  template <typename Op>
  void add_all(Board &board, int operation) {
    for (const std::uint32_t processes : kProcesses) {
      int job = operation * static_cast<int>(sizeof...(C));
      (add<Op, C>(board, job++, processes), ...);
    }
  }

  template <typename Op, typename Store>
  void add(Board &board, int job, std::uint32_t processes) {
    const std::string what = std::string(Op::kName) + "/" + std::to_string(processes);
    benchmark::RegisterBenchmark(benchmark_name("", what, Store::kName).c_str(), [&board, job,
                                                                                  processes](benchmark::State &state) {
      measure(state, board, job, processes);
    })->Iterations(1);
  }

  const Workload &workload_;
  const Place place_;
  std::map<std::uint32_t, std::vector<std::uint32_t>> positions_;  // this worker's, by the number of processes
};

int run(int argc, char **argv) {
  const Arguments arguments(argc, argv);
  const Workload workload(shape_of(arguments.size));
  Board &board = shared_board();
  Contest<EncapDb, DocumentedMap, FlatHash, Lmdb> contest(Place{arguments.directory}, workload);
  for (std::uint32_t number = 0; number < kWorkers; ++number) {
    if (fork_worker() == 0) {
      contest.serve(board, number);
      _exit(0);
    }
  }
  return contest.lead(arguments, board);
}

}  // namespace
}  // namespace encap_bench

int main(int argc, char **argv) {
  return encap_bench::run(argc, argv);
}
