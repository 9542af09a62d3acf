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

// Answers to all questions, one after the other: status and indexes for each key; status, references and key for each NH.
using Answers = std::vector<std::uint32_t>;

void add(Answers &answers, int status, std::uint32_t first, std::uint32_t second) {
  answers.insert(answers.end(), {static_cast<std::uint32_t>(status), first, second});
}

void add(Answers &answers, int status, std::uint32_t count, const egress_encap_key_t &key) {
  add(answers, status, count, 0);
  answers.resize(answers.size() + sizeof key / sizeof(std::uint32_t));
  std::memcpy(&*answers.end() - sizeof key / sizeof(std::uint32_t), &key, sizeof key);
}

template <typename OfKey, typename OfNh>
Answers ask_all(const std::vector<egress_encap_key_t> &keys, OfKey of_key, OfNh of_nh) {
  Answers answers;
  for (const egress_encap_key_t &key : keys) {
    of_key(answers, key);
  }
  for (std::uint32_t nh = crash::kNhStart; nh < crash::kNhStart + crash::kNhSize; ++nh) {
    of_nh(answers, nh);
  }
  return answers;
}

// As the operations and the slots say. Requires a settled database.
Answers answers_of_operations(const std::vector<egress_encap_key_t> &keys) {
  return ask_all(
      keys,
      [](Answers &answers, const egress_encap_key_t &key) {
        egress_encap_info_t info{};
        vrl_find_egress_encap(&info, key);
        add(answers, info.nh_found != 0 ? 0 : ENOENT, info.nh_found != 0 ? info.egr_nh : UINT32_MAX,
            info.tun_found != 0 ? info.egr_tun : UINT32_MAX);
      },
      [](Answers &answers, std::uint32_t nh) {
        const egr_nh_info_t &slot = clients::nh_slot(nh);
        const bool there = slot.valid != 0;
        add(answers, there ? 0 : ENOENT, there ? slot.ref_count : 0,
            there ? clients::key_of(nh) : egress_encap_key_t{});
      });
}

Answers answers_without_lock(encap_client_t *client, const std::vector<egress_encap_key_t> &keys) {
  return ask_all(
      keys,
      [client](Answers &answers, const egress_encap_key_t &key) {
        std::uint32_t nh = 0;
        std::uint32_t tunnel = 0;
        const int status = encap_client_peek(client, key, &nh, &tunnel);
        add(answers, status, nh, tunnel);
      },
      [client](Answers &answers, std::uint32_t nh) {
        egress_encap_key_t key{};
        egress_encap_aux_data_t aux{};
        std::uint32_t count = 0;
        const int status = encap_client_read(client, nh, &key, &aux, &count);
        add(answers, status, count, key);
      });
}

// All that are in the database in one of the steps, and two that may never be.
std::vector<egress_encap_key_t> keys_of(const Steps &steps) {
  std::vector<egress_encap_key_t> keys{key(16, 100), key(17, 99, 8)};
  for (const Image &image : steps.images) {
    steps.stage.window.put(image);
    for (std::uint32_t nh = crash::kNhStart; nh < crash::kNhStart + crash::kNhSize; ++nh) {
      if (clients::nh_slot(nh).valid != 0) {
        keys.push_back(clients::key_of(nh));
      }
    }
  }
  const auto bytes = [](const egress_encap_key_t &key) {
    return std::string(reinterpret_cast<const char *>(&key), sizeof key);
  };
  std::sort(keys.begin(), keys.end(), [&](const auto &a, const auto &b) { return bytes(a) < bytes(b); });
  const auto same = [&](const auto &a, const auto &b) { return bytes(a) == bytes(b); };
  keys.erase(std::unique(keys.begin(), keys.end(), same), keys.end());
  return keys;
}

}  // namespace

bool play_looks(const Steps &steps, const crash::States &states, std::uint64_t *looks) {
  const Stage &stage = steps.stage;
  encap_client_t *const client = stage.cast.b != nullptr ? stage.cast.b : stage.cast.a;
  const std::vector<egress_encap_key_t> keys = keys_of(steps);
  std::vector<Answers> allowed;
  for (const Image &image : steps.images) {
    stage.window.put(image);
    allowed.push_back(answers_of_operations(keys));
  }
  for (const Image &state : states.all()) {
    stage.window.put(state);
    const Answers now = answers_without_lock(client, keys);
    *looks += keys.size() + crash::kNhSize;
    if (std::find(allowed.begin(), allowed.end(), now) == allowed.end()) {
      const auto place = std::mismatch(now.begin(), now.end(), allowed.back().begin()).first - now.begin();
      std::printf("FAILED %s, looks in state %td of %zu answer neither as before nor as after, word %td is %u\n",
                  stage.scenario.name.c_str(), &state - states.all().data(), states.all().size(), place,
                  now[static_cast<std::size_t>(place)]);
      return false;
    }
    if (stage.window.image() != state) {
      std::printf("FAILED %s, a look changed the window\n", stage.scenario.name.c_str());
      return false;
    }
  }
  return true;
}

}  // namespace client_proof
