// Throughput and waits of one, two and four processes on one store. The processes are forked before anything is
// opened and attach by themselves, as separate daemons would.
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <map>
#include <string>

#include "contestants/db.h"
#include "contestants/hash.h"
#include "contestants/lmdb.h"
#include "contestants/map.h"
#include "contestants/peek.h"
#include "measuring/operations.h"
#include "measuring/rounds.h"
#include "measuring/worker.h"

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

// What processes do together, and the name under which it is reported. The lead and the workers list the same jobs.
struct Job {
  std::string what;
  std::string who;
  std::uint32_t processes;
  std::function<void(std::uint32_t number)> work;  // of the worker of that number, for one slice
};

void measure(benchmark::State &state, Board &board, int number, std::uint32_t processes) {
  auto &counters = state.counters;
  for (auto _ : state) {
    if (!run_slice(board, number, processes, false)) {
      state.SkipWithError("wrong answers");
      return;
    }
    const auto rate_of = [&](std::uint32_t i) {
      return static_cast<double>(board.result[i].operations) / board.result[i].seconds;
    };
    double rate = 0;
    for (std::uint32_t i = 0; i < processes; ++i) {
      rate += rate_of(i);
    }
    counters["rate"] = rate;
    counters["first"] = rate_of(0);
    counters["last"] = rate_of(processes - 1);
    if (!run_slice(board, number, processes, true)) {
      state.SkipWithError("wrong answers");
      return;
    }
    Waits waits{};
    double longest = 0;
    for (std::uint32_t i = 0; i < processes; ++i) {
      waits.add(board.result[i].waits);
      longest = std::max(longest, board.result[i].longest_ns);
    }
    counters["wait"] = longest;
    counters["p50"] = waits.below(0.5);
    counters["p99"] = waits.below(0.99);
    counters["p99.9"] = waits.below(0.999);
  }
}

// The stores as one process has them open, and what it does with them.
class Process {
 public:
  Process(const Place &place, const Workload &workload, Role role, Board &board)
      : workload_(workload),
        board_(board),
        db_(place, workload, role),
        peek_(place, workload, role),
        map_(place, workload, role),
        hash_(place, workload, role),
        lmdb_(place, workload, role),
        lmdb_readers_(place, workload, role) {
    add_all<FindHit>(db_, map_, hash_, lmdb_, peek_, lmdb_readers_);
    add_all<DeleteInsert>(db_, map_, hash_, lmdb_);
    add_all<Mix>(db_, map_, hash_, lmdb_);
    add("find, hit, beside a writer", PeekDb::kName, 2,
        [this](std::uint32_t number) { number == 0 ? take<FindHit>(number, peek_) : take<DeleteInsert>(number, db_); });
  }

  bool fill_all() {
    return fill(db_, workload_) && fill(map_, workload_) && fill(hash_, workload_) && fill(lmdb_, workload_) &&
           fill(lmdb_readers_, workload_);
  }

  // Brings the pages of the stores into this process, and chooses what a worker of this number uses.
  void prepare(std::uint32_t number) {
    const auto warm_up_all = [&](auto &...store) { (warm_up(store, workload_), ...); };
    warm_up_all(db_, map_, hash_, lmdb_, peek_, lmdb_readers_);
    for (const std::uint32_t processes : kProcesses) {
      if (number < processes) {
        positions_[processes] = own_positions(workload_, number, processes);
      }
    }
  }

  const std::vector<Job> &jobs() const { return jobs_; }

 private:
  static constexpr std::array<std::uint32_t, 3> kProcesses = {1, 2, kWorkers};

  void add(const std::string &what, const std::string &who, std::uint32_t processes,
           std::function<void(std::uint32_t)> work) {
    jobs_.push_back({what, who, processes, std::move(work)});
  }

  template <typename Op, typename... Store>
  void add_all(Store &...store) {
    for (const std::uint32_t processes : kProcesses) {
      const std::string what = std::string(Op::kName) + "/" + std::to_string(processes);
      (add(what, Store::kName, processes, [this, &store](std::uint32_t number) { take<Op>(number, store); }), ...);
    }
  }

  template <typename Op, typename Store>
  void take(std::uint32_t number, Store &store) {
    work<Op>(board_, number, store, workload_, positions_[board_.processes]);
  }

  const Workload &workload_;
  Board &board_;
  EncapDb db_;
  PeekDb peek_;
  DocumentedMap map_;
  FlatHash hash_;
  Lmdb lmdb_;
  LmdbOwnLocks lmdb_readers_;
  std::map<std::uint32_t, std::vector<std::uint32_t>> positions_;  // this worker's, by the number of processes
  std::vector<Job> jobs_;
};

constexpr int kOpen = -1;
constexpr int kQuit = -2;

// The creator's part: fills, measures, and lets the workers go.
int lead(const Arguments &arguments, const Workload &workload, Board &board) {
  Process process(Place{arguments.directory}, workload, Role::creator, board);
  if (!process.fill_all()) {
    std::fprintf(stderr, "a store cannot be filled\n");
    std::exit(1);
  }
  int number = 0;
  for (const Job &job : process.jobs()) {
    benchmark::RegisterBenchmark(benchmark_name("", job.what, job.who).c_str(), [&board, &job,
                                                                                 number](benchmark::State &state) {
      measure(state, board, number, job.processes);
    })->Iterations(1);
    ++number;
  }
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
void serve(const Arguments &arguments, const Workload &workload, Board &board, std::uint32_t number) {
  pthread_barrier_wait(&board.begin);
  Process process(Place{arguments.directory}, workload, Role::user, board);
  process.prepare(number);
  for (;;) {
    pthread_barrier_wait(&board.end);
    pthread_barrier_wait(&board.begin);
    if (board.job == kQuit) {
      return;
    }
    if (number < board.processes) {
      process.jobs()[static_cast<std::size_t>(board.job)].work(number);
    }
  }
}

int run(int argc, char **argv) {
  const Arguments arguments(argc, argv);
  const Workload workload(shape_of(arguments.size));
  Board &board = shared_board();
  for (std::uint32_t number = 0; number < kWorkers; ++number) {
    if (fork_worker() == 0) {
      serve(arguments, workload, board, number);
      _exit(0);
    }
  }
  return lead(arguments, workload, board);
}

}  // namespace
}  // namespace encap_bench

int main(int argc, char **argv) {
  return encap_bench::run(argc, argv);
}
