#include "plays.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "model/operations.h"
#include "records/lookup.h"
#include "repair/repair.h"

namespace client_proof {
namespace {

using crash::Image;
using crash::Verb;

template <typename Thing>
bool is_one_of(const std::vector<Thing> &things, const Thing &thing) {
  return std::find(things.begin(), things.end(), thing) != things.end();
}

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
  if (stage.scenario.other_nh != 0) {
    picture.others[stage.scenario.other_nh] = 1;
  }
  return picture;
}

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
std::string play(const Stage &stage, const std::vector<Picture> &allowed, const Image &state, crash::ChangeLog *log) {
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
  if (!is_one_of(allowed, now)) {
    return "neither before nor after; from before differ:" + difference(allowed.front(), now) +
           "; from after:" + difference(allowed.back(), now);
  }
  return go_on(stage);
}

// What a process without a client does, and what it was answered.
struct Work {
  std::string name;
  std::function<std::string()> does;
};

std::string done(Verb verb, std::uint32_t nh) {
  return text_of(on_database(crash::on_nh(verb, nh)));
}

// Looks a key up and shares or enters it, under the lock.
std::string take(const egress_encap_key_t &key) {
  vrl_egress_encap_db_lock(&egress_encap_db->lock.mutex);
  crash::Operation operation;
  operation.verb = Verb::kFindShare;
  operation.key = key;
  crash::Answer answer = on_database(operation);
  if (answer.status == 0 && answer.info.nh_found == 0) {
    operation.verb = Verb::kInsert;
    operation.info = answer.info;
    operation.info.egr_nh = crash::kNhStart + crash::kNhSize - 1;
    operation.info.egr_tun = answer.info.tun_found != 0 ? answer.info.egr_tun : crash::kTunStart + crash::kTunSize - 1;
    answer = on_database(operation);
  }
  pthread_mutex_unlock(&egress_encap_db->lock.mutex);
  return text_of(answer);
}

// What a process can do that has references on NHs which are there before the call and after it.
std::vector<Work> works_beside(const Steps &steps) {
  std::vector<Work> works{{"takes the key", [] { return take(key(16, 100)); }},
                          {"takes another key", [] { return take(key(17, 99, 8)); }}};
  for (std::uint32_t nh = crash::kNhStart; nh < crash::kNhStart + crash::kNhSize && works.size() < 6; ++nh) {
    std::uint32_t least = ~0U;
    for (const Image &image : steps.images) {
      steps.stage.put(image);
      least = std::min(least, clients::nh_slot(nh).valid != 0 ? clients::nh_slot(nh).ref_count : 0);
    }
    const std::string name = " NH " + std::to_string(nh);
    if (least >= 1) {
      works.push_back({"shares" + name, [nh] { return done(Verb::kShare, nh); }});
    }
    if (least >= 2) {
      works.push_back({"gives back" + name, [nh] { return done(Verb::kRelease, nh); }});
    }
  }
  return works;
}

// Requires that `image` is settled or that the work may be done before it is.
std::pair<std::string, Picture> after_work(const Stage &stage, const Image &image, const Work &work) {
  stage.put(image);
  std::string answer = work.does();
  if (next_call(stage) != 0) {
    answer += ", and the next call failed";
  }
  return {std::move(answer), drawn_for(stage)};
}

// Takes what the ledgers do not have for what the others hold: counts are compared with those of other pictures.
std::string contradiction_beside(const Stage &stage, Picture picture) {
  for (std::uint32_t nh = crash::kNhStart; nh < crash::kNhStart + crash::kNhSize; ++nh) {
    picture.others[nh] = clients::nh_slot(nh).ref_count;
    for (const auto &[name, held] : picture.held) {
      picture.others[nh] -= held.contains(nh) ? held.at(nh).first : 0;
    }
  }
  return contradiction(picture, stage.window, Queues::kOthersChoose, crash::Findings::kBlocks);
}

// The check names what is left, and nothing is once a repair has run and the clients have given back what they hold.
std::string left_to_mend(const Stage &stage) {
  if (crash::findings_in(stage.window, crash::Findings::kAll).empty()) {
    return "the check names nothing";
  }
  encap_inspect::repair(crash::kWindowId);  // leaves a holding on an NH that has gone to its client
  for (encap_client_t *const client : {stage.cast.a, stage.cast.b}) {
    for (std::uint32_t nh = crash::kNhStart; nh < crash::kNhStart + crash::kNhSize; ++nh) {
      int status = 0;
      while (status == 0) {
        status = encap_client_release(client, nh, nullptr);
      }
      if (status != ENOENT) {
        return "a release of NH " + std::to_string(nh) + " returned " + std::to_string(status);
      }
    }
  }
  const std::string left = crash::findings_in(stage.window, crash::Findings::kBeyondNotes);
  return left.empty() ? "" : "after all is given back: " + left;
}

}  // namespace

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

bool play_clients(const Steps &steps, const crash::States &states, const char *which, crash::States *seconds) {
  const Stage &stage = steps.stage;
  static crash::ChangeLog log;
  std::size_t number = 0;
  for (const Image &state : states.all()) {
    const std::string wrong = play(stage, steps.pictures, state, seconds != nullptr ? &log : nullptr);
    if (!wrong.empty()) {
      std::printf("FAILED %s, %s state %zu of %zu: %s\n", stage.scenario.name.c_str(), which, number,
                  states.all().size(), wrong.c_str());
      return false;
    }
    if (seconds != nullptr) {
      seconds->add_deaths(stage.window, state, log, getpid());
    }
    ++number;
  }
  return true;
}

bool play_last_reference(const Steps &steps, const crash::States &states, std::uint64_t *works) {
  const std::uint32_t nh = steps.stage.scenario.other_nh;
  const Work work{"gives its reference back", [nh] { return done(Verb::kRelease, nh); }};
  std::vector<std::pair<std::string, Picture>> allowed;
  for (const Image &image : steps.images) {
    allowed.push_back(after_work(steps.stage, image, work));
  }
  for (const Image &state : states.all()) {
    // A step may come with the answer of another one.
    const auto now = after_work(steps.stage, state, work);
    const auto has = [&](const auto &is) { return std::any_of(allowed.begin(), allowed.end(), is); };
    const bool is_step = has([&](const auto &step) { return step.first == now.first; }) &&
                         has([&](const auto &step) { return step.second == now.second; });
    const std::string wrong = is_step ? "" : left_to_mend(steps.stage);
    if (!wrong.empty()) {
      std::printf("FAILED %s, another process %s in state %td of %zu: %s\n", steps.stage.scenario.name.c_str(),
                  work.name.c_str(), &state - states.all().data(), states.all().size(), wrong.c_str());
      return false;
    }
    works[is_step ? 0 : 1] += 1;
  }
  return true;
}

bool play_others(const Steps &steps, const crash::States &states, std::uint64_t *works) {
  for (const Work &work : works_beside(steps)) {
    std::vector<std::pair<std::string, Picture>> allowed;
    for (const Image &image : steps.images) {
      allowed.push_back(after_work(steps.stage, image, work));
    }
    for (const Image &state : states.all()) {
      const auto now = after_work(steps.stage, state, work);
      std::string wrong = contradiction_beside(steps.stage, now.second);
      // A work that was refused completed nothing.
      const bool refused = now.first.starts_with("status 22") && is_one_of(steps.pictures, now.second);
      if (!refused && !is_one_of(allowed, now)) {
        wrong += " answered " + now.first + "; from before differ:" + difference(allowed.front().second, now.second) +
                 "; from after:" + difference(allowed.back().second, now.second);
      }
      if (!wrong.empty()) {
        std::printf("FAILED %s, another process %s in state %td of %zu: %s\n", steps.stage.scenario.name.c_str(),
                    work.name.c_str(), &state - states.all().data(), states.all().size(), wrong.c_str());
        return false;
      }
      ++*works;
    }
  }
  return true;
}

}  // namespace client_proof
