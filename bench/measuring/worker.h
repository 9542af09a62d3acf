// The processes that share a store: how they are told what to do, and how they do it.
#ifndef ENCAP_BENCH_WORKER_H
#define ENCAP_BENCH_WORKER_H

#include <pthread.h>
#include <sys/types.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cstdint>
#include <numeric>
#include <vector>

#include "measuring/clock.h"
#include "measuring/operations.h"

namespace encap_bench {

inline constexpr std::uint32_t kWorkers = 4;

// How long operations took: their counts by time, in steps of a sixteenth.
class Waits {
 public:
  void add(double ns) { ++count_[step_of(static_cast<std::uint64_t>(ns))]; }
  void add(const Waits &other) {
    for (std::size_t step = 0; step < kSteps; ++step) {
      count_[step] += other.count_[step];
    }
  }

  // The time, in ns, that this share of the operations did not pass.
  double below(double share) const {
    const double wanted = share * static_cast<double>(std::accumulate(count_.begin(), count_.end(), std::uint64_t{0}));
    std::size_t step = 0;
    for (double seen = 0; step + 1 < kSteps && (seen += static_cast<double>(count_[step])) < wanted; ++step) {
    }
    return static_cast<double>(step < 16 ? step : (16 + step % 16) << (step / 16 - 1));
  }

 private:
  static constexpr std::size_t kSteps = 16 * 40;

  static std::size_t step_of(std::uint64_t ns) {
    const auto shift = std::max<std::size_t>(std::bit_width(ns), 5) - 5;
    return std::min(16 * shift + (ns >> shift), kSteps - 1);
  }

  std::array<std::uint64_t, kSteps> count_;
};

struct alignas(64) SliceResult {
  std::uint64_t operations;
  std::uint64_t wrong;
  double seconds;
  double longest_ns;  // of a slice that is clocked
  Waits waits;        // likewise
};

// Shared by the lead and the workers. The lead writes the order before `begin`, the workers their results before `end`.
struct Board {
  pthread_barrier_t begin;
  pthread_barrier_t end;
  int job;
  std::uint32_t processes;
  bool clocked;
  alignas(64) std::atomic<bool> stop;
  SliceResult result[kWorkers];
};

Board &shared_board();

// A child that dies with its parent, and whose end ends the parent, which would wait for it at a barrier for ever;
// until let_workers_go(). Returns: as fork().
pid_t fork_worker();
void let_workers_go();

// The positions that belong to one of several processes: no two of them change the same NH.
std::vector<std::uint32_t> own_positions(const Workload &workload, std::uint32_t number, std::uint32_t processes);

// Brings a store's pages into this process.
template <typename Store>
void warm_up(Store &store, const Workload &workload) {
  constexpr std::size_t kFinds = 1 << 16;
  for (std::size_t i = 0; i < kFinds; ++i) {
    FindHit::run(store, workload, i);
  }
}

// One slice: uses its positions in turn until told to stop.
template <typename Op, typename Store>
void work(Board &board, std::uint32_t number, Store &store, const Workload &workload,
          const std::vector<std::uint32_t> &positions) {
  SliceResult result{};
  const double begin = now_ns();
  double before = begin;
  for (std::size_t next = 0; !board.stop.load(std::memory_order_relaxed); ++result.operations) {
    result.wrong += static_cast<std::uint64_t>(!Op::run(store, workload, positions[next]));
    next = next + 1 == positions.size() ? 0 : next + 1;
    if (board.clocked) {
      const double after = now_ns();
      result.longest_ns = std::max(result.longest_ns, after - before);
      result.waits.add(after - before);
      before = after;
    }
  }
  result.seconds = (now_ns() - begin) * 1e-9;
  board.result[number] = result;
}

}  // namespace encap_bench

#endif
