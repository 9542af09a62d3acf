#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <map>
#include <thread>

#include "storm.h"

namespace client_proof {
namespace {

constexpr std::uint32_t kMostOfOneKey = 3;

using crash::kProcesses;
using crash::kThreads;

using Indexes = std::array<std::atomic<std::uint32_t>, kKeys>;  // NHs of the keys that a client holds

// One thread of a client's process.
class ClientThread : Member {
 public:
  ClientThread(Journal &journal, encap_client_t *client, Indexes &nh, std::uint32_t owner, std::uint64_t seed)
      : Member(journal, owner, seed), client_(client), nh_(nh) {}

  // As many calls as `calls`, or until the storm ends.
  void work(std::uint32_t calls) {
    crash::work_in_steps(journal_.herd, owner_, [&] {
      const bool is_private = owner_ % kThreads == 0 && below(2) == 0;
      const std::uint32_t number =
          is_private ? kSharedKeys + owner_ / kThreads * kPrivateEach + below(kPrivateEach) : below(kSharedKeys);
      const std::uint32_t held = journal_.thread[owner_].held[number];
      const bool enters = held == 0 || (held < kMostOfOneKey && below(2) == 0);
      Journal::Private *const own = is_private ? &journal_.only[number - kSharedKeys] : nullptr;
      if (own != nullptr) {
        own->begin_change();
      }
      const bool good = enters ? enter(number) : release(number);
      if (own != nullptr) {
        own->nh = nh_[number].load();
        own->end_change();
      }
      return good && --calls != 0;
    });
  }

  // Looks at private keys of all processes without the lock, as long as the others work.
  void look(const std::atomic<bool> &working) {
    Journal::Name &name = journal_.name[owner_ / kThreads];
    name.looking = true;
    crash::work_in_steps(journal_.herd, owner_, [&] {
      ++name.looks;
      return look_at(kSharedKeys + below(kKeys - kSharedKeys)) && working;
    });
    name.looking = false;
  }

 private:
  bool enter(std::uint32_t number) {
    Journal::Thread &own = journal_.thread[owner_];
    encap_entry_t entry{};
    own.entering = number + 1;
    const int status = encap_client_enter(client_, storm_key(number), nullptr, &entry);
    if (status == 0) {
      ++own.held[number];
      nh_[number] = entry.nh;
    }
    own.entering = 0;
    if (status == ENOSPC) {
      return true;
    }
    if (status != 0 || entry.renewed != 0 || entry.held < own.held[number]) {
      return fail("an entry of key %u returned %d, renewed %u, held %u", number, status, entry.renewed, entry.held);
    }
    // While this thread has a reference, the index is its key's.
    egress_encap_aux_data_t aux{};
    egress_encap_key_t key{};
    const int read = vrl_get_encap_key_and_aux_data_from_nh(entry.nh, &aux, &key);
    if (read != 0 || storm_key_number(key) != number) {
      return fail("NH %u of key %u is read with %d as key %u", entry.nh, number, read, storm_key_number(key));
    }
    return true;
  }

  bool look_at(std::uint32_t number) {
    const Journal::Private &own = journal_.only[number - kSharedKeys];
    const std::uint64_t stamp = own.stamp;
    const std::uint32_t held = journal_.thread[process_of(number) * kThreads].held[number];
    const std::uint32_t should = held != 0 ? own.nh.load() : UINT32_MAX;
    const egress_encap_key_t sought = storm_key(number);
    std::uint32_t nh = 0, tunnel = 0, count = 0;
    egress_encap_key_t key{};
    egress_encap_aux_data_t aux{};
    const int status = encap_client_peek(client_, sought, &nh, &tunnel);
    const int read = status == 0 ? encap_client_read(client_, nh, &key, &aux, &count) : ENOENT;
    if (stamp % 2 != 0 || own.stamp != stamp) {
      return true;  // it has changed meanwhile, or a death left it in doubt
    }
    ++journal_.judged;
    const bool whole =
        read == 0 && std::memcmp(&key, &sought, sizeof key) == 0 && count == held && aux.egr_tun == tunnel;
    return (nh == should && status == (held != 0 ? 0 : ENOENT) && (held == 0 || whole)) ||
           fail("a look at key %u answered %d, NH %u, not %u; its read %d, %u references, not %u, tunnels %u and %u",
                number, status, nh, should, read, count, held, tunnel, aux.egr_tun);
  }

  bool release(std::uint32_t number) {
    Journal::Thread &own = journal_.thread[owner_];
    own.releasing = number + 1;
    encap_left_t left{};
    const int status = encap_client_release(client_, nh_[number], &left);
    --own.held[number];
    own.releasing = 0;
    return status == 0 || fail("a release of NH %u of key %u returned %d", nh_[number].load(), number, status);
  }

  encap_client_t *client_;
  Indexes &nh_;
};

// The process's first thread, which opens and closes the client.
class ClientProcess : Member {
 public:
  ClientProcess(Journal &journal, const encap_db_config_t &config, std::uint32_t process, std::uint64_t seed)
      : Member(journal, process * kThreads, seed), config_(config), process_(process), own_(journal.name[process]) {}

  void live() {
    do {
      encap_client_t *const client = open();
      begin_changes();
      if (client == nullptr || !take_up(client) || !refresh(client)) {
        break;
      }
      end_changes();
      work(client);
      begin_changes();
      reclaim_the_lost(client);
      // While others may still take the name for lost, it is not left to them with what it holds.
      close(client, journal_.herd.stop || own_.lost || below(4) == 0);
    } while (!journal_.herd.stop && !has_failed());
    journal_.herd.thread[owner_].parked = true;
  }

 private:
  encap_client_t *open() {
    const std::string name = storm_name(process_);
    const encap_client_config_t wanted{config_, name.c_str()};
    for (;;) {
      crash::park_if_asked(journal_.herd, owner_);
      encap_client_t *client = nullptr;
      shmwin_error_t error{};
      const int status = encap_client_open(&wanted, &client, &error);
      if (status == 0) {
        return client;
      }
      if (status != EBUSY || !own_.sweeping) {  // another client may be reclaiming the name
        fail("an opening returned %d: %s", status, error.text);
        return nullptr;
      }
      usleep(100);
    }
  }

  void begin_changes() {
    for (std::uint32_t i = 0; i < kPrivateEach; ++i) {
      journal_.private_key(process_, i).begin_change();
    }
  }
  void end_changes() {
    for (std::uint32_t i = 0; i < kPrivateEach; ++i) {
      Journal::Private &own = journal_.private_key(process_, i);
      own.nh = nh_[kSharedKeys + process_ * kPrivateEach + i].load();
      own.end_change();
    }
  }

  // What the client holds must be what its earlier lives completed.
  bool take_up(encap_client_t *client) {
    std::map<std::uint32_t, encap_holding_t> holdings;
    const auto add = [](const encap_holding_t *holding, void *arg) {
      (*static_cast<std::map<std::uint32_t, encap_holding_t> *>(arg))[storm_key_number(holding->key)] = *holding;
    };
    const int status = encap_client_each(client, add, &holdings);
    for (std::uint32_t number = 0; status == 0 && number < kKeys; ++number) {
      const encap_holding_t holding = holdings[number];
      const auto [least, most] = journal_.bounds(process_, number);
      if (holding.held < least || holding.held > most) {
        return fail("taken up: %u references on key %u, not %u to %u", holding.held, number, least, most);
      }
      nh_[number] = holding.nh;
      own_.wanted[number] = holding.held;
    }
    if (own_.sweeping) {
      swept();
    }
    return (status == 0 && holdings.size() == kKeys) || fail("more is taken up than was entered, with %d", status);
  }

  bool refresh(encap_client_t *client) {
    crash::park_if_asked(journal_.herd, owner_);
    int status = encap_client_refresh_begin(client);
    for (std::uint32_t number = 0; number < kKeys; ++number) {
      const std::uint32_t held = journal_.bounds(process_, number).first;
      const std::uint32_t wanted = held != 0 && below(8) == 0 ? below(held) : held;
      own_.wanted[number] = wanted;
      for (std::uint32_t i = 0; status == 0 && i < wanted; ++i) {
        encap_entry_t entry{};
        status = encap_client_enter(client, storm_key(number), nullptr, &entry);
        status = entry.renewed == 1 ? status : EINVAL;
      }
    }
    own_.sweeping = true;
    status = status == 0 ? encap_client_refresh_end(client, nullptr, nullptr) : status;
    if (status == 0) {
      swept();
    }
    return status == 0 || fail("a refresh returned %d", status);
  }

  void swept() {
    for (std::uint32_t number = 0; number < kKeys; ++number) {
      journal_.settle(process_, number, own_.wanted[number]);
    }
    own_.sweeping = false;
  }

  void work(encap_client_t *client) {
    const std::uint32_t calls = 50 + below(3000);
    std::atomic<bool> working{true};
    std::thread looker(
        [&, seed = random_()] { ClientThread(journal_, client, nh_, owner_ + kThreads - 1, seed).look(working); });
    std::vector<std::thread> threads;
    for (std::uint32_t thread = 1; thread < kThreads - 1; ++thread) {
      threads.emplace_back(
          [=, this, seed = random_()] { ClientThread(journal_, client, nh_, owner_ + thread, seed).work(calls); });
    }
    ClientThread(journal_, client, nh_, owner_, random_()).work(calls);
    for (std::thread &thread : threads) {
      thread.join();
    }
    working = false;
    looker.join();
  }

  void reclaim_the_lost(encap_client_t *client) {
    for (std::uint32_t other = 0; other < kProcesses; ++other) {
      crash::park_if_asked(journal_.herd, owner_);
      if (journal_.name[other].lost) {
        const int status = encap_client_reclaim(client, storm_name(other).c_str(), nullptr, nullptr);
        if (status != 0 && status != ENOENT && status != EBUSY) {
          fail("a reclaim returned %d", status);
        }
      }
    }
  }

  void close(encap_client_t *client, bool leaves) {
    crash::park_if_asked(journal_.herd, owner_);
    for (std::uint32_t number = 0; leaves && number < kKeys; ++number) {
      own_.wanted[number] = 0;
    }
    own_.sweeping = leaves;
    const int status = leaves ? encap_client_leave(client, nullptr, nullptr) : encap_client_close(client);
    if (status != 0) {
      fail("a %s returned %d", leaves ? "leave" : "close", status);
    } else if (leaves) {
      swept();
    }
  }

  const encap_db_config_t &config_;
  const std::uint32_t process_;
  Journal::Name &own_;
  Indexes nh_{};
};

}  // namespace

void live_as_client(Journal &journal, const encap_db_config_t &config, std::uint32_t process, std::uint64_t seed) {
  ClientProcess(journal, config, process, seed).live();
}

}  // namespace client_proof
