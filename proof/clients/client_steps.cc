// Every instruction of every call of a client: single-steps the call, lets the next client in at every state in which a
// death would leave the window, and again at every state that a death in that recovery leaves. Each time the database
// must be as before the call or as after it, without a repair. Then again with each allocation failing.
//
//   client_steps [--shard I/N] [--only TEXT]
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

#include "picture.h"
#include "scenarios.h"
#include "support/stepper.h"
#include "support/write_watch.h"

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

using crash::Image;

struct Totals {
  std::uint64_t scenarios = 0, instructions = 0, states = 0, seconds = 0, allocations = 0, failures = 0;
};

// One scenario on a window of its own, at the moment before the call.
struct Stage {
  Stage(const crash::Directory &directory, const Scenario &what)
      : scenario(what), config(crash::config_in(directory)), window(directory, sized(config, what.pages)) {
    current_config = config;
    if (scenario.cast && (open_as(config, "a", &cast.a) != 0 || open_as(config, "b", &cast.b) != 0)) {
      crash::give_up("%s: a client cannot be opened", scenario.name.c_str());
    }
    scenario.given(cast);
    start = window.image();
  }

  static const encap_db_config_t &sized(encap_db_config_t &config, std::uint32_t pages) {
    config.size = pages * std::uint64_t{4096};
    return config;
  }

  const Scenario &scenario;
  encap_db_config_t config;
  crash::Window window;
  Cast cast;
  Image start;
};

// The next call of any client. After a death in that call another name has to come, since this process lives.
int next_call(const Stage &stage, const char *name = "next") {
  if (stage.cast.b == nullptr) {
    encap_client_t *b = nullptr;
    return open_as(stage.config, name, &b) == 0 ? encap_client_leave(b, nullptr, nullptr) : 1;
  }
  std::uint32_t count = 0;
  return encap_client_list(stage.cast.b, nullptr, 0, &count);
}

Picture drawn_for(const Stage &stage) {
  Picture picture = draw();
  picture.held.erase("next");  // a recovery that dies after it opened that name leaves it
  picture.taken.erase("next");
  if (!stage.scenario.names) {
    picture.taken.clear();
  }
  return picture;
}

struct Gatherer {
  const Stage &stage;
  std::vector<Picture> pictures;
};

void gather(const encap_left_t *, void *arg) {
  auto &gatherer = *static_cast<Gatherer *>(arg);
  gatherer.pictures.push_back(drawn_for(gatherer.stage));
}

// What the call goes through, as the next client finds it: before it, after each of its steps, and after it.
std::vector<Picture> steps_of(const Stage &stage) {
  Gatherer gatherer{stage, {}};
  next_call(stage);
  gather(nullptr, &gatherer);
  stage.window.put(stage.start);
  Cast cast = stage.cast;
  const int status = stage.scenario.call(cast, gather, &gatherer);
  if (status != stage.scenario.status) {
    crash::give_up("%s: the call returned %d", stage.scenario.name.c_str(), status);
  }
  next_call(stage);
  gather(nullptr, &gatherer);
  return gatherer.pictures;
}

// In a child of its own, since a call may close a client.
template <typename Work>
bool in_child(Work work) {
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
    std::printf("the next process dies of signal %d\n", WTERMSIG(status));
  }
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// The client `b` must be able to go on with what the call was about.
std::string go_on(const Stage &stage) {
  if (stage.cast.b != nullptr && stage.scenario.status == 0) {
    encap_entry_t entry{};
    const int entered = encap_client_enter(stage.cast.b, key(16, 100), nullptr, &entry);
    const int released = entered == 0 ? encap_client_release(stage.cast.b, entry.nh, nullptr) : 0;
    if ((entered != 0 && entered != ENOSPC) || released != 0) {
      return "the next client entered with " + std::to_string(entered) + ", released with " + std::to_string(released);
    }
  }
  return contradiction(draw(), stage.config.shm_id);
}

// Plays the next client in one state. Returns: what is wrong, or "".
std::string play(const Stage &stage, const std::vector<Picture> &allowed, const Image &state, crash::ChangeLog *log) {
  stage.window.put(state);
  if (log != nullptr) {
    crash::watch_writes(stage.window.bytes(), stage.window.size(), log);
  }
  const int status = next_call(stage, log != nullptr ? "next" : "second");
  if (log != nullptr) {
    crash::unwatch_writes();
  }
  if (status != 0) {
    return "the next call returned " + std::to_string(status);
  }
  const Picture now = drawn_for(stage);
  const std::string wrong = contradiction(now, stage.config.shm_id);
  if (!wrong.empty()) {
    return wrong;
  }
  if (std::find(allowed.begin(), allowed.end(), now) == allowed.end()) {
    return "neither before nor after; from before differ:" + difference(allowed.front(), now) +
           "; from after:" + difference(allowed.back(), now);
  }
  return go_on(stage);
}

// States that a death in a recovery leaves, from its changes.
void add_seconds(const Stage &stage, const Image &state, const crash::ChangeLog &log, crash::States &seconds) {
  Image image = state;
  for (std::uint32_t i = 0; i < log.count; ++i) {
    std::memcpy(image.data() + log.change[i].offset, &log.change[i].value, 8);
    if (i + 1 == log.count || log.change[i + 1].instruction != log.change[i].instruction) {
      Image left = image;
      stage.window.bury(left, getpid());
      seconds.add(std::move(left));
    }
  }
}

bool play_all(const Stage &stage, const std::vector<Picture> &allowed, const crash::States &states, const char *which,
              crash::States *seconds) {
  static crash::ChangeLog log;
  std::size_t number = 0;
  for (const Image &state : states.all()) {
    const std::string wrong = play(stage, allowed, state, seconds != nullptr ? &log : nullptr);
    if (!wrong.empty()) {
      std::printf("FAILED %s, %s state %zu of %zu: %s\n", stage.scenario.name.c_str(), which, number,
                  states.all().size(), wrong.c_str());
      return false;
    }
    if (seconds != nullptr) {
      add_seconds(stage, state, log, *seconds);
    }
    ++number;
  }
  return true;
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
    if (!in_child([&] { return fail_allocation(stage, number, told); })) {
      return false;
    }
    if (told.allocations == before) {
      return true;
    }
  }
}

bool run(const Scenario &scenario, Totals &totals) {
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
  const bool good = in_child([&] {
    const std::vector<Picture> allowed = steps_of(stage);
    crash::States seconds;
    const bool first = play_all(stage, allowed, walk.states, "first", &seconds);
    told->seconds = seconds.all().size();
    return first && play_all(stage, allowed, seconds, "second-death", nullptr);
  });
  stage.window.put(stage.start);
  const bool refused_well = fail_allocations(stage, *told);
  totals.seconds += told->seconds;
  totals.allocations += told->allocations;
  munmap(told, sizeof(Totals));
  return good && refused_well;
}

}  // namespace
}  // namespace client_proof

int main(int argc, char **argv) {
  using namespace client_proof;
  unsigned shard = 0;
  unsigned shards = 1;
  const char *only = "";
  for (int i = 1; i + 1 < argc; i += 2) {
    if (std::strcmp(argv[i], "--only") == 0) {
      only = argv[i + 1];
    } else if (std::strcmp(argv[i], "--shard") != 0 || std::sscanf(argv[i + 1], "%u/%u", &shard, &shards) != 2) {
      std::fprintf(stderr, "usage: client_steps [--shard I/N] [--only TEXT]\n");
      return 2;
    }
  }
  setenv("LTRACE", "off", 1);
  Totals totals;
  for (std::size_t i = 0; i < scenarios().size(); ++i) {
    if (i % shards == shard && scenarios()[i].name.find(only) != std::string::npos) {
      ++totals.scenarios;
      totals.failures += run(scenarios()[i], totals) ? 0U : 1U;
    }
  }
  std::printf("scenarios %" PRIu64 ", instructions %" PRIu64 ", states %" PRIu64 ", of second deaths %" PRIu64
              ", failing allocations %" PRIu64 ", failures %" PRIu64 "\n",
              totals.scenarios, totals.instructions, totals.states, totals.seconds, totals.allocations,
              totals.failures);
  return totals.failures == 0 && totals.scenarios != 0 ? 0 : 1;
}
