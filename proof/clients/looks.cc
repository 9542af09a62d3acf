// Looks without the lock at everything that a database holds, beside a writer that is stopped between two instructions.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "plays.h"
#include "records/lookup.h"

namespace client_proof {
namespace {

using crash::Image;

// For each key whether it is there, its index and its tunnel's; for each NH whether it is there, its references and key.
struct Answer {
  int status = ENOENT;
  std::uint32_t first = 0, second = 0;
  egress_encap_key_t key{};
  bool operator==(const Answer &other) const {
    return status == other.status && first == other.first && second == other.second &&
           std::memcmp(&key, &other.key, sizeof key) == 0;
  }
};
using Answers = std::vector<Answer>;

// As the operations and the slots say. Requires a settled database.
Answers answers_of_operations(const std::vector<egress_encap_key_t> &keys) {
  Answers answers;
  for (const egress_encap_key_t &key : keys) {
    egress_encap_info_t info{};
    vrl_find_egress_encap(&info, key);
    answers.push_back({info.nh_found != 0 ? 0 : ENOENT,
                       info.nh_found != 0 ? info.egr_nh : UINT32_MAX,
                       info.tun_found != 0 ? info.egr_tun : UINT32_MAX,
                       {}});
  }
  for (std::uint32_t nh = crash::kNhStart; nh < crash::kNhStart + crash::kNhSize; ++nh) {
    const egr_nh_info_t &slot = clients::nh_slot(nh);
    answers.push_back(slot.valid != 0 ? Answer{0, slot.ref_count, 0, clients::key_of(nh)} : Answer{});
  }
  return answers;
}

Answers answers_without_lock(encap_client_t *client, const std::vector<egress_encap_key_t> &keys) {
  Answers answers;
  for (const egress_encap_key_t &key : keys) {
    Answer &answer = answers.emplace_back();
    answer.status = encap_client_peek(client, key, &answer.first, &answer.second);
  }
  for (std::uint32_t nh = crash::kNhStart; nh < crash::kNhStart + crash::kNhSize; ++nh) {
    Answer &answer = answers.emplace_back();
    egress_encap_aux_data_t aux{};
    answer.status = encap_client_read(client, nh, &answer.key, &aux, &answer.first);
  }
  return answers;
}

// All that are in the database in one of the steps, and two that may never be.
std::vector<egress_encap_key_t> keys_of(const Steps &steps) {
  std::vector<egress_encap_key_t> keys{key(16, 100), key(17, 99, 8)};
  for (const Image &image : steps.images) {
    steps.stage.put(image);
    for (std::uint32_t nh = crash::kNhStart; nh < crash::kNhStart + crash::kNhSize; ++nh) {
      const egress_encap_key_t own = clients::key_of(nh);
      const auto is_own = [&own](const egress_encap_key_t &known) {
        return std::memcmp(&known, &own, sizeof own) == 0;
      };
      if (clients::nh_slot(nh).valid != 0 && std::none_of(keys.begin(), keys.end(), is_own)) {
        keys.push_back(own);
      }
    }
  }
  return keys;
}

}  // namespace

bool play_looks(const Steps &steps, const crash::States &states, std::uint64_t *looks) {
  const Stage &stage = steps.stage;
  encap_client_t *const client = stage.cast.b != nullptr ? stage.cast.b : stage.cast.a;
  const std::vector<egress_encap_key_t> keys = keys_of(steps);
  std::vector<Answers> allowed;
  for (const Image &image : steps.images) {
    stage.put(image);
    allowed.push_back(answers_of_operations(keys));
  }
  auto step = allowed.begin();  // looks never fall back behind it
  stage.put(stage.start);
  for (const Image &state : states.all()) {
    stage.window.put(state);  // time goes on, and the client remembers
    const Answers now = answers_without_lock(client, keys);
    *looks += now.size();
    step = std::find(step, allowed.end(), now);
    const bool known = step != allowed.end();
    if (!known || stage.window.image() != state) {
      const auto place = std::mismatch(now.begin(), now.end(), allowed.back().begin()).first - now.begin();
      std::printf("FAILED %s, looks in state %td of %zu %s; answer %td differs from that after the call\n",
                  stage.scenario.name.c_str(), &state - states.all().data(), states.all().size(),
                  known ? "change the window" : "answer neither as before nor as after, or as before once more", place);
      return false;
    }
  }
  return true;
}

}  // namespace client_proof
