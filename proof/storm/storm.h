// The kill storm's common ground: which thread owns what, and what each has completed, in memory that survives them.
#ifndef ENCAP_PROOF_STORM_H
#define ENCAP_PROOF_STORM_H

#include "model/operations.h"
#include "storm/herd.h"
#include "support/window.h"

namespace crash {

inline constexpr std::uint32_t kNhsEach = 9, kTunnelsEach = 2;  // an owner's indexes, keys and labelled tunnels
inline constexpr std::uint32_t kKept = 8;                       // NHs of the verifier's, on the null tunnel, that stay
inline constexpr std::uint32_t kStormNhs = kOwners * kNhsEach + kKept, kStormTunnels = kOwners * kTunnelsEach;
inline constexpr std::uint32_t kStormNhStart = 1000, kStormTunStart = 10;

// What a thread knows of one NH of its own.
struct Entry {
  std::uint32_t count;  // 0: not entered
  std::uint32_t seed;
};

struct Ledger {
  struct Owner {
    Entry entry[kNhsEach];
    std::atomic<std::uint32_t> busy;    // bit: the owner is changing this NH
    std::atomic<std::uint32_t> unsure;  // bit: a death cut a change of this NH off, or others have used it since then
  };
  Owner owner[kOwners];
  HerdState herd;
};

// A window for all owners.
encap_db_config_t storm_config(const Directory &directory);

// The key of an owner's NH number `nh`: on one of its tunnels, or on a null tunnel node of its own.
egress_encap_key_t storm_key(std::uint32_t owner, std::uint32_t nh);
std::uint32_t storm_nh(std::uint32_t owner, std::uint32_t nh);
std::uint32_t storm_tunnel(std::uint32_t owner, std::uint32_t nh);  // index; 0 for the null tunnel

// Works until it is killed, told to stop, or sees a wrong answer, which it writes down.
void storm_work(Ledger &ledger, std::uint32_t owner, std::uint64_t seed);

// Compares what owner `owner` has completed with the database, under the lock. Returns "" or what is wrong.
std::string storm_difference(const Ledger &ledger, std::uint32_t owner);

// Takes over what a repair made of the NHs in doubt. Requires that the owner is dead.
void storm_settle(Ledger &ledger, std::uint32_t owner);

}  // namespace crash

#endif
