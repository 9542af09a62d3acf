// Every instruction: single-steps each changing operation, and plays in every state of the window in which a death
// would leave it the next process, which repairs, and survivors, which go on before any repair; then again for a second
// death at every change that the recovery and the repair make.
//
//   crash_steps [--only TEXT] [--jobs N] [--no-second]
#include <cinttypes>
#include <cstdio>

#include "replay.h"
#include "support/driver.h"

namespace crash {
namespace {

struct Totals {
  std::uint64_t scenarios, instructions, changes, states, kills, seconds, failures;
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

// One scenario in a window of its own.
class Run {
 public:
  Run(const Scenario &scenario, Totals &totals, Tally &tally)
      : scenario_(scenario), totals_(totals), tally_(tally), expected_(scenario, arrange(scenario)) {}

  void play(bool with_second) {
    window_.forget_processes();
    const Image start = window_.image();
    const Walk walk = walk_through(window_, [this] { work_of(scenario_); });
    window_.put(start);
    ++totals_.scenarios;
    totals_.instructions += walk.instructions;
    totals_.changes += walk.changes;
    totals_.states += walk.states.all().size();
    bool good = walk.changes == 0 || kill_for_good(walk, start);
    const Verdicts first = crash::play(window_, expected_, walk.states.all(), 1, with_second);
    good = tell("first", first) && good;
    if (good && !scenario_.when.empty()) {
      play_survivors(window_, expected_, walk.states.all(), false, tally_);
    }
    good = good && (!with_second || second_deaths(first.seconds));
    totals_.failures += good ? 0 : 1;
  }

 private:
  bool tell(const char *which, const Verdicts &verdicts) const {
    if (!verdicts.failure.empty()) {
      std::printf("FAILED %s, %s-death state %zu\n%s\n", scenario_.name.c_str(), which, verdicts.failed_at,
                  verdicts.failure.c_str());
    }
    return verdicts.failure.empty();
  }

  // A process that is really killed leaves what bury() says; one change a scenario, a different one each time.
  bool kill_for_good(const Walk &walk, const Image &start) {
    window_.put(start);
    const Image left = killed_at(
        window_, [this] { work_of(scenario_); }, 1 + ++totals_.kills * 7 % walk.changes);
    window_.put(start);
    const std::vector<Image> &all = walk.states.all();
    const bool seen = std::find(all.begin(), all.end(), left) != all.end();
    if (!seen) {
      std::printf("FAILED %s: a process that was killed left a state that no step showed\n", scenario_.name.c_str());
    }
    return seen;
  }

  bool second_deaths(const States &states) {
    const std::vector<Image> &all = states.all();
    totals_.seconds += all.size();
    if (!tell("second", crash::play(window_, expected_, all, 2, false))) {
      return false;
    }
    if (!scenario_.when.empty()) {
      play_survivors(window_, expected_, all, true, tally_);
    }
    return true;
  }

  const Scenario &scenario_;
  Totals &totals_;
  Tally &tally_;
  const Directory directory_;
  const Window window_{directory_, config_in(directory_)};
  const Expectation expected_;
};

// The survivors' answers: none that the table does not list, and in a whole run none listed that no survivor met.
std::uint64_t print_answers(const Tally &tally, bool whole_run) {
  std::uint64_t failures = tally.failures, answers = 0;
  std::size_t number = 0;
  for (const std::string &row : answer_rows()) {
    const std::uint64_t count = tally.answered[number++];
    answers += count;
    if (whole_run && count == 0 && !rests_on_the_compiler(row)) {
      ++failures;
      std::printf("FAILED: listed and never answered: %s\n", row.c_str());
    }
  }
  std::printf("answers of survivors that the table lists: %" PRIu64 "\n", answers);
  return failures;
}

std::vector<Scenario> scenarios_named(const std::string &text) {
  std::vector<Scenario> all = database_scenarios();
  for (std::vector<Scenario> more : {heap_scenarios(), tree_scenarios()}) {
    all.insert(all.end(), more.begin(), more.end());
  }
  std::erase_if(all, [&text](const Scenario &scenario) { return scenario.name.find(text) == std::string::npos; });
  return all;
}

}  // namespace
}  // namespace crash

int main(int argc, char **argv) {
  using namespace crash;
  std::string only;
  std::uint64_t jobs = 1;
  bool no_second = false;
  parse(argc, argv, {{"--only", &only}, {"--jobs", &jobs}, {"--no-second", &no_second}});
  const Stopwatch time;
  auto &tally = shared_record<Tally>();
  const std::vector<Scenario> all = scenarios_named(only);
  auto totals = in_jobs<Totals>(
      jobs, all.size(), [&](std::size_t number, Totals &own) { Run(all[number], own, tally).play(!no_second); });
  std::printf("scenarios %" PRIu64 ", instructions %" PRIu64 ", changes of the window %" PRIu64
              ", distinct states %" PRIu64 ", of second deaths %" PRIu64 ", killed for good %" PRIu64 "\n",
              totals.scenarios, totals.instructions, totals.changes, totals.states, totals.seconds, totals.kills);
  totals.failures += print_answers(tally, only.empty() && !no_second);
  std::printf("%" PRIu64 " failures, %.1f s\n", totals.failures, time.seconds());
  return totals.failures == 0 && totals.scenarios != 0 ? 0 : 1;
}
