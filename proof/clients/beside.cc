// What goes on beside a client's death: processes that have no client, and looks without the lock.
#include <array>
#include <bit>
#include <cerrno>
#include <set>

#include "model/operations.h"
#include "plays.h"
#include "records/lookup.h"
#include "repair/repair.h"

namespace client_proof {
namespace {

using crash::Image;
using crash::Verb;

// ---------------------------------------------------------------------------------------- processes without a client

// What a process without a client does, and what it was answered.
struct Work {
  std::string name;
  std::function<std::string()> does;
  bool gives_last_back = false;
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
  if (const std::uint32_t nh = steps.stage.scenario.other_nh; nh != 0) {
    works.push_back({"gives its only reference back", [nh] { return done(Verb::kRelease, nh); }, true});
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

// Requires the moment after the work and the next call. Returns: what is wrong, or "".
std::string judge(const Steps &steps, const Work &work, const std::vector<std::pair<std::string, Picture>> &allowed,
                  const std::pair<std::string, Picture> &now) {
  if (work.gives_last_back) {  // a step may come with the answer of another one
    const auto has = [&](const auto &is) { return std::any_of(allowed.begin(), allowed.end(), is); };
    const bool is_step = has([&](const auto &step) { return step.first == now.first; }) &&
                         has([&](const auto &step) { return step.second == now.second; });
    return is_step ? "" : left_to_mend(steps.stage);
  }
  // A work that was refused completed nothing.
  const bool refused = now.first.starts_with("status 22") && is_one_of(steps.pictures, now.second);
  if (!refused && !is_one_of(allowed, now)) {
    return "it is answered " + now.first + "; from before differ:" + difference(allowed.front().second, now.second) +
           "; from after:" + difference(allowed.back().second, now.second);
  }
  return contradiction(now.second, steps.stage.window, Queues::kOthersChoose, crash::Findings::kBlocks);
}

// ------------------------------------------------------------------------------------------- looks without the lock

using KeyWords = std::array<std::uint32_t, sizeof(egress_encap_key_t) / 4>;

// For each key whether it is there, its index and its tunnel's; for each NH the same, its references and its key.
struct Answers {
  std::vector<std::uint32_t> words;

  void add(int status, std::uint32_t first, std::uint32_t second, const egress_encap_key_t &key = {}) {
    words.insert(words.end(), {static_cast<std::uint32_t>(status), first, second});
    const auto own = std::bit_cast<KeyWords>(key);
    words.insert(words.end(), own.begin(), own.end());
  }
  bool operator==(const Answers &) const = default;
};

template <typename Visit>
void each_nh(Visit visit) {
  for (std::uint32_t nh = crash::kNhStart; nh < crash::kNhStart + crash::kNhSize; ++nh) {
    visit(nh);
  }
}

// As the operations and the slots say. Requires a settled database.
Answers answers_of_operations(const std::set<KeyWords> &keys) {
  Answers answers;
  for (const KeyWords &words : keys) {
    egress_encap_info_t info{};
    vrl_find_egress_encap(&info, std::bit_cast<egress_encap_key_t>(words));
    answers.add(info.nh_found != 0 ? 0 : ENOENT, info.nh_found != 0 ? info.egr_nh : UINT32_MAX,
                info.tun_found != 0 ? info.egr_tun : UINT32_MAX);
  }
  each_nh([&](std::uint32_t nh) {
    const egr_nh_info_t &slot = clients::nh_slot(nh);
    slot.valid != 0 ? answers.add(0, slot.ref_count, 0, clients::key_of(nh)) : answers.add(ENOENT, 0, 0);
  });
  return answers;
}

Answers answers_without_lock(encap_client_t *client, const std::set<KeyWords> &keys) {
  Answers answers;
  for (const KeyWords &words : keys) {
    std::uint32_t nh = 0, tunnel = 0;
    const int status = encap_client_peek(client, std::bit_cast<egress_encap_key_t>(words), &nh, &tunnel);
    answers.add(status, nh, tunnel);
  }
  each_nh([&](std::uint32_t nh) {
    egress_encap_key_t key{};
    egress_encap_aux_data_t aux{};
    std::uint32_t count = 0;
    const int status = encap_client_read(client, nh, &key, &aux, &count);
    answers.add(status, count, 0, key);
  });
  return answers;
}

// All that are in the database in one of the steps, and two that may never be.
std::set<KeyWords> keys_of(const Steps &steps) {
  std::set<KeyWords> keys{std::bit_cast<KeyWords>(key(16, 100)), std::bit_cast<KeyWords>(key(17, 99, 8))};
  for (const Image &image : steps.images) {
    steps.stage.put(image);
    each_nh([&](std::uint32_t nh) {
      if (clients::nh_slot(nh).valid != 0) {
        keys.insert(std::bit_cast<KeyWords>(clients::key_of(nh)));
      }
    });
  }
  return keys;
}

}  // namespace

bool play_others(const Steps &steps, const crash::States &states) {
  for (const Work &work : works_beside(steps)) {
    std::vector<std::pair<std::string, Picture>> allowed;
    for (const Image &image : steps.images) {
      allowed.push_back(after_work(steps.stage, image, work));
    }
    if (!play(steps.stage, states, "another process " + work.name,
              [&](const Image &state) { return judge(steps, work, allowed, after_work(steps.stage, state, work)); })) {
      return false;
    }
  }
  return true;
}

bool play_looks(const Steps &steps, const crash::States &states) {
  const Stage &stage = steps.stage;
  encap_client_t *const client = stage.cast.b != nullptr ? stage.cast.b : stage.cast.a;
  if (client == nullptr) {
    return true;
  }
  const std::set<KeyWords> keys = keys_of(steps);
  std::vector<Answers> allowed;
  for (const Image &image : steps.images) {
    stage.put(image);
    allowed.push_back(answers_of_operations(keys));
  }
  auto step = allowed.begin();  // looks never fall back behind it
  stage.put(stage.start);
  return play(stage, states, "looks", [&](const Image &state) -> std::string {
    stage.window.put(state);  // time goes on, and the client remembers
    step = std::find(step, allowed.end(), answers_without_lock(client, keys));
    if (step == allowed.end()) {
      return "they answer neither as before nor as after, or as before once more";
    }
    return stage.window.image() == state ? "" : "they change the window";
  });
}

}  // namespace client_proof
