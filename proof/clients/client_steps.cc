// Every instruction of every call of a client: single-steps the call, lets the next client in at every state in which a
// death would leave the window, and again at every state that a death in that recovery leaves. Each time the database
// must be as before the call or as after it, without a repair. Then the same with a process without a client that works
// before the next client comes, with looks at everything without the lock, and with each allocation failing.
//
//   client_steps [--jobs N] [--only TEXT] [--no-second]
#include <dlfcn.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>

#include "plays.h"
#include "support/driver.h"

namespace {

// The allocation that fails next, counted from 1; 0: none.
int failing_allocation = 0;

}  // namespace

// In the executable, so that the libraries' calls come here first.
extern "C" __attribute__((visibility("default"))) int shmwin_malloc(uint32_t shm_id, size_t size, void **block) {
  static const auto real = reinterpret_cast<int (*)(uint32_t, size_t, void **)>(dlsym(RTLD_NEXT, "shmwin_malloc"));
  if (failing_allocation > 0 && --failing_allocation == 0) {
    *block = nullptr;
    return ENOMEM;
  }
  return real(shm_id, size, block);
}

namespace client_proof {
namespace {

constexpr unsigned kSeconds = 600;  // then the next process hangs

struct Totals {
  std::uint64_t scenarios, states, seconds, allocations, failures;
};

// In a child of its own, since a call may close a client.
bool in_child(const Stage &stage, const std::function<bool()> &work) {
  const std::string ended = crash::run_in_child(kSeconds, work);
  if (!ended.empty()) {
    std::printf("FAILED %s: %s\n", stage.scenario.name.c_str(), ended.c_str());
  }
  return ended.empty();
}

// Each allocation of the call fails in turn: then the call says so and changes nothing.
bool fail_allocations(const Stage &stage, Totals &told) {
  const auto fail = [&](int number) {
    stage.put_start();
    const Picture before = draw();
    failing_allocation = number;
    Cast cast = stage.cast;
    const int status = stage.scenario.call(cast, nullptr, nullptr);
    if (failing_allocation != 0) {
      return true;  // the call has not so many
    }
    ++told.allocations;
    const Picture now = draw();
    std::string wrong = contradiction(now, stage.window, status == 0 ? Queues::kMayLose : Queues::kWhole);
    if (status != 0 && now != before) {
      wrong = "a refused call changed" + difference(before, now);
    }
    if (!wrong.empty()) {
      std::printf("FAILED %s, allocation %d fails: status %d, %s\n", stage.scenario.name.c_str(), number, status,
                  wrong.c_str());
    }
    return wrong.empty();
  };
  const std::uint64_t first = told.allocations;
  for (int number = 1; told.allocations + 1 == first + static_cast<std::uint64_t>(number); ++number) {
    if (!in_child(stage, [&] { return fail(number); })) {
      return false;
    }
  }
  return true;
}

bool run(const Scenario &scenario, bool with_second, Totals &totals) {
  const crash::Directory directory;
  const Stage stage(directory, scenario);
  const crash::Walk walk = crash::walk_through(stage.window, [&] {
    Cast cast = stage.cast;
    scenario.call(cast, nullptr, nullptr);
  });
  stage.put_start();
  std::printf("%-50s %5zu states\n", scenario.name.c_str(), walk.states.all().size());
  totals.states += walk.states.all().size();
  const bool good = in_child(stage, [&] {
    const Steps steps = steps_of(stage);
    crash::States seconds;
    const bool first = play_clients(steps, walk.states, with_second ? &seconds : nullptr) &&
                       play_others(steps, walk.states) && play_looks(steps, walk.states);
    totals.seconds += seconds.all().size();
    return first && play_clients(steps, seconds, nullptr);
  });
  stage.put_start();
  return (scenario.other_nh != 0 || fail_allocations(stage, totals)) && good;
}

}  // namespace
}  // namespace client_proof

int main(int argc, char **argv) {
  using namespace client_proof;
  std::string only;
  std::uint64_t jobs = 1;
  bool no_second = false;
  crash::parse(argc, argv, {{"--jobs", &jobs}, {"--only", &only}, {"--no-second", &no_second}});
  const auto totals = crash::in_jobs<Totals>(jobs, scenarios().size(), [&](std::size_t number, Totals &own) {
    if (scenarios()[number].name.find(only) != std::string::npos) {
      ++own.scenarios;
      own.failures += run(scenarios()[number], !no_second, own) ? 0U : 1U;
    }
  });
  std::printf("scenarios %" PRIu64 ", states %" PRIu64 ", of second deaths %" PRIu64 ", failing allocations %" PRIu64
              ", failures %" PRIu64 "\n",
              totals.scenarios, totals.states, totals.seconds, totals.allocations, totals.failures);
  return totals.failures == 0 && totals.scenarios != 0 ? 0 : 1;
}
