#include <cstdio>

#include "storm.h"

namespace crash {
namespace {

constexpr std::uint32_t kTunnelsOfKeys = kTunnelsEach + 1;  // its labelled ones and its null tunnel node

// Keys of the same tunnel as `nh`, as bits.
std::uint32_t tunnel_mates(std::uint32_t nh) {
  std::uint32_t bits = 0;
  for (std::uint32_t other = nh % kTunnelsOfKeys; other < kNhsEach; other += kTunnelsOfKeys) {
    bits |= 1u << other;
  }
  return bits;
}

class Worker {
 public:
  Worker(Ledger &ledger, std::uint32_t number, std::uint64_t seed)
      : own_(ledger.worker[number]), ledger_(ledger), number_(number), random_(seed) {}

  void work() {
    while (!ledger_.stop && own_.failure[0] == '\0') {
      step();
      own_.operations.fetch_add(1);
    }
  }

 private:
  std::uint32_t below(std::uint32_t limit) { return static_cast<std::uint32_t>(random_() % limit); }

  void step() {
    const std::uint32_t nh = below(kNhsEach);
    const std::uint32_t kind = below(16);
    if (kind == 0) {
      verify();
    } else if (kind < 3) {
      look_at_others();
    } else if ((own_.unsure & tunnel_mates(nh)) == 0) {
      own_.unsure.fetch_or(1u << nh);
      change(nh, kind);
      own_.unsure.fetch_and(~(1u << nh));
    }
  }

  void expect(const Operation &operation, const Answer &is, int status) {
    if (is.status != status) {
      std::snprintf(own_.failure, sizeof own_.failure, "%s answers %d, not %d", text_of(operation).c_str(), is.status,
                    status);
    }
  }

  void change(std::uint32_t nh, std::uint32_t kind) {
    Entry &entry = own_.entry[nh];
    if (entry.count == 0) {
      enter(nh, kind == 4 ? 1 + below(3) : 0);
    } else if (kind < 8) {
      apply(nh, Verb::kShare, entry.count + 1);
    } else if (kind == 8) {
      update(nh);
    } else if (kind == 9) {
      apply(nh, Verb::kDetach, 0);
    } else {
      apply(nh, Verb::kRelease, entry.count - 1);
    }
  }

  // `attached`: the count of an attach; 0 for an insert.
  void enter(std::uint32_t nh, std::uint32_t attached) {
    Operation operation;
    operation.key = storm_key(number_, nh);
    const Answer found = on_database(operation);
    operation.info = found.info;
    if (found.status != 0 || found.info.nh_found != 0) {
      std::snprintf(own_.failure, sizeof own_.failure, "NH %u is found, and was never entered", nh);
      return;
    }
    operation.info.egr_nh = storm_nh(number_, nh);
    operation.info.egr_tun = storm_tunnel(number_, nh);
    if (found.info.tun_found != 0 && found.info.egr_tun != operation.info.egr_tun) {
      std::snprintf(own_.failure, sizeof own_.failure, "the tunnel of NH %u has index %u", nh, found.info.egr_tun);
      return;
    }
    operation.info.seed_nh = 1 + below(1000);
    operation.verb = attached != 0 ? Verb::kAttach : Verb::kInsert;
    operation.count = attached;
    expect(operation, on_database(operation), 0);
    own_.entry[nh] = {attached != 0 ? attached : 1, operation.info.seed_nh};
  }

  void apply(std::uint32_t nh, Verb verb, std::uint32_t count) {
    const Operation operation = on_nh(verb, storm_nh(number_, nh));
    expect(operation, on_database(operation), 0);
    own_.entry[nh].count = count;
  }

  // The update takes no lock: a caller with concurrent readers does.
  void update(std::uint32_t nh) {
    Operation operation = on_nh(Verb::kUpdate, storm_nh(number_, nh));
    operation.data.seed_nh = 1 + below(1000);
    vrl_egress_encap_db_lock(&egress_encap_db->lock.mutex);
    expect(operation, on_database(operation), 0);
    pthread_mutex_unlock(&egress_encap_db->lock.mutex);
    own_.entry[nh].seed = operation.data.seed_nh;
  }

  // Another worker's key is found at that worker's index or not at all.
  void look_at_others() {
    const std::uint32_t worker = below(kWorkers), nh = below(kNhsEach);
    Operation find;
    find.key = storm_key(worker, nh);
    const Answer found = on_database(find);
    expect(find, found, 0);
    const bool half_done = (ledger_.worker[worker].unsure & tunnel_mates(nh)) != 0;
    if (found.info.nh_found != 0 && found.info.egr_nh != storm_nh(worker, nh) && !half_done) {
      std::snprintf(own_.failure, sizeof own_.failure, "NH %u of worker %u is found as %u", nh, worker,
                    found.info.egr_nh);
    }
  }

  void verify() {
    vrl_egress_encap_db_lock(&egress_encap_db->lock.mutex);
    const std::string wrong = storm_difference(ledger_, number_);
    pthread_mutex_unlock(&egress_encap_db->lock.mutex);
    if (!wrong.empty()) {
      std::snprintf(own_.failure, sizeof own_.failure, "%s", wrong.c_str());
    }
  }

  Ledger::Worker &own_;
  Ledger &ledger_;
  std::uint32_t number_;
  std::mt19937_64 random_;
};

}  // namespace

egress_encap_key_t storm_key(std::uint32_t worker, std::uint32_t nh) {
  const std::uint32_t tunnel = nh % kTunnelsOfKeys;
  return key_of(16 + nh, tunnel == kTunnelsEach ? 0 : 200 + kTunnelsEach * worker + tunnel, 1 + worker);
}

std::uint32_t storm_nh(std::uint32_t worker, std::uint32_t nh) {
  return kStormNhStart + worker * kNhsEach + nh;
}

std::uint32_t storm_tunnel(std::uint32_t worker, std::uint32_t nh) {
  const std::uint32_t tunnel = nh % kTunnelsOfKeys;
  return tunnel == kTunnelsEach ? 0 : kStormTunStart + worker * kTunnelsEach + tunnel;
}

void storm_work(Ledger &ledger, std::uint32_t worker, std::uint64_t seed) {
  Worker(ledger, worker, seed).work();
}

std::string storm_difference(const Ledger &ledger, std::uint32_t worker) {
  const Ledger::Worker &own = ledger.worker[worker];
  std::string wrong;
  for (std::uint32_t nh = 0; nh < kNhsEach; ++nh) {
    if ((own.unsure & 1u << nh) != 0) {
      continue;
    }
    const Entry &entry = own.entry[nh];
    const egr_nh_info_t &slot = egress_encap_db->nh_info_array[storm_nh(worker, nh) - kStormNhStart];
    Operation find;
    find.key = storm_key(worker, nh);
    const Answer found = on_database(find);
    const bool there = entry.count != 0;
    const bool right = slot.valid == (there ? 1 : 0) && slot.ref_count == entry.count &&
                       found.info.nh_found == (there ? 1 : 0) &&
                       (!there || (slot.seed_nh == entry.seed && found.info.egr_nh == storm_nh(worker, nh)));
    if (!right) {
      wrong += "NH " + std::to_string(nh) + " of worker " + std::to_string(worker) + " has count " +
               std::to_string(slot.ref_count) + " and seed " + std::to_string(slot.seed_nh) + ", completed were " +
               std::to_string(entry.count) + " and " + std::to_string(entry.seed) + '\n';
    }
  }
  return wrong;
}

}  // namespace crash
