// Random operations on the real services beside the model, seeded and replayable.
//
//   random_operations [--operations N] [--seed S] [--all-every K] [--stray]
//
// After every operation: its whole answer, the bytes of the NH slot and of the tunnel slots that it names, and what
// both trees then give for its key. Every K operations, and at the end: all bytes of both arrays, all nodes of all
// trees in order, every count; without --stray also the inspector's whole check of the window, heap included.
#include <cinttypes>
#include <cstdio>
#include <random>

#include "model/caller.h"
#include "support/driver.h"

namespace crash {
namespace {

struct Options {
  std::uint64_t operations = 1'000'000;
  std::uint64_t seed = std::random_device{}();
  std::uint64_t all_every = 1000;
  bool stray = false;
};

// Few indexes: they run out now and then, and keys meet.
encap_db_config_t small(const Directory &directory) {
  encap_db_config_t config = config_in(directory);
  config.nh_size = 24;
  config.tun_size = 6;
  return config;
}

int run(const Options &options) {
  const Directory directory;
  const encap_db_config_t config = small(directory);
  const Window window(directory, config);
  std::mt19937_64 random(options.seed);
  Caller caller(
      encap_test::Model(config.nh_start, config.nh_size, config.tun_start, config.tun_size),
      [&random](std::uint32_t limit) { return static_cast<std::uint32_t>(random() % limit); }, options.stray);
  std::printf("random_operations --operations %" PRIu64 " --seed %" PRIu64 " --all-every %" PRIu64 "%s\n",
              options.operations, options.seed, options.all_every, options.stray ? " --stray" : "");
  std::fflush(stdout);
  const Stopwatch time;
  for (std::uint64_t i = 1; i <= options.operations; ++i) {
    std::string wrong = caller.step();
    if (wrong.empty() && (i % std::max<std::uint64_t>(1, options.all_every) == 0 || i == options.operations)) {
      wrong = caller.compare_all() + (options.stray ? "" : findings_in(window));
    }
    if (!wrong.empty()) {
      std::printf("FAILED at operation %" PRIu64 "\n%s", i, wrong.c_str());
      return 1;
    }
  }
  std::printf("%" PRIu64 " operations, all of them as the model has it, %.1f s\n", options.operations, time.seconds());
  return 0;
}

}  // namespace
}  // namespace crash

int main(int argc, char **argv) {
  crash::Options options;
  crash::parse(argc, argv,
               {{"--operations", &options.operations},
                {"--seed", &options.seed},
                {"--all-every", &options.all_every},
                {"--stray", &options.stray}});
  return crash::run(options);
}
