// Kill storm: four processes of three threads each work at random on one window. One process is killed every few
// milliseconds, whether it holds the lock, waits for it or neither, and started again at once. This process verifies
// from outside, and repairs now and then while they work.
//
//   crash_storm [--kills N] [--seed S]
#include <unistd.h>

#include <cinttypes>
#include <cstdio>
#include <random>
#include <thread>

#include "repair/repair.h"
#include "storm.h"
#include "support/driver.h"

namespace crash {
namespace {

using encap_inspect::FindingKind;
using encap_inspect::Report;

constexpr std::uint64_t kKillsToARepair = 25;
constexpr unsigned kStepSeconds = 60;          // no step of the verifier's takes longer
constexpr std::uint64_t kUnreachableEach = 2;  // blocks that a death leaves at most

class Storm {
 public:
  Storm(std::uint64_t seed, const Window &window, Ledger &ledger)
      : window_(window),
        ledger_(ledger),
        random_(seed),
        herd_(ledger.herd, "--seed " + std::to_string(seed),
              [this](std::uint32_t process, std::uint64_t own_seed) { live(process, own_seed); }) {}

  void run(std::uint64_t all_kills) {
    enter_kept();
    for (std::uint32_t process = 0; process < kProcesses; ++process) {
      start(process);
    }
    for (std::uint64_t kills = 1; kills <= all_kills; ++kills) {
      alarm(kStepSeconds);
      usleep(static_cast<useconds_t>(500 + random_() % 3000));
      kill_one(static_cast<std::uint32_t>(random_() % kProcesses));
      if (random_() % 4 == 0) {
        look();
      }
      if (kills % kKillsToARepair == 0) {
        repair_and_settle();
      }
    }
    alarm(kStepSeconds);
    clear();
  }

  void print(std::uint64_t kills, double seconds) const {
    std::printf("%" PRIu64 " kills, %" PRIu64 " operations, %" PRIu64 " looks, %" PRIu64 " repairs with %" PRIu64
                " changes, no thread slept beside a free lock, nothing lost, %.1f s\n",
                kills, herd_.operations(), looks_, repairs_, changes_, seconds);
  }

 private:
  [[noreturn]] void fail(const std::string &text) const {
    herd_.fail(text + "after " + std::to_string(repairs_) + " repairs");
  }

  void live(std::uint32_t process, std::uint64_t seed) {
    std::vector<std::thread> threads;
    for (std::uint32_t thread = 0; thread < kThreads; ++thread) {
      threads.emplace_back([=, this] { storm_work(ledger_, process * kThreads + thread, seed + thread); });
    }
    for (std::thread &thread : threads) {
      thread.join();
    }
  }

  // Entered once and kept: NHs on the null tunnel, of which all owners share the count.
  void enter_kept() const {
    for (std::uint32_t i = 0; i < kKept; ++i) {
      Operation operation;
      operation.verb = Verb::kInsert;
      operation.key = key_of(1 + i, 0, 1000);
      operation.info.tun_found = i != 0;
      operation.info.egr_nh = kStormNhStart + kOwners * kNhsEach + i;
      on_database(operation);
    }
  }

  void start(std::uint32_t process) {
    for (std::uint32_t owner = process * kThreads; owner < (process + 1) * kThreads; ++owner) {
      Ledger::Owner &own = ledger_.owner[owner];
      own.unsure.fetch_or(own.busy.exchange(0));
    }
    herd_.start(process, random_());
  }

  void kill_one(std::uint32_t process) {
    herd_.expect_well();
    herd_.end(process);
    ++kills_since_repair_;
    herd_.pause();
    herd_.resume();
    start(process);
  }

  // Under the lock: named states alone, no more blocks out of reach than deaths can leave, and all that was completed.
  void look() {
    vrl_egress_encap_db_lock(&egress_encap_db->lock.mutex);
    const Report report = look_at(window_);
    std::string wrong = report.looked ? "" : "the database could not be looked at\n";
    for (std::uint32_t owner = 0; owner < kOwners; ++owner) {
      wrong += storm_difference(ledger_, owner);
    }
    pthread_mutex_unlock(&egress_encap_db->lock.mutex);
    if (report.count_of(FindingKind::kBlockUnreachable) > kUnreachableEach * kills_since_repair_) {
      wrong += "too many blocks are out of reach\n";
    }
    ++looks_;
    if (!wrong.empty()) {
      fail(wrong + text_of(report));
    }
  }

  void repair() {
    const encap_inspect::RepairResult result = encap_inspect::repair(kWindowId);
    ++repairs_;
    changes_ += result.changes.size();
    if (result.status != 0 || !result.after.sound()) {
      fail("repair: " + result.error + "\nbefore\n" + text_of(result.before) + "after\n" + text_of(result.after));
    }
  }

  // Repairs while the others work, then again when all are dead, and takes over what the repair made of the NHs in
  // doubt.
  void repair_and_settle() {
    repair();
    for (std::uint32_t process = 0; process < kProcesses; ++process) {
      herd_.end(process);
    }
    for (Ledger::Owner &own : ledger_.owner) {
      own.unsure.fetch_or(own.busy.exchange(0));
    }
    repair();
    for (std::uint32_t owner = 0; owner < kOwners; ++owner) {
      storm_settle(ledger_, owner);
    }
    kills_since_repair_ = 0;
    look();
    for (std::uint32_t process = 0; process < kProcesses; ++process) {
      start(process);
    }
  }

  // Stops the processes, withdraws everything, and demands an empty window.
  void clear() {
    repair_and_settle();
    herd_.stop();
    look();
    for (std::uint32_t nh = kStormNhStart; nh < kStormNhStart + kStormNhs; ++nh) {
      if (egress_encap_db->nh_info_array[nh - kStormNhStart].valid != 0 &&
          on_database(on_nh(Verb::kDetach, nh)).status != 0) {
        fail("NH " + std::to_string(nh) + " cannot be withdrawn");
      }
    }
    shmwin_stat_t stat{};
    shmwin_stat(kWindowId, &stat);
    if (egress_encap_db->tun_root != nullptr || stat.nodes40 != 0 || stat.nodes56 != 0 || stat.arrays != 2 ||
        stat.bad_releases != 0) {
      fail("blocks are left in the window");
    }
  }

  const Window &window_;
  Ledger &ledger_;
  std::mt19937_64 random_;
  Herd herd_;
  std::uint64_t looks_ = 0, repairs_ = 0, changes_ = 0, kills_since_repair_ = 0;
};

}  // namespace
}  // namespace crash

int main(int argc, char **argv) {
  using namespace crash;
  std::uint64_t kills = 2000;
  std::uint64_t seed = std::random_device{}() % 1'000'000;
  parse(argc, argv, {{"--kills", &kills}, {"--seed", &seed}});
  const Directory directory;
  const Window window(directory, storm_config(directory));
  std::fprintf(stderr, "crash_storm --kills %" PRIu64 " --seed %" PRIu64 "\n", kills, seed);
  const Stopwatch time;
  Storm storm(seed, window, shared_record<Ledger>());
  storm.run(kills);
  storm.print(kills, time.seconds());
  return 0;
}
