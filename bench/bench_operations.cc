// Times every operation of every contestant in one process, at one size.
#include <cstdio>
#include <cstdlib>
#include <type_traits>

#include "contestants/bound.h"
#include "contestants/db.h"
#include "contestants/hash.h"
#include "contestants/lmdb.h"
#include "contestants/map.h"
#include "measuring/operations.h"
#include "measuring/rounds.h"
#include "report/results.h"

namespace encap_bench {
namespace {

// Enough that a round of the fastest operation takes milliseconds; ENCAP_BENCH_ITERATIONS overrides it.
std::int64_t iterations() {
  const char *wanted = std::getenv("ENCAP_BENCH_ITERATIONS");
  return wanted != nullptr ? std::max(1LL, std::atoll(wanted)) : 40000;
}

template <typename Op, typename C>
concept Undone = requires(C &contestant, const Workload &workload) { Op::undo(contestant, workload, std::size_t{0}); };

// Each round goes on in the order of use where the one before ended, the same positions for every contestant. Half as
// many operations come first, untimed: they bring back what the contestants before pushed out of the caches.
template <typename Op, typename C>
void time_operation(benchmark::State &state, C &contestant, const Workload &workload) {
  const std::size_t positions = Op::positions(workload);
  const auto timed = static_cast<std::size_t>(state.max_iterations);
  const std::size_t warm = timed / 2;
  std::size_t i = static_cast<std::size_t>(current_round()) * (timed + warm) % positions;
  const std::size_t begin = i;
  std::size_t wrong = 0;
  const auto step = [&] {
    wrong += static_cast<std::size_t>(!Op::run(contestant, workload, i));
    i = i + 1 == positions ? 0 : i + 1;
  };
  for (std::size_t n = 0; n < warm; ++n) {
    step();
  }
  for (auto _ : state) {
    step();
  }
  if constexpr (Undone<Op, C>) {
    i = begin;
    for (std::size_t n = 0; n < warm + timed; ++n) {
      wrong += static_cast<std::size_t>(!Op::undo(contestant, workload, i));
      i = i + 1 == positions ? 0 : i + 1;
    }
  }
  if (wrong != 0) {
    state.SkipWithError((std::to_string(wrong) + " wrong answers").c_str());
  }
}

void add(const std::string &what, const std::string &who, std::function<void(benchmark::State &)> body) {
  benchmark::RegisterBenchmark(benchmark_name("ns", what, who).c_str(), std::move(body))->Iterations(iterations());
}

template <typename Op, typename... C>
void add_operation(const Workload &workload, C &...contestants) {
  (add(Op::kName, C::kName,
       [&workload, &contestants](benchmark::State &state) { time_operation<Op>(state, contestants, workload); }),
   ...);
}

template <typename... C>
void add_finds(const Workload &workload, C &...contestants) {
  add_operation<FindHit>(workload, contestants...);
  add_operation<FindMissNh>(workload, contestants...);
  add_operation<FindMissTunnel>(workload, contestants...);
}

template <typename... C>
void add_changes(const Workload &workload, C &...contestants) {
  add_operation<FindAndShare>(workload, contestants...);
  add_operation<DeleteInsert>(workload, contestants...);
  add_operation<LoneTunnel>(workload, contestants...);
  add_operation<ReadBack>(workload, contestants...);
  add_operation<DetachAttach>(workload, contestants...);
  add_operation<Mix>(workload, contestants...);
}

// The database with all points off: what is left is the lock, the trees, the slots and the allocator.
template <typename... Op>
void add_without_points(const Workload &workload, EncapDb &db) {
  (add(Op::kName, "encap_db, points off",
       [&](benchmark::State &state) {
         switch_points_off();
         time_operation<Op>(state, db, workload);
         switch_points_back();
       }),
   ...);
}

void add_mutex_pair(MutexPair &mutex) {
  add("mutex pair", MutexPair::kName, [&](benchmark::State &state) {
    for (auto _ : state) {
      benchmark::DoNotOptimize(mutex.lock_and_unlock());
    }
  });
}

template <typename C>
void fill_and_check(C &contestant, const Workload &workload) {
  if (!fill(contestant, workload) || !answers_right(contestant, workload)) {
    std::fprintf(stderr, "%s does not hold what was entered\n", std::string(C::kName).c_str());
    std::exit(1);
  }
}

template <typename... C>
void record_memory(const Arguments &arguments, const C &...contestants) {
  (append_sample(arguments.results, {"bytes", arguments.size, "in use", C::kName}, 0,
                 static_cast<double>(contestants.bytes())),
   ...);
}

void record_counts(const Arguments &arguments, const Workload &workload, const EncapDb &db) {
  const auto record = [&](const char *what, std::uint64_t value) {
    append_sample(arguments.results, {"count", arguments.size, what, ""}, 0, static_cast<double>(value));
  };
  record("NHs", workload.entered.size());
  record("tunnels", workload.tunnel_room - 1);
  record("NH room", workload.nh_room());
  record("tunnel room", workload.tunnel_room);
  record("window", db.usage().size);
}

int run(int argc, char **argv) {
  const Arguments arguments(argc, argv);
  const Workload workload(shape_of(arguments.size));
  const Place place{arguments.directory};
  EncapDb db(place, workload, Role::creator);
  DocumentedMap map(place, workload, Role::creator);
  FixedMap fixed_map(place, workload, Role::creator);
  FlatHash hash(place, workload, Role::creator);
  Lmdb lmdb(place, workload, Role::creator);
  Bound bound(place, workload, Role::creator);
  MutexPair mutex;
  const auto fill_all = [&](auto &...each) { (fill_and_check(each, workload), ...); };
  fill_all(db, map, fixed_map, hash, lmdb, bound);
  record_memory(arguments, db, map, fixed_map, hash, lmdb);
  record_counts(arguments, workload, db);
  add_mutex_pair(mutex);
  add_without_points<FindHit, FindAndShare, DeleteInsert, LoneTunnel>(workload, db);
  add_finds(workload, db, bound, map, fixed_map, hash, lmdb);
  add_changes(workload, db, map, fixed_map, hash, lmdb);
  return run_rounds(arguments);
}

}  // namespace
}  // namespace encap_bench

int main(int argc, char **argv) {
  return encap_bench::run(argc, argv);
}
