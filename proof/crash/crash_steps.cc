// Every instruction: single-steps each changing operation, and plays the next process in every state of the window in
// which a death would leave it; then again for a second death at every change that the recovery makes.
//
//   crash_steps [--shard I/N] [--only TEXT] [--no-second]
#include <sys/mman.h>
#include <unistd.h>

#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "replay.h"

namespace crash {
namespace {

using Clock = std::chrono::steady_clock;

struct Options {
  unsigned shard = 0, shards = 1;
  const char *only = "";
  bool second = true;
};

struct Totals {
  std::uint64_t scenarios = 0, instructions = 0, changes = 0, states = 0, kills = 0, seconds = 0, second_changes = 0;
  std::uint64_t failures = 0;
  Kinds first_kinds{}, second_kinds{};
};

void work_of(const Scenario &scenario) {
  for (const Operation &operation : scenario.when) {
    on_database(operation);
  }
  if (scenario.work) {
    scenario.work();
  }
}

// The state that the scenario starts from. Returns the model of it.
encap_test::Model arrange(const Scenario &scenario) {
  encap_test::Model model(kNhStart, kNhSize, kTunStart, kTunSize);
  for (const Operation &operation : scenario.given) {
    const Answer is = on_database(operation);
    if (!(is == on_model(model, operation)) || is.status != 0) {
      give_up("%s: not as given: %s", scenario.name.c_str(), text_of(operation).c_str());
    }
  }
  if (scenario.prepare) {
    scenario.prepare();
  }
  return model;
}

bool tell(const Scenario &scenario, const char *which, const Verdicts &verdicts) {
  if (verdicts.failure.empty()) {
    return true;
  }
  std::printf("FAILED %s, %s state %zu\n%s\n", scenario.name.c_str(), which, verdicts.failed_at,
              verdicts.failure.c_str());
  return false;
}

// A process that is really killed leaves what bury() says; one change a scenario, a different one each time.
bool kill_for_good(const Window &window, const Scenario &scenario, const Walk &walk, const Image &start,
                   std::uint64_t number) {
  window.put(start);
  const Image left = killed_at(
      window, [&] { work_of(scenario); }, 1 + number * 7 % walk.changes);
  window.put(start);
  for (const Image &state : walk.states.all()) {
    if (state == left) {
      return true;
    }
  }
  std::printf("FAILED %s: a process that was killed left a state that no step showed\n", scenario.name.c_str());
  return false;
}

bool second_deaths(const Window &window, const Scenario &scenario, const Expectation &expected, Verdicts &first,
                   Totals &totals) {
  States states;
  totals.second_changes += first.seconds.size();
  for (Image &image : first.seconds) {
    states.add(std::move(image));
  }
  first.seconds = {};
  totals.seconds += states.all().size();
  return tell(scenario, "second-death", play(window, expected, states.all(), 2, false, totals.second_kinds));
}

void run(const Scenario &scenario, const Options &options, Totals &totals) {
  const Directory directory;
  const Window window(directory, config_in(directory));
  const Expectation expected(scenario, arrange(scenario));
  const Image start = window.image();
  const Walk walk = walk_through(window, [&] { work_of(scenario); });
  window.put(start);
  ++totals.scenarios;
  totals.instructions += walk.instructions;
  totals.changes += walk.changes;
  totals.states += walk.states.all().size();
  bool good = walk.changes == 0 || kill_for_good(window, scenario, walk, start, ++totals.kills);
  Verdicts first = play(window, expected, walk.states.all(), 1, options.second, totals.first_kinds);
  good = tell(scenario, "first", first) && good;
  if (good && options.second) {
    good = second_deaths(window, scenario, expected, first, totals);
  }
  totals.failures += good ? 0 : 1;
}

void print_kinds(const char *title, const Kinds &kinds) {
  std::printf("%s\n", title);
  for (std::size_t kind = 0; kind < kinds.size(); ++kind) {
    if (kinds[kind] != 0) {
      const auto finding = static_cast<encap_inspect::FindingKind>(kind);
      std::printf("  %-26s %-8s %10" PRIu64 "\n", encap_inspect::name_of(finding),
                  encap_inspect::name_of(encap_inspect::severity_of(finding)), kinds[kind]);
    }
  }
}

void print(const Totals &totals, double seconds) {
  std::printf("scenarios %" PRIu64 ", instructions %" PRIu64 ", changes of the window %" PRIu64
              ", distinct states %" PRIu64 ", killed for good %" PRIu64 "\n",
              totals.scenarios, totals.instructions, totals.changes, totals.states, totals.kills);
  std::printf("second deaths: changes of recoveries %" PRIu64 ", distinct states %" PRIu64 "\n", totals.second_changes,
              totals.seconds);
  print_kinds("found after the first death, by name:", totals.first_kinds);
  print_kinds("found after the second, by name:", totals.second_kinds);
  std::printf("%" PRIu64 " failures, %.1f s\n", totals.failures, seconds);
}

Options parse(int argc, char **argv) {
  Options options;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--shard") == 0 && i + 1 < argc &&
        std::sscanf(argv[i + 1], "%u/%u", &options.shard, &options.shards) == 2 && options.shards != 0) {
      ++i;
    } else if (std::strcmp(argv[i], "--only") == 0 && i + 1 < argc) {
      options.only = argv[++i];
    } else if (std::strcmp(argv[i], "--no-second") == 0) {
      options.second = false;
    } else {
      give_up("usage: crash_steps [--shard I/N] [--only TEXT] [--no-second]");
    }
  }
  return options;
}

int main_of(const Options &options) {
  setenv("LTRACE", "off", 1);
  const auto begin = Clock::now();
  std::vector<Scenario> all = database_scenarios();
  for (std::vector<Scenario> more : {heap_scenarios(), tree_scenarios()}) {
    all.insert(all.end(), more.begin(), more.end());
  }
  Totals totals;
  for (std::size_t i = 0; i < all.size(); ++i) {
    if (i % options.shards == options.shard && all[i].name.find(options.only) != std::string::npos) {
      run(all[i], options, totals);
      std::fflush(stdout);
    }
  }
  print(totals, std::chrono::duration<double>(Clock::now() - begin).count());
  return totals.failures == 0 && totals.scenarios != 0 ? 0 : 1;
}

}  // namespace
}  // namespace crash

int main(int argc, char **argv) {
  return crash::main_of(crash::parse(argc, argv));
}
