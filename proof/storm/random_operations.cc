// Random operations on the real services beside the model, seeded and replayable.
//
//   random_operations [--operations N] [--seed S] [--stray]
//
// After every operation: its whole answer, all bytes of both arrays, all nodes of all trees in order, every count; now
// and then, without --stray, also the inspector's whole check of the window, heap included.
#include <cinttypes>
#include <cstdio>
#include <random>

#include "model/caller.h"
#include "support/driver.h"

int main(int argc, char **argv) {
  using namespace crash;
  std::uint64_t operations = 100'000;
  std::uint64_t seed = std::random_device{}();
  bool stray = false;
  parse(argc, argv, {{"--operations", &operations}, {"--seed", &seed}, {"--stray", &stray}});
  const Directory directory;
  encap_db_config_t config = config_in(directory);
  config.nh_size = 24;  // few indexes: they run out now and then, and keys meet
  config.tun_size = 6;
  const Window window(directory, config);
  Caller caller({config.nh_start, config.nh_size, config.tun_start, config.tun_size}, seed, stray);
  std::fprintf(stderr, "random_operations --operations %" PRIu64 " --seed %" PRIu64 "%s\n", operations, seed,
               stray ? " --stray" : "");
  const Stopwatch time;
  for (std::uint64_t i = 1; i <= operations; ++i) {
    std::string wrong = caller.step();
    if (wrong.empty() && !stray && (i % 1000 == 0 || i == operations)) {
      wrong = findings_in(window);
    }
    if (!wrong.empty()) {
      give_up("FAILED at operation %" PRIu64 "\n%s", i, wrong.c_str());
    }
  }
  std::printf("%" PRIu64 " operations, all of them as the model has it, %.1f s\n", operations, time.seconds());
  return 0;
}
