#include "peers.h"

#include <cerrno>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <thread>

#include "clients/scenarios.h"
#include "support/window.h"

namespace peek_proof {
namespace {

using client_proof::key;
using client_proof::open_as;

// States that were true during a look: the numbers of the first and the last one.
struct Span {
  std::uint64_t first, last;
};

egress_encap_key_t key_in_group(std::uint32_t group, std::uint32_t number) {
  const bool on_null = group % kGroupsOfEach == kGroupsOfEach - 1;
  return key(16 + number, on_null ? 0 : 100 + group, on_null ? 50 + group : 7);
}

egress_encap_key_t key_at_rest(std::uint32_t number) {
  return key(500 + number, 300 + number % 20);
}

class Peeker {
 public:
  Peeker(Journal &journal, std::uint32_t process, std::uint64_t seed, encap_client_t *client)
      : journal_(journal), process_(process), random_(seed), client_(client) {}

 protected:
  std::uint32_t below(std::uint32_t limit) { return static_cast<std::uint32_t>(random_() % limit); }

  bool fail(const char *format, ...) __attribute__((format(printf, 2, 3))) {
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(journal_.herd.thread[process_ * crash::kThreads].failure, sizeof(crash::ThreadState::failure),
                   format, arguments);
    va_end(arguments);
    return false;
  }

  Journal &journal_;
  const std::uint32_t process_;
  std::mt19937_64 random_;
  encap_client_t *client_;
};

class Writer : Peeker {
 public:
  using Peeker::Peeker;

  // Ends the states that the last life of this process left open, as the ledger says.
  bool take_up() {
    std::map<std::uint32_t, std::uint32_t> held;
    const auto add = [](const encap_holding_t *holding, void *arg) {
      (*static_cast<std::map<std::uint32_t, std::uint32_t> *>(arg))[holding->nh] = holding->held;
    };
    int status = encap_client_each(client_, add, &held);
    for (std::uint32_t i = 0; i < kGroupsOfEach; ++i) {
      Group &group = journal_.group[process_ * kGroupsOfEach + i];
      if (group.stamp % 2 == 0) {
        continue;
      }
      Group::State &state = group.state[(group.stamp / 2 + 1) % kKept];
      state = empty();
      for (std::uint32_t number = 0; number < kNhsOfGroup; ++number) {
        egress_encap_info_t info{};
        status =
            status == 0 ? vrl_find_egress_encap(&info, key_in_group(process_ * kGroupsOfEach + i, number)) : status;
        if (info.nh_found != 0) {
          state.nh[number] = info.egr_nh;
          state.count[number] = held[info.egr_nh];
          state.tunnel = info.egr_tun;
        }
      }
      ++group.stamp;
    }
    return status == 0 || fail("the client of process %u cannot be taken up: %d", process_, status);
  }

  bool change() {
    const std::uint32_t number = process_ * kGroupsOfEach + below(kGroupsOfEach);
    const std::uint32_t which = below(kNhsOfGroup);
    Group &group = journal_.group[number];
    const std::uint64_t before = group.stamp / 2;
    Group::State &state = group.state[(before + 1) % kKept];
    state = group.state[before % kKept];
    const std::uint32_t held = state.count[which];
    ++group.stamp;
    int status = 0;
    if (held == 0 || (held < kMostHeld && below(2) == 0)) {
      encap_entry_t entry{};
      status = encap_client_enter(client_, key_in_group(number, which), nullptr, &entry);
      state.nh[which] = entry.nh;
      state.tunnel = entry.tunnel;
      state.count[which] = held + 1;
    } else {
      encap_left_t left{};
      status = encap_client_release(client_, state.nh[which], &left);
      state.count[which] = held - 1;
      state.nh[which] = left.nh_left != 0 ? kNone : state.nh[which];
      const bool empty = state.count[0] + state.count[1] + state.count[2] == 0;  // a null tunnel is not told of as left
      state.tunnel = empty ? kNone : state.tunnel;
    }
    ++group.stamp;
    return status == 0 || fail("a change of group %u returned %d", number, status);
  }

  static Group::State empty() { return {{kNone, kNone, kNone}, {0, 0, 0}, kNone}; }
};

class Looker : Peeker {
 public:
  using Peeker::Peeker;

  bool look() {
    journal_.looks[process_].fetch_add(1, std::memory_order_relaxed);
    return below(8) == 0 ? look_at_rest() : look_at_group(below(kGroups), below(kNhsOfGroup));
  }

 private:
  struct Answer {
    int status = 0;
    std::uint32_t nh = 0, tunnel = 0;
  };

  Answer peek(const egress_encap_key_t &key) {
    Answer answer;
    answer.status = encap_client_peek(client_, key, &answer.nh, &answer.tunnel);
    return answer;
  }

  bool look_at_rest() {
    const std::uint32_t number = below(kAtRest);
    const Answer answer = peek(key_at_rest(number));
    return (answer.status == 0 && answer.tunnel != kNone) ||
           fail("a look at encapsulation %u, which stays, returned %d", number, answer.status);
  }

  // Peeks at the key, and reads what the index that was found holds.
  bool look_at_group(std::uint32_t number, std::uint32_t which) {
    const Group &group = journal_.group[number];
    const std::uint64_t began = group.stamp;
    const Answer answer = peek(key_in_group(number, which));
    const std::uint64_t ended = group.stamp;
    const auto fits = [&](const Group::State &state) {
      return answer.nh == state.nh[which] && answer.tunnel == state.tunnel &&
             answer.status == (answer.nh == kNone ? ENOENT : 0);
    };
    if (!was_true(group, {began / 2, (ended + 1) / 2}, fits)) {
      return fail("a look at NH %u of group %u returned %d, index %u, tunnel %u: not in states %" PRIu64 " to %" PRIu64,
                  which, number, answer.status, answer.nh, answer.tunnel, began / 2, (ended + 1) / 2);
    }
    return answer.status != 0 || read(number, which, answer.nh);
  }

  // The NH may have left meanwhile, and its index may be that of another NH.
  bool read(std::uint32_t number, std::uint32_t which, std::uint32_t nh) {
    const Group &group = journal_.group[number];
    egress_encap_key_t key{};
    egress_encap_aux_data_t aux{};
    std::uint32_t count = 0;
    const std::uint64_t began = group.stamp;
    const int status = encap_client_read(client_, nh, &key, &aux, &count);
    const std::uint64_t ended = group.stamp;
    const egress_encap_key_t own = key_in_group(number, which);
    const bool is_own = status == 0 && std::memcmp(&key, &own, sizeof key) == 0;
    const auto fits = [&](const Group::State &state) {
      return is_own ? state.nh[which] == nh && state.count[which] == count && state.tunnel == aux.egr_tun
                    : state.nh[which] != nh;
    };
    return ((status == 0 || status == ENOENT) && was_true(group, {began / 2, (ended + 1) / 2}, fits)) ||
           fail("index %u, of NH %u in group %u, is read with %d as %s NH with %u references, tunnel %u", nh, which,
                number, status, is_own ? "this" : "another", count, aux.egr_tun);
  }

  // Whether `fits` holds for one of the states; the last one may not be known yet. True as well when it will not be known
  // soon, or when the states have been overwritten.
  template <typename Fits>
  bool was_true(const Group &group, const Span &span, Fits fits) {
    for (std::uint64_t number = span.first; number <= span.last; ++number) {
      while (group.stamp < 2 * number) {
        if (journal_.herd.stop || journal_.stopped) {
          ++journal_.unjudged;
          return true;
        }
        std::this_thread::yield();
      }
      if (fits(group.state[number % kKept])) {
        return true;
      }
    }
    const bool known = group.stamp / 2 - span.first < kKept / 2;
    journal_.unjudged += known ? 0 : 1;
    return !known;
  }
};

}  // namespace

void live(Journal &journal, const encap_db_config_t &config, std::uint32_t process, std::uint64_t seed) {
  encap_client_t *client = nullptr;
  const std::string name = "peek-" + std::to_string(process);
  if (open_as(config, name.c_str(), &client) != 0) {
    return;
  }
  const std::uint32_t owner = process * crash::kThreads;
  std::thread looker([&] {
    Looker own(journal, process, seed + 1, client);
    crash::work_in_steps(journal.herd, owner + 1, [&] { return own.look(); });
  });
  Writer writer(journal, process, seed, client);
  if (writer.take_up()) {
    crash::work_in_steps(journal.herd, owner, [&] { return writer.change(); });
  }
  looker.join();
  encap_client_close(client);
}

void fill(Journal &journal, const encap_db_config_t &config) {
  encap_client_t *client = nullptr;
  int status = open_as(config, "rest", &client);
  for (std::uint32_t i = 0; status == 0 && i < kAtRest; ++i) {
    status = encap_client_enter(client, key_at_rest(i), nullptr, nullptr);
  }
  if (status != 0 || encap_client_close(client) != 0) {
    crash::give_up("the database cannot be filled: %d", status);
  }
  for (Group &group : journal.group) {
    group.state[0] = Writer::empty();
  }
}

}  // namespace peek_proof
