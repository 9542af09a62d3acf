#include "plays.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace client_proof {
namespace {

using crash::Image;

Queues queues_of(const Stage &stage) {
  return stage.scenario.other_nh != 0 ? Queues::kOthersChoose : Queues::kWhole;
}

void gather(const encap_left_t *, void *arg) {
  auto &steps = *static_cast<Steps *>(arg);
  steps.images.push_back(steps.stage.window.image());
  steps.pictures.push_back(drawn_for(steps.stage));
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
  return contradiction(drawn_for(stage), stage.window, queues_of(stage));
}

// Plays the next client in one state. Returns: what is wrong, or "".
std::string play_next(const Steps &steps, const Image &state, crash::ChangeLog *log) {
  const Stage &stage = steps.stage;
  stage.put(state);
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
  const std::string wrong = contradiction(now, stage.window, queues_of(stage));
  if (!wrong.empty()) {
    return wrong;
  }
  if (!is_one_of(steps.pictures, now)) {
    return "neither before nor after; from before differ:" + difference(steps.pictures.front(), now) +
           "; from after:" + difference(steps.pictures.back(), now);
  }
  return go_on(stage);
}

}  // namespace

int next_call(const Stage &stage, const char *name) {
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
  if (stage.scenario.other_nh != 0) {
    picture.others[stage.scenario.other_nh] = 1;
  }
  return picture;
}

Memory::Memory(const encap_client_t *client) {
  if (client != nullptr) {
    top = client->known.top;
    nodes.assign(client->known.nodes, client->known.nodes + client->known.places());
  }
}

void Memory::put_back_to(encap_client_t *client) const {
  if (client != nullptr) {
    client->known.top = top;
    std::copy(nodes.begin(), nodes.end(), client->known.nodes);
  }
}

void Stage::put(const Image &image) const {
  window.put(image);
  memory_of_b.put_back_to(cast.b);
}

void Stage::put_start() const {
  put(start);
  memory_of_a.put_back_to(cast.a);
}

Stage::Stage(const crash::Directory &directory, const Scenario &what)
    : scenario(what),
      config(crash::config_in(directory, what.pages * std::uint64_t{4096})),
      window(directory, config),
      memory_of_a(nullptr),
      memory_of_b(nullptr) {
  current_config = config;
  if (scenario.cast && (open_as(config, "a", &cast.a) != 0 || open_as(config, "b", &cast.b) != 0)) {
    crash::give_up("%s: a client cannot be opened", scenario.name.c_str());
  }
  scenario.given(cast);
  start = window.image();
  memory_of_a = Memory(cast.a);
  memory_of_b = Memory(cast.b);
}

Steps steps_of(const Stage &stage) {
  Steps steps{stage, {}, {}};
  next_call(stage);
  gather(nullptr, &steps);
  stage.put_start();
  Cast cast = stage.cast;
  const int status = stage.scenario.call(cast, gather, &steps);
  if (status != stage.scenario.status) {
    crash::give_up("%s: the call returned %d", stage.scenario.name.c_str(), status);
  }
  next_call(stage);
  gather(nullptr, &steps);
  return steps;
}

bool play(const Stage &stage, const crash::States &states, const std::string &what,
          const std::function<std::string(const Image &)> &wrong_in) {
  for (const Image &state : states.all()) {
    const std::string wrong = wrong_in(state);
    if (!wrong.empty()) {
      std::printf("FAILED %s, %s in state %td of %zu: %s\n", stage.scenario.name.c_str(), what.c_str(),
                  &state - states.all().data(), states.all().size(), wrong.c_str());
      return false;
    }
  }
  return true;
}

bool play_clients(const Steps &steps, const crash::States &states, crash::States *seconds) {
  const Stage &stage = steps.stage;
  static crash::ChangeLog log;
  if (seconds == nullptr) {
    return play(stage, states, "the next client", [&](const Image &state) { return play_next(steps, state, nullptr); });
  }
  return play(stage, states, "the next client, which is watched,", [&](const Image &state) {
    std::string wrong = play_next(steps, state, &log);
    seconds->add_deaths(stage.window, state, log, getpid());
    return wrong;
  });
}

}  // namespace client_proof
