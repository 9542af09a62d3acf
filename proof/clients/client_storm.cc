// Kill storm of clients: four processes of three threads each enter, release, refresh, close, leave and reclaim at
// random in one database, under a name for each process. Processes are killed every few milliseconds, alone, in quick
// succession or all at once, and come back under their names. After each kill all others pause, and this process looks
// at everything: each client holds what it completed, the ledgers add up to the counts, no index is both free and in
// use, every block is referred to, and the inspector finds nothing. Meanwhile a thread of each process looks without
// the lock at keys that one thread alone enters, and also while a process is stopped in the middle of a change.
//
//   client_storm [--kills N] [--seed S]
#include <unistd.h>

#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <random>

#include "avl.h"
#include "picture.h"
#include "records/lookup.h"
#include "scenarios.h"
#include "storm.h"
#include "support/driver.h"

namespace client_proof {
namespace {

using crash::kProcesses;

constexpr std::uint32_t kStormNhs = 180, kStormTunnels = 20;  // fewer than keys need
constexpr std::uint32_t kLabels = 24;                         // tunnels that keys name
constexpr unsigned kStepSeconds = 60;                         // no step of the verifier's takes longer

struct Options {
  std::uint64_t kills = 2000;
  std::uint64_t seed = std::random_device{}() % 1'000'000;
};

class Storm {
 public:
  Storm(const Options &options, const crash::Window &window, const encap_db_config_t &config, Journal &journal)
      : options_(options),
        window_(window),
        config_(config),
        journal_(journal),
        random_(options.seed),
        herd_(journal.herd, "--seed " + std::to_string(options.seed),
              [&](std::uint32_t process, std::uint64_t seed) { live_as_client(journal, config, process, seed); }) {}

  void run() {
    for (std::uint32_t process = 0; process < kProcesses; ++process) {
      herd_.start(process, random_());
    }
    while (kills_ < options_.kills) {
      alarm(kStepSeconds);
      const bool soon = random_() % 4 == 0;  // while the last ones killed open their names again
      usleep(static_cast<useconds_t>(soon ? random_() % 300 : 300 + random_() % 2000));
      herd_.expect_well();
      if (random_() % 16 == 0) {
        stop_for_a_while(static_cast<std::uint32_t>(random_() % kProcesses));
      }
      kill_some();
      herd_.pause();
      look();
      bring_back();
      herd_.resume();
    }
    end();
  }

  void print(double seconds) const {
    std::printf("%" PRIu64 " kills, %" PRIu64 " calls, %" PRIu64
                " looks that had one right answer, nothing lost, every page is free, %.1f s\n",
                kills_, herd_.operations(), journal_.judged.load(), seconds);
  }

 private:
  // A stopped process may hold the lock, with a change begun. The looks of the others do not wait for it.
  void stop_for_a_while(std::uint32_t process) {
    if (!herd_.is_alive(process)) {
      return;
    }
    herd_.send(process, SIGSTOP);
    for (std::uint32_t other = 0; other < kProcesses; ++other) {
      const Journal::Name &name = journal_.name[other];
      const std::uint64_t seen = name.looks;
      while (other != process && herd_.is_alive(other) && name.looking && name.looks < seen + 50) {
        herd_.expect_well();
        usleep(100);
      }
    }
    herd_.send(process, SIGCONT);
  }

  // One process, at times another behind it, which may be about to recover what the first left, at times all.
  void kill_some() {
    const auto first = static_cast<std::uint32_t>(random_() % kProcesses);
    const std::uint64_t dice = random_() % 16;
    const std::uint32_t victims = dice == 0 ? kProcesses : dice < 5 ? 2 : 1;
    for (std::uint32_t i = 0; i < victims; ++i) {
      const std::uint32_t victim = (first + i) % kProcesses;
      if (!herd_.is_alive(victim) || journal_.name[victim].lost) {
        continue;  // away, or back while a reclaim of its name may be under way
      }
      if (i == 1) {
        usleep(static_cast<useconds_t>(random_() % 50));
      }
      herd_.end(victim);
      ++kills_;
    }
  }

  // Requires a pause. The dead ones' names are as their processes left them, apart from what others reclaimed.
  void look() {
    const int locked = vrl_egress_encap_db_lock(&egress_encap_db->lock.mutex);
    avl_settle(egress_encap_db);
    Picture picture = draw();
    pthread_mutex_unlock(&egress_encap_db->lock.mutex);
    std::string wrong = locked == 0 ? "" : "the lock cannot be taken\n";
    wrong += contradiction(picture, window_);
    for (std::uint32_t process = 0; process < kProcesses; ++process) {
      wrong += compare(process, picture);
    }
    if (!wrong.empty()) {
      herd_.fail("after " + std::to_string(kills_) + " kills: " + wrong);
    }
  }

  // What the ledger of a process says beside what it completed; what a dead one holds is then certain.
  std::string compare(std::uint32_t process, const Picture &picture) {
    std::map<std::uint32_t, std::uint32_t> held;
    if (const auto found = picture.held.find(storm_name(process)); found != picture.held.end()) {
      for (const auto &[nh, counts] : found->second) {
        held[storm_key_number(clients::key_of(nh))] += counts.first;
      }
    }
    for (std::uint32_t number = 0; number < kKeys; ++number) {
      const auto [least, most] = journal_.bounds(process, number);
      if (held[number] < least || held[number] > most) {
        return "\n" + storm_name(process) + " holds " + std::to_string(held[number]) + " references on key " +
               std::to_string(number) + ", completed were " + std::to_string(least) + " to " + std::to_string(most);
      }
      if (!herd_.is_alive(process)) {
        journal_.settle(process, number, held[number]);
      }
    }
    return held.size() == kKeys ? "" : "\n" + storm_name(process) + " holds what it never entered";
  }

  // Starts the dead processes, or leaves one away for a while so that others reclaim what it held. Requires a pause.
  void bring_back() {
    for (std::uint32_t process = 0; process < kProcesses; ++process) {
      Journal::Name &name = journal_.name[process];
      if (herd_.is_alive(process)) {
        name.lost = false;  // no process reclaims it now, and it has the name or waits for it
        continue;
      }
      for (std::uint32_t owner = process * crash::kThreads; owner < (process + 1) * crash::kThreads; ++owner) {
        journal_.thread[owner].entering = journal_.thread[owner].releasing = 0;
      }
      name.looking = false;
      const bool stays_away = !name.lost && random_() % 8 == 0;
      name.sweeping = stays_away || name.lost;
      if (stays_away) {
        name.lost = true;
        for (auto &wanted : name.wanted) {
          wanted = 0;
        }
        for (std::uint32_t i = 0; i < kPrivateEach; ++i) {
          journal_.private_key(process, i).begin_change();
        }
      } else if (!name.lost || random_() % 2 == 0) {
        herd_.start(process, random_());
      }
    }
  }

  void end() {
    alarm(kStepSeconds);
    for (std::uint32_t process = 0; process < kProcesses; ++process) {
      if (!herd_.is_alive(process)) {
        herd_.start(process, random_());
      }
    }
    herd_.stop();
    look();
    const Picture picture = draw();
    shmwin_stat_t stat{};
    shmwin_stat(config_.shm_id, &stat);
    if (!picture.held.empty() || !picture.trees.empty() || stat.nodes40 != 0 || stat.nodes56 != 0) {
      herd_.fail("something is left at the end");
    }
  }

  const Options options_;
  const crash::Window &window_;
  const encap_db_config_t &config_;
  Journal &journal_;
  std::mt19937_64 random_;
  crash::Herd herd_;
  std::uint64_t kills_ = 0;
};

}  // namespace

std::pair<std::uint32_t, std::uint32_t> Journal::bounds(std::uint32_t process, std::uint32_t key) const {
  std::uint32_t least = 0;
  std::uint32_t most = 0;
  for (std::uint32_t owner = process * crash::kThreads; owner < (process + 1) * crash::kThreads; ++owner) {
    const Thread &own = thread[owner];
    const std::uint32_t held = own.held[key];
    least += held - (held != 0 && own.releasing == key + 1 ? 1 : 0);
    most += held + (own.entering == key + 1 ? 1 : 0);
  }
  return {name[process].sweeping ? name[process].wanted[key].load() : least, most};
}

void Journal::settle(std::uint32_t process, std::uint32_t key, std::uint32_t held) {
  for (std::uint32_t owner = (process + 1) * crash::kThreads; owner-- != process * crash::kThreads;) {
    Thread &own = thread[owner];
    const bool last = owner % crash::kThreads == 0;
    own.held[key] = last ? held : std::min<std::uint32_t>(held, own.held[key]);
    held -= own.held[key];
  }
}

egress_encap_key_t storm_key(std::uint32_t number) {
  const std::uint32_t tunnel = number % kLabels;
  return key(16 + number, tunnel < 2 ? 0 : 100 + tunnel, tunnel < 2 ? 1 + tunnel : 7);
}

std::uint32_t storm_key_number(const egress_encap_key_t &key) {
  for (std::uint32_t number = 0; number < kKeys; ++number) {
    const egress_encap_key_t same = storm_key(number);
    if (std::memcmp(&key, &same, sizeof key) == 0) {
      return number;
    }
  }
  return kKeys;
}

std::string storm_name(std::uint32_t process) {
  return "storm-" + std::to_string(process);
}

}  // namespace client_proof

int main(int argc, char **argv) {
  using namespace client_proof;
  Options options;
  crash::parse(argc, argv, {{"--kills", &options.kills}, {"--seed", &options.seed}});
  const crash::Directory directory;
  encap_db_config_t config = crash::config_in(directory);
  config.nh_size = kStormNhs;
  config.tun_size = kStormTunnels;
  config.size = 64 * std::uint64_t{4096};
  const crash::Window window(directory, config);
  std::fprintf(stderr, "client_storm --kills %" PRIu64 " --seed %" PRIu64 "\n", options.kills, options.seed);
  const crash::Stopwatch time;
  Storm storm(options, window, config, crash::shared_record<Journal>());
  storm.run();
  storm.print(time.seconds());
  return 0;
}
