// Kill storm: four processes work at random on one window; one is killed every few milliseconds and started again at
// once; this one verifies from outside, and repairs now and then while they work.
//
//   crash_storm [--kills N] [--seed S] [--repair-every N]
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "check.h"
#include "repair.h"
#include "storm.h"
#include "support/window.h"

namespace crash {
namespace {

using encap_inspect::Finding;
using encap_inspect::FindingKind;
using encap_inspect::Report;
using encap_inspect::Severity;
using Clock = std::chrono::steady_clock;

constexpr unsigned kHangSeconds = 2;

struct Options {
  std::uint64_t kills = 2000;
  std::uint64_t seed = 0;
  std::uint64_t repair_every = 25;
};

struct Storm {
  const Options &options;
  const Window &window;
  Ledger &ledger;
  std::mt19937_64 random;
  pid_t pid[kWorkers] = {};
  std::uint64_t progress[kWorkers] = {};
  Clock::time_point progress_at[kWorkers] = {};
  std::uint64_t started = 0, looks = 0, repairs = 0, changes = 0;
  std::uint64_t kills_since_repair = 0;
  std::array<std::uint64_t, encap_inspect::kFindingKinds> kinds{};
};

// Nobody may wait longer than this for anything that a death left behind.
void on_hang(int /*signal*/) {
  static constexpr char kText[] = "FAILED: a step took longer than 2 s\n";
  [[maybe_unused]] const ssize_t told = write(STDOUT_FILENO, kText, sizeof kText - 1);
  kill(0, SIGKILL);
}

void fail(const Storm &storm, const std::string &text) {
  for (const pid_t pid : storm.pid) {
    kill(pid, SIGKILL);
  }
  give_up("FAILED (--seed %" PRIu64 "), repairs %" PRIu64 ":\n%s", storm.options.seed, storm.repairs, text.c_str());
}

void start(Storm &storm, std::uint32_t worker) {
  const std::uint64_t seed = storm.options.seed * 1'000'003 + storm.started++;
  const pid_t child = fork();
  if (child == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    storm_work(storm.ledger, worker, seed);
    _exit(0);
  }
  storm.pid[worker] = child;
  storm.progress_at[worker] = Clock::now();
}

void end(Storm &storm, std::uint32_t worker, int signal) {
  kill(storm.pid[worker], signal);
  waitpid(storm.pid[worker], nullptr, 0);
}

std::string told(const Report &report) {
  std::string text;
  for (const Finding &finding : report.findings) {
    text += std::string(encap_inspect::name_of(finding.kind)) + ": " + finding.text + '\n';
  }
  return text;
}

// Under the lock: named states alone, no more blocks out of reach than deaths can leave, and all that was completed.
void look(Storm &storm) {
  vrl_egress_encap_db_lock(&egress_encap_db->lock.mutex);
  const Report report = encap_inspect::check(encap_inspect::View::over(storm.window.bytes(), storm.window.size()));
  std::string wrong;
  for (std::uint32_t worker = 0; worker < kWorkers; ++worker) {
    wrong += storm_difference(storm.ledger, worker);
  }
  pthread_mutex_unlock(&egress_encap_db->lock.mutex);
  for (const Finding &finding : report.findings) {
    ++storm.kinds[static_cast<std::size_t>(finding.kind)];
    if (encap_inspect::severity_of(finding.kind) == Severity::kDamage) {
      wrong += "no state of a death: " + finding.text + '\n';
    }
  }
  if (report.count_of(FindingKind::kBlockUnreachable) > 2 * storm.kills_since_repair) {
    wrong += "too many blocks are out of reach\n" + told(report);
  }
  ++storm.looks;
  if (!wrong.empty() || !report.looked) {
    fail(storm, wrong + told(report));
  }
}

// Takes over what the repair made of the entries that nobody was sure of. Their workers are stopped meanwhile: one
// that lives would note the end of its operation beside it.
void settle(Storm &storm) {
  for (std::uint32_t worker = 0; worker < kWorkers; ++worker) {
    Ledger::Worker &own = storm.ledger.worker[worker];
    for (std::uint32_t nh = 0; nh < kNhsEach; ++nh) {
      if ((own.unsure & 1u << nh) != 0) {
        const egr_nh_info_t &slot = egress_encap_db->nh_info_array[storm_nh(worker, nh) - kStormNhStart];
        if (slot.valid != 0 && slot.ref_count == 0) {
          vrl_find_and_set_egress_nh_ref(storm_nh(worker, nh), 1);  // a note of the check; its worker uses it again
        }
        own.entry[nh] = {slot.ref_count, slot.seed_nh};
      }
    }
    own.unsure = 0;
  }
}

// While others work: all but the one that has just been killed.
void repair(Storm &storm) {
  const encap_inspect::RepairResult result = encap_inspect::repair(kWindowId);
  ++storm.repairs;
  storm.changes += result.changes.size();
  for (std::size_t kind = 0; kind < storm.kinds.size(); ++kind) {
    storm.kinds[kind] += result.before.count[kind];
  }
  if (result.status != 0 || !result.after.sound()) {
    fail(storm, "repair: " + result.error + "\nbefore\n" + told(result.before) + "after\n" + told(result.after));
  }
}

// Kills all, so that every entry that is still unsure belongs to no process, repairs again and settles.
void repair_and_settle(Storm &storm) {
  repair(storm);
  for (std::uint32_t worker = 0; worker < kWorkers; ++worker) {
    end(storm, worker, SIGKILL);
  }
  repair(storm);
  settle(storm);
  storm.kills_since_repair = 0;
  look(storm);
  for (std::uint32_t worker = 0; worker < kWorkers; ++worker) {
    start(storm, worker);
  }
}

void check_workers(Storm &storm) {
  for (std::uint32_t worker = 0; worker < kWorkers; ++worker) {
    if (storm.ledger.worker[worker].failure[0] != '\0') {
      fail(storm, "worker " + std::to_string(worker) + ": " + storm.ledger.worker[worker].failure);
    }
    if (waitpid(storm.pid[worker], nullptr, WNOHANG) != 0) {
      fail(storm, "worker " + std::to_string(worker) + " ended by itself");
    }
    const std::uint64_t operations = storm.ledger.worker[worker].operations;
    if (operations != storm.progress[worker]) {
      storm.progress[worker] = operations;
      storm.progress_at[worker] = Clock::now();
    } else if (Clock::now() - storm.progress_at[worker] > std::chrono::seconds(kHangSeconds)) {
      fail(storm, "worker " + std::to_string(worker) + " hangs");
    }
  }
}

void rage(Storm &storm) {
  for (std::uint64_t kills = 0; kills < storm.options.kills; ++kills) {
    alarm(kHangSeconds);
    usleep(static_cast<useconds_t>(500 + storm.random() % 3000));
    check_workers(storm);
    const auto victim = static_cast<std::uint32_t>(storm.random() % kWorkers);
    end(storm, victim, SIGKILL);
    ++storm.kills_since_repair;
    start(storm, victim);
    if (storm.random() % 4 == 0) {
      look(storm);
    }
    if ((kills + 1) % storm.options.repair_every == 0) {
      repair_and_settle(storm);
    }
  }
}

// Stops the workers, withdraws everything, and demands an empty window.
std::string clear(Storm &storm) {
  repair_and_settle(storm);
  storm.ledger.stop = true;
  for (std::uint32_t worker = 0; worker < kWorkers; ++worker) {
    waitpid(storm.pid[worker], nullptr, 0);
  }
  look(storm);
  for (std::uint32_t nh = kStormNhStart; nh < kStormNhStart + kStormNhs; ++nh) {
    if (egress_encap_db->nh_info_array[nh - kStormNhStart].valid != 0 && on_database(on_nh(Verb::kDetach, nh)).status) {
      return "NH " + std::to_string(nh) + " cannot be withdrawn";
    }
  }
  shmwin_stat_t stat{};
  shmwin_stat(kWindowId, &stat);
  const bool empty = egress_encap_db->tun_root == nullptr && stat.nodes40 == 0 && stat.nodes56 == 0 &&
                     stat.arrays == 2 && stat.bad_releases == 0;
  return empty ? "" : "blocks are left in the window";
}

// NHs that keep the null tunnel's count above 0 whatever deaths leave of it.
void enter_kept() {
  for (std::uint32_t i = 0; i < kKept; ++i) {
    Operation operation;
    operation.verb = Verb::kInsert;
    operation.key = key_of(1 + i, 0, 1000);
    operation.info.tun_found = i != 0;
    operation.info.egr_nh = kStormNhStart + kWorkers * kNhsEach + i;
    on_database(operation);
  }
}

int run(const Options &options) {
  setenv("LTRACE", "off", 1);
  setpgid(0, 0);
  signal(SIGALRM, on_hang);
  const Directory directory;
  encap_db_config_t config = config_in(directory);
  config.nh_start = kStormNhStart;
  config.nh_size = kStormNhs;
  config.tun_start = kStormTunStart;
  config.tun_size = kStormTunnels;
  const Window window(directory, config);
  auto *ledger =
      static_cast<Ledger *>(mmap(nullptr, sizeof(Ledger), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  std::printf("crash_storm --kills %" PRIu64 " --seed %" PRIu64 "\n", options.kills, options.seed);
  std::fflush(stdout);
  const auto begin = Clock::now();
  Storm storm{.options = options, .window = window, .ledger = *ledger, .random = std::mt19937_64(options.seed)};
  enter_kept();
  for (std::uint32_t worker = 0; worker < kWorkers; ++worker) {
    start(storm, worker);
  }
  rage(storm);
  const std::string wrong = clear(storm);
  if (!wrong.empty()) {
    fail(storm, wrong);
  }
  std::uint64_t operations = 0;
  for (const Ledger::Worker &worker : ledger->worker) {
    operations += worker.operations;
  }
  std::printf("%" PRIu64 " kills, %" PRIu64 " operations, %" PRIu64 " looks, %" PRIu64 " repairs with %" PRIu64
              " changes, nothing lost, %.1f s\n",
              options.kills, operations, storm.looks, storm.repairs, storm.changes,
              std::chrono::duration<double>(Clock::now() - begin).count());
  for (std::size_t kind = 0; kind < storm.kinds.size(); ++kind) {
    if (storm.kinds[kind] != 0) {
      std::printf("  %-26s %10" PRIu64 "\n", encap_inspect::name_of(static_cast<FindingKind>(kind)), storm.kinds[kind]);
    }
  }
  return 0;
}

Options parse(int argc, char **argv) {
  Options options;
  options.seed = std::random_device{}() % 1'000'000;
  for (int i = 1; i < argc; ++i) {
    std::uint64_t *number = std::strcmp(argv[i], "--kills") == 0          ? &options.kills
                            : std::strcmp(argv[i], "--seed") == 0         ? &options.seed
                            : std::strcmp(argv[i], "--repair-every") == 0 ? &options.repair_every
                                                                          : nullptr;
    if (number == nullptr || i + 1 == argc) {
      give_up("usage: crash_storm [--kills N] [--seed S] [--repair-every N]");
    }
    *number = std::strtoull(argv[++i], nullptr, 0);
  }
  options.repair_every = std::max<std::uint64_t>(1, options.repair_every);
  return options;
}

}  // namespace
}  // namespace crash

int main(int argc, char **argv) {
  return crash::run(crash::parse(argc, argv));
}
