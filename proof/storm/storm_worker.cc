#include <algorithm>
#include <cerrno>

#include "storm.h"

namespace crash {
namespace {

constexpr std::uint32_t kTunnelsOfKeys = kTunnelsEach + 1;  // the labelled ones and the null tunnel node

// The NHs that share a tunnel with `nh`, as bits.
std::uint32_t tunnel_mates(std::uint32_t nh) {
  std::uint32_t bits = 0;
  for (std::uint32_t other = nh % kTunnelsOfKeys; other < kNhsEach; other += kTunnelsOfKeys) {
    bits |= 1u << other;
  }
  return bits;
}

bool enters(Verb verb) {
  return verb == Verb::kInsert || verb == Verb::kAttach;
}

class Worker : Member<Ledger> {
 public:
  Worker(Ledger &ledger, std::uint32_t owner, std::uint64_t seed)
      : Member(ledger, owner, seed), own_(ledger.owner[owner]) {}

  void work() {
    work_in_steps(journal_.herd, owner_, [this] {
      step();
      return true;
    });
  }

 private:
  void step() {
    const std::uint32_t nh = below(kNhsEach);
    const std::uint32_t kind = below(16);
    if (kind == 0) {
      verify();
    } else if (kind < 3) {
      use_of_others(below(kOwners), nh);
    } else if ((own_.unsure & tunnel_mates(nh)) != 0) {
      use_unsure(owner_, nh);
    } else {
      own_.busy.fetch_or(1u << nh);
      change(nh, kind);
      own_.busy.fetch_and(~(1u << nh));
    }
  }

  void fail_in(const Operation &operation, const Answer &is) {
    fail("%s\n  answers %s", text_of(operation).c_str(), text_of(is).c_str());
  }

  // The operation as a caller makes it who looks the key up first; an entry names what the look-up found.
  Operation made(Verb verb, std::uint32_t owner, std::uint32_t nh) {
    Operation operation = on_nh(verb, storm_nh(owner, nh), 1 + below(3));
    operation.key = storm_key(owner, nh);
    operation.data.seed_nh = 1 + below(1000);
    if (enters(verb)) {
      Operation look;
      look.key = operation.key;
      operation.info = on_database(look).info;
      operation.info.egr_nh = operation.nh;
      operation.info.seed_nh = operation.data.seed_nh;
      operation.info.egr_tun = operation.info.tun_found != 0 ? operation.info.egr_tun : storm_tunnel(owner, nh);
    }
    return operation;
  }

  // Of keys on a tunnel that a death left in doubt no answer is certain, but that there is one: 0, 1 or 22.
  void use_unsure(std::uint32_t owner, std::uint32_t nh) {
    const Operation operation = made(static_cast<Verb>(below(kVerbs)), owner, nh);
    journal_.owner[owner].unsure.fetch_or(1u << nh);
    const Answer is = on_database(operation);
    if (is.status != 0 && is.status != EINVAL && (is.status != 1 || operation.verb != Verb::kCanDelete)) {
      fail_in(operation, is);
    }
  }

  // Another owner's key is found at that owner's index or not at all.
  void use_of_others(std::uint32_t owner, std::uint32_t nh) {
    if ((journal_.owner[owner].unsure & tunnel_mates(nh)) != 0) {
      use_unsure(owner, nh);
      return;
    }
    const Operation find = made(Verb::kFind, owner, nh);
    const Answer found = on_database(find);
    const bool unsure = ((journal_.owner[owner].unsure | journal_.owner[owner].busy) & tunnel_mates(nh)) != 0;
    if (found.status != 0 || (found.info.nh_found != 0 && found.info.egr_nh != storm_nh(owner, nh) && !unsure)) {
      fail_in(find, found);
    }
  }

  void change(std::uint32_t nh, std::uint32_t kind) {
    constexpr Verb kOnAbsent[] = {Verb::kAttach, Verb::kShare, Verb::kRead, Verb::kFindShare, Verb::kInsert};
    constexpr Verb kOnPresent[] = {Verb::kShare,     Verb::kShare,  Verb::kFindShare, Verb::kSet,    Verb::kRead,
                                   Verb::kCanDelete, Verb::kUpdate, Verb::kDetach,    Verb::kRelease};
    Entry &entry = own_.entry[nh];
    const Verb verb = entry.count == 0 ? kOnAbsent[std::min<std::size_t>(kind - 3, std::size(kOnAbsent) - 1)]
                                       : kOnPresent[std::min<std::size_t>(kind - 3, std::size(kOnPresent) - 1)];
    const Operation operation = made(verb, owner_, nh);
    const egress_encap_info_t &info = operation.info;
    if (enters(verb) && (info.nh_found != 0 || info.egr_tun != storm_tunnel(owner_, nh))) {
      fail("never entered and found: %s", text_of(operation).c_str());
      return;
    }
    // These two take no lock of their own: a caller with concurrent readers does.
    const bool locks = verb == Verb::kUpdate || verb == Verb::kCanDelete;
    pthread_mutex_t *const mutex = locks ? &egress_encap_db->lock.mutex : nullptr;
    if (mutex != nullptr) {
      vrl_egress_encap_db_lock(mutex);
    }
    const Answer is = on_database(operation);
    if (mutex != nullptr) {
      pthread_mutex_unlock(mutex);
    }
    note(entry, nh, operation, is);
  }

  void note(Entry &entry, std::uint32_t nh, const Operation &operation, const Answer &is) {
    const Verb verb = operation.verb;
    if (is.status == EINVAL && storm_tunnel(owner_, nh) == 0 && (verb == Verb::kDetach || verb == Verb::kRelease)) {
      own_.unsure.fetch_or(1u << nh);  // all null tunnel nodes share one count, and a death has left it too low
      return;
    }
    const bool there = entry.count != 0;
    const bool finds = verb == Verb::kFindShare, reads = there && verb == Verb::kRead;
    const int should = verb == Verb::kCanDelete ? entry.count == 1 : there || enters(verb) || finds ? 0 : EINVAL;
    const bool found = !finds || (is.info.nh_found == there && (!there || is.info.egr_nh == operation.nh));
    const bool read = !reads || (is.aux.seed_nh == entry.seed && is.key.out_label1 == operation.key.out_label1 &&
                                 is.key.out_label2 == operation.key.out_label2 && is.key.ifh == operation.key.ifh);
    if (is.status != should || !found || !read) {
      fail_in(operation, is);
      return;
    }
    if (enters(verb) || verb == Verb::kUpdate) {
      entry.seed = operation.data.seed_nh;
    }
    entry.count = verb == Verb::kInsert                      ? 1
                  : enters(verb) || verb == Verb::kSet       ? operation.count
                  : there && (finds || verb == Verb::kShare) ? entry.count + 1
                  : verb == Verb::kRelease                   ? entry.count - 1
                  : verb == Verb::kDetach                    ? 0
                                                             : entry.count;
  }

  void verify() {
    vrl_egress_encap_db_lock(&egress_encap_db->lock.mutex);
    const std::string wrong = storm_difference(journal_, owner_);
    pthread_mutex_unlock(&egress_encap_db->lock.mutex);
    if (!wrong.empty()) {
      fail("%s", wrong.c_str());
    }
  }

  Ledger::Owner &own_;
};

}  // namespace

encap_db_config_t storm_config(const Directory &directory) {
  encap_db_config_t config = config_in(directory);
  config.nh_start = kStormNhStart;
  config.nh_size = kStormNhs;
  config.tun_start = kStormTunStart;
  config.tun_size = kStormTunnels;
  return config;
}

egress_encap_key_t storm_key(std::uint32_t owner, std::uint32_t nh) {
  const std::uint32_t tunnel = nh % kTunnelsOfKeys;
  return key_of(16 + nh, tunnel == kTunnelsEach ? 0 : 200 + kTunnelsEach * owner + tunnel, 1 + owner);
}

std::uint32_t storm_nh(std::uint32_t owner, std::uint32_t nh) {
  return kStormNhStart + owner * kNhsEach + nh;
}

std::uint32_t storm_tunnel(std::uint32_t owner, std::uint32_t nh) {
  const std::uint32_t tunnel = nh % kTunnelsOfKeys;
  return tunnel == kTunnelsEach ? 0 : kStormTunStart + owner * kTunnelsEach + tunnel;
}

void storm_work(Ledger &ledger, std::uint32_t owner, std::uint64_t seed) {
  Worker(ledger, owner, seed).work();
}

std::string storm_difference(const Ledger &ledger, std::uint32_t owner) {
  const Ledger::Owner &own = ledger.owner[owner];
  const std::uint32_t in_doubt = own.unsure | own.busy;  // read first: what is not busy now stays as it is
  std::string wrong;
  for (std::uint32_t nh = 0; nh < kNhsEach; ++nh) {
    const Entry entry = own.entry[nh];
    const egr_nh_info_t &slot = egress_encap_db->nh_info_array[storm_nh(owner, nh) - kStormNhStart];
    Operation find;
    find.key = storm_key(owner, nh);
    const Answer found = on_database(find);
    const bool there = entry.count != 0;
    const bool right = slot.valid == (there ? 1 : 0) && slot.ref_count == entry.count &&
                       found.info.nh_found == (there ? 1 : 0) &&
                       (!there || (slot.seed_nh == entry.seed && found.info.egr_nh == storm_nh(owner, nh)));
    if (!right && (in_doubt & 1u << nh) == 0) {
      wrong += "NH " + std::to_string(nh) + " of owner " + std::to_string(owner) + " has count " +
               std::to_string(slot.ref_count) + " and seed " + std::to_string(slot.seed_nh) + ", completed were " +
               std::to_string(entry.count) + " and " + std::to_string(entry.seed) + '\n';
    }
  }
  return wrong;
}

void storm_settle(Ledger &ledger, std::uint32_t owner) {
  Ledger::Owner &own = ledger.owner[owner];
  for (std::uint32_t nh = 0; nh < kNhsEach; ++nh) {
    if ((own.unsure & 1u << nh) == 0) {
      continue;
    }
    const egr_nh_info_t &slot = egress_encap_db->nh_info_array[storm_nh(owner, nh) - kStormNhStart];
    if (slot.valid != 0 && slot.egr_tun != storm_tunnel(owner, nh)) {
      // The repair has given the tunnel an index that this owner does not choose.
      on_database(on_nh(Verb::kDetach, storm_nh(owner, nh)));
    } else if (slot.valid != 0 && slot.ref_count == 0) {
      on_database(on_nh(Verb::kSet, storm_nh(owner, nh), 1));
    }
    own.entry[nh] = {slot.ref_count, slot.seed_nh};
  }
  own.unsure = 0;
}

}  // namespace crash
