#include "worker.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <optional>
#include <vector>

#include "database_lock.h"
#include "messages.h"

namespace demo {
namespace {

using Clock = std::chrono::steady_clock;

std::uint32_t microseconds_since(Clock::time_point start) {
  return static_cast<std::uint32_t>(
      std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start).count());
}

bool nh_in_use(std::uint32_t index) {
  return egress_encap_db->nh_info_array[index - egress_encap_db->nh_start].valid != 0;
}

bool tunnel_in_use(std::uint32_t index) {
  return egress_encap_db->tun_info_array[index - egress_encap_db->tun_start].valid != 0;
}

// An index of `share` that is free, searched from `next` on, which moves behind it. The slots themselves tell, so that
// a restarted worker needs no memory of what it gave out before, and an index whose NH the other process removed last
// is free again at once. Each share has room for all. Requires the lock.
std::uint32_t choose_index(Range share, std::uint32_t &next, bool (*in_use)(std::uint32_t)) {
  for (std::uint32_t tries = share.first; tries < share.end; ++tries) {
    const std::uint32_t index = next;
    next = next + 1 < share.end ? next + 1 : share.first;
    if (!in_use(index)) {
      return index;
    }
  }
  throw std::runtime_error("no free index");
}

class Worker {
 public:
  Worker(const Plan &plan, std::uint32_t id) : plan_(plan), id_(id) {
    for (const route_file::Hop &hop : plan.part_of(id)) {
      hops_.push_back({route_file::key_of(hop), std::nullopt});
    }
  }

  int run() {
    if (!open_database()) {
      return 1;
    }
    for (Command command; receive(kCommandFd, command);) {
      Reply reply{};
      std::vector<Reference> references;
      if (command.verb == Verb::kQuit) {
        return encap_db_close() == 0 && tell(reply, references) ? 0 : 1;
      }
      obey(command, reply, references);
      if (!tell(reply, references)) {
        break;
      }
    }
    return 1;
  }

 private:
  // A hop of its part: one user of the NH under `key`; `nh_index` while it holds a reference.
  struct Own {
    egress_encap_key_t key;
    std::optional<std::uint32_t> nh_index;
  };

  bool open_database() {
    const encap_db_config_t config = plan_.database();
    shmwin_error_t error{};
    int created = 0;
    Reply reply{};
    reply.status = encap_db_open(&config, &created, &error);
    reply.created_database = created != 0;
    if (reply.status != 0) {
      fmt::print(stderr, "worker {}: {}\n", letter_of(id_), error.text);
    }
    return tell(reply, {}) && reply.status == 0;
  }

  static bool tell(Reply &reply, const std::vector<Reference> &references) {
    reply.references = static_cast<std::uint32_t>(references.size());
    return send(kReplyFd, reply) && send(kReplyFd, references);
  }

  void obey(const Command &command, Reply &reply, std::vector<Reference> &references) {
    switch (command.verb) {
      case Verb::kEnter:
        return enter(command.count, reply);
      case Verb::kHold:
        return hold(reply);
      case Verb::kHoldings:
        return holdings(references);
      case Verb::kRecover:
        return recover(command.count, reply);
      case Verb::kWithdraw:
        return withdraw(reply);
      case Verb::kQuit:
        return;
    }
  }

  void enter(std::uint32_t count, Reply &reply) {
    for (Own &own : hops_) {
      if (reply.entered == count || reply.status != 0) {
        return;
      }
      if (!own.nh_index) {
        enter_one(own, reply);
      }
    }
  }

  // Holds the lock from the look-up to the insert: nobody enters the same key or tunnel in between, so that the insert
  // never loses a race, and what the look-up said is still true.
  void enter_one(Own &own, Reply &reply) {
    const Clock::time_point start = Clock::now();
    const DatabaseLock lock;
    reply.wait_us = std::max(reply.wait_us, microseconds_since(start));
    egress_encap_info_t info{};
    reply.status = vrl_find_and_share_egress_encap(&info, own.key);
    if (reply.status == 0 && info.nh_found == 0) {
      insert(own.key, info, reply);
    }
    if (reply.status != 0) {
      return;
    }
    own.nh_index = info.egr_nh;
    ++reply.entered;
    reply.foreign += plan_.creator_of(info.egr_nh) != id_;
  }

  void insert(const egress_encap_key_t &key, egress_encap_info_t &info, Reply &reply) {
    info.egr_nh = choose_index(plan_.nh_share(id_), next_nh_, nh_in_use);
    if (info.tun_found == 0) {
      const bool null_tunnel = key.out_label2 == 0 && key.out_label3 == 0;
      info.egr_tun = null_tunnel ? 0 : choose_index(plan_.tunnel_share(id_), next_tunnel_, tunnel_in_use);
    }
    reply.status = vrl_insert_egress_encap(&info, key);
    ++reply.created;
  }

  // In the middle of an entry: lock taken, key looked up, nothing entered yet.
  void hold(Reply &reply) {
    const DatabaseLock lock;
    const auto next = std::ranges::find_if(hops_, [](const Own &own) { return !own.nh_index; });
    reply.hop = static_cast<std::uint32_t>(next - hops_.begin());
    egress_encap_info_t info{};
    reply.status = next == hops_.end() ? 0 : vrl_find_egress_encap(&info, next->key);
    tell(reply, {});
    while (true) {
      pause();
    }
  }

  void holdings(std::vector<Reference> &references) const {
    std::map<std::uint32_t, std::uint32_t> held;
    for (const Own &own : hops_) {
      if (own.nh_index) {
        ++held[*own.nh_index];
      }
    }
    for (const auto &[nh_index, count] : held) {
      references.push_back({nh_index, count});
    }
  }

  // The database counts the users of an NH and does not know them. Its own references are what the count holds beyond
  // those of the other process; which of its hops they stand for follows from their keys, taken in the order of entry.
  void recover(std::uint32_t count, Reply &reply) {
    std::vector<Reference> others(count);
    if (!receive(kCommandFd, others)) {
      return;
    }
    std::map<std::uint32_t, std::uint32_t> known;  // references whose holder is known, by NH index
    for (const Reference &other : others) {
      known[other.nh_index] = other.count;
    }
    const DatabaseLock lock;
    for (Own &own : hops_) {
      egress_encap_info_t info{};
      reply.status = vrl_find_egress_encap(&info, own.key);
      if (reply.status != 0) {
        return;
      }
      const bool found = info.nh_found != 0;
      if (found &&
          known[info.egr_nh] < egress_encap_db->nh_info_array[info.egr_nh - egress_encap_db->nh_start].ref_count) {
        ++known[info.egr_nh];
        own.nh_index = info.egr_nh;
        ++reply.entered;
      }
    }
  }

  void withdraw(Reply &reply) {
    const auto first = std::ranges::find_if(hops_, [](const Own &own) { return own.nh_index.has_value(); });
    if (first == hops_.end()) {
      reply.status = ENOENT;
      return;
    }
    reply.hop = static_cast<std::uint32_t>(first - hops_.begin());
    reply.nh_index = *first->nh_index;
    reply.status = vrl_delete_and_free_egress_encap_with_nh_key(*first->nh_index, &reply.egr_tun, &reply.nh_to_del,
                                                                &reply.tun_to_del);
    first->nh_index.reset();
  }

  const Plan &plan_;
  const std::uint32_t id_;
  std::vector<Own> hops_;
  std::uint32_t next_nh_ = plan_.nh_share(id_).first;
  std::uint32_t next_tunnel_ = plan_.tunnel_share(id_).first;
};

}  // namespace

int run_worker(const Plan &plan, std::uint32_t worker) {
  return Worker(plan, worker).run();
}

}  // namespace demo
