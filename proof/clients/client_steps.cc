// Every instruction of every call of a client: single-steps the call, lets the next client in at every state in which a
// death would leave the window, and again at every state that a death in that recovery leaves. Each time the database
// must be as before the call or as after it, without a repair. Then the same with a process without a client that works
// before the next client comes, with looks at everything without the lock, and with each allocation failing.
//
//   client_steps [--shard I/N] [--only TEXT] [--no-second]
#include <dlfcn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

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

struct Totals {
  std::uint64_t scenarios = 0, instructions = 0, states = 0, seconds = 0, others = 0, looks = 0, allocations = 0,
                failures = 0;
};

// In a child of its own, since a call may close a client.
template <typename Work>
bool in_child(const Stage &stage, Work work) {
  std::fflush(stdout);
  const pid_t child = _Fork();
  if (child == 0) {
    alarm(120);
    const bool good = work();
    std::fflush(stdout);
    _exit(good ? 0 : 1);
  }
  int status = 0;
  waitpid(child, &status, 0);
  if (WIFSIGNALED(status)) {
    std::printf("FAILED %s, the next process dies of signal %d\n", stage.scenario.name.c_str(), WTERMSIG(status));
  }
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// Allocation `number` of the call fails: then the call says so and changes nothing. Counts it, if the call has so many.
bool fail_allocation(const Stage &stage, int number, Totals &told) {
  stage.window.put(stage.start);
  const Picture before = draw();
  failing_allocation = number;
  Cast cast = stage.cast;
  const int status = stage.scenario.call(cast, nullptr, nullptr);
  if (failing_allocation != 0) {
    return true;
  }
  ++told.allocations;
  const Picture now = draw();
  std::string wrong = contradiction(now, stage.config.shm_id, status == 0 ? Queues::kMayLose : Queues::kWhole);
  if (status != 0 && now != before) {
    wrong = "a refused call changed" + difference(before, now);
  }
  if (!wrong.empty()) {
    std::printf("FAILED %s, allocation %d fails: status %d, %s\n", stage.scenario.name.c_str(), number, status,
                wrong.c_str());
  }
  return wrong.empty();
}

// Each in a process of its own, since a call may close the client.
bool fail_allocations(const Stage &stage, Totals &told) {
  for (int number = 1;; ++number) {
    const std::uint64_t before = told.allocations;
    if (!in_child(stage, [&] { return fail_allocation(stage, number, told); })) {
      return false;
    }
    if (told.allocations == before) {
      return true;
    }
  }
}

bool run(const Scenario &scenario, bool with_second, Totals &totals) {
  const crash::Directory directory;
  const Stage stage(directory, scenario);
  const crash::Walk walk = crash::walk_through(stage.window, [&] {
    Cast cast = stage.cast;
    scenario.call(cast, nullptr, nullptr);
  });
  stage.window.put(stage.start);
  std::printf("%-45s %6" PRIu64 " instructions, %5zu states\n", scenario.name.c_str(), walk.instructions,
              walk.states.all().size());
  totals.instructions += walk.instructions;
  totals.states += walk.states.all().size();
  auto *const told =
      static_cast<Totals *>(mmap(nullptr, sizeof(Totals), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  const bool good = in_child(stage, [&] {
    const Steps steps = steps_of(stage);
    crash::States seconds;
    const bool first = play_clients(steps, walk.states, "first", with_second ? &seconds : nullptr) &&
                       play_others(steps, walk.states, &told->others) &&
                       (!scenario.cast || play_looks(steps, walk.states, &told->looks));
    told->seconds = seconds.all().size();
    return first && play_clients(steps, seconds, "second-death", nullptr);
  });
  stage.window.put(stage.start);
  const bool refused_well = fail_allocations(stage, *told);
  totals.seconds += told->seconds;
  totals.others += told->others;
  totals.looks += told->looks;
  totals.allocations += told->allocations;
  munmap(told, sizeof(Totals));
  return good && refused_well;
}

}  // namespace
}  // namespace client_proof

int main(int argc, char **argv) {
  using namespace client_proof;
  std::string shard = "0/1";
  std::string only;
  bool no_second = false;
  crash::parse(argc, argv, {{"--shard", &shard}, {"--only", &only}, {"--no-second", &no_second}});
  unsigned number = 0;
  unsigned shards = 0;
  if (std::sscanf(shard.c_str(), "%u/%u", &number, &shards) != 2 || shards == 0) {
    crash::give_up("--shard takes I/N");
  }
  Totals totals;
  for (std::size_t i = 0; i < scenarios().size(); ++i) {
    if (i % shards == number && scenarios()[i].name.find(only) != std::string::npos) {
      ++totals.scenarios;
      totals.failures += run(scenarios()[i], !no_second, totals) ? 0U : 1U;
    }
  }
  std::printf("scenarios %" PRIu64 ", instructions %" PRIu64 ", states %" PRIu64 ", of second deaths %" PRIu64
              ", works of others %" PRIu64 ", looks %" PRIu64 ", failing allocations %" PRIu64 ", failures %" PRIu64
              "\n",
              totals.scenarios, totals.instructions, totals.states, totals.seconds, totals.others, totals.looks,
              totals.allocations, totals.failures);
  return totals.failures == 0 && totals.scenarios != 0 ? 0 : 1;
}
