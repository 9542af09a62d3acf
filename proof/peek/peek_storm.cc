// Looks without the lock beside writers at full speed. Processes of two threads each share one database: the first thread
// enters and releases encapsulations on tunnels that are its own, the second one looks at all of them. Processes are
// killed at random, or stopped for a while, in which the others' looks must go on. Every answer is compared with the
// states that were true at a moment between the call and its return.
//
//   peek_storm [--seconds N] [--seed S]
#include <unistd.h>

#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <random>

#include "peers.h"
#include "support/driver.h"

namespace peek_proof {
namespace {

constexpr unsigned kHangSeconds = 60;

// Looks of the one process, or of all others.
std::uint64_t looks_of(const Journal &journal, std::uint32_t process, bool others) {
  std::uint64_t looks = 0;
  for (std::uint32_t one = 0; one < kPeekers; ++one) {
    looks += (one == process) != others ? journal.looks[one].load() : 0;
  }
  return looks;
}

void expect_looks(const Journal &journal, const crash::Herd &herd, std::uint32_t process, bool others) {
  const std::uint64_t seen = looks_of(journal, process, others);
  while (looks_of(journal, process, others) < seen + 100) {
    herd.expect_well();
    usleep(200);
  }
}

// A stopped process may hold the lock, with a change begun. The looks of the others do not wait for it.
void stop_for_a_while(Journal &journal, crash::Herd &herd, std::uint32_t process) {
  journal.stopped = true;
  herd.send(process, SIGSTOP);
  expect_looks(journal, herd, process, true);
  journal.stopped = false;
  herd.send(process, SIGCONT);
}

int run(std::uint64_t seconds, std::uint64_t seed) {
  const crash::Directory directory;
  const encap_db_config_t config = crash::config_in(directory, 96 * std::uint64_t{4096});
  const crash::Window window(directory, config);
  auto &journal = crash::shared_record<Journal>();
  fill(journal, config);
  std::fprintf(stderr, "peek_storm --seconds %" PRIu64 " --seed %" PRIu64 "\n", seconds, seed);
  std::mt19937_64 random(seed);
  crash::Herd herd(journal.herd, "--seed " + std::to_string(seed),
                   [&](std::uint32_t process, std::uint64_t own_seed) { live(journal, config, process, own_seed); });
  for (std::uint32_t process = 0; process < kPeekers; ++process) {
    herd.start(process, random());
    expect_looks(journal, herd, process, false);
  }
  std::uint64_t kills = 0;
  std::uint64_t stops = 0;
  for (const crash::Stopwatch time; time.seconds() < static_cast<double>(seconds);) {
    alarm(kHangSeconds);
    usleep(static_cast<useconds_t>(2000 + random() % 20'000));
    herd.expect_well();
    const auto process = static_cast<std::uint32_t>(random() % kPeekers);
    if (random() % 2 == 0) {
      stop_for_a_while(journal, herd, process);
      ++stops;
    } else {
      herd.end(process);
      herd.start(process, random());
      expect_looks(journal, herd, process, false);  // an opening, unlike a look, waits for a stopped holder
      ++kills;
    }
  }
  herd.stop();
  const std::uint64_t looks = looks_of(journal, kPeekers, true);
  std::uint64_t changes = 0;
  for (const Group &group : journal.group) {
    changes += group.stamp / 2;
  }
  std::printf("%" PRIu64 " looks beside %" PRIu64 " changes, %" PRIu64 " kills, %" PRIu64 " stops; %" PRIu64
              " looks could not be judged\n",
              looks, changes, kills, stops, journal.unjudged.load());
  return looks != 0 && changes != 0 && journal.unjudged < looks / 10 ? 0 : 1;
}

}  // namespace
}  // namespace peek_proof

int main(int argc, char **argv) {
  std::uint64_t seconds = 4;
  std::uint64_t seed = std::random_device{}() % 1'000'000;
  crash::parse(argc, argv, {{"--seconds", &seconds}, {"--seed", &seed}});
  return peek_proof::run(seconds, seed);
}
