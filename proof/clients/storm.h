// The storm of clients' common ground: what each thread has completed, in memory that survives it.
#ifndef ENCAP_PROOF_CLIENTS_STORM_H
#define ENCAP_PROOF_CLIENTS_STORM_H

#include "encap_client.h"
#include "storm/herd.h"

namespace client_proof {

inline constexpr std::uint32_t kKeys = 200;       // that clients enter; the first ones are shared by all
inline constexpr std::uint32_t kPrivateEach = 8;  // that the first thread of one process alone enters
inline constexpr std::uint32_t kSharedKeys = kKeys - crash::kProcesses * kPrivateEach;

struct Journal {
  struct Thread {
    std::atomic<std::uint32_t> held[kKeys];
    std::atomic<std::uint32_t> entering, releasing;  // key + 1 that the call under way is about; 0: none
  };
  struct Name {
    std::atomic<bool> sweeping;  // references above `wanted` are about to go
    std::atomic<bool> lost;      // its process does not come back, so that others may reclaim what it holds
    std::atomic<std::uint32_t> wanted[kKeys];
    std::atomic<bool> looking;         // a thread of it looks without the lock
    std::atomic<std::uint64_t> looks;  // of that thread
  };
  // A private key. While its stamp is even and stays the same, a look has one right answer.
  struct Private {
    std::atomic<std::uint64_t> stamp;
    std::atomic<std::uint32_t> nh;  // its index, if the first thread of its process holds it

    void begin_change() { stamp |= 1; }
    void end_change() { stamp += stamp % 2; }
  };
  crash::HerdState herd;
  Thread thread[crash::kOwners];
  Name name[crash::kProcesses];
  Private only[kKeys - kSharedKeys];  // number kSharedKeys and those that follow
  std::atomic<std::uint64_t> judged;  // looks that were compared with their one right answer

  Private &private_key(std::uint32_t process, std::uint32_t number) { return only[process * kPrivateEach + number]; }

  // How many references the client `process` holds on a key: as many at least and at most.
  std::pair<std::uint32_t, std::uint32_t> bounds(std::uint32_t process, std::uint32_t key) const;

  // Notes how many it holds for certain. A process that dies in this has noted nothing wrong, as long as it sweeps.
  void settle(std::uint32_t process, std::uint32_t key, std::uint32_t held);
};

egress_encap_key_t storm_key(std::uint32_t number);
std::uint32_t storm_key_number(const egress_encap_key_t &key);  // kKeys for another
// The process that a private key belongs to.
constexpr std::uint32_t process_of(std::uint32_t number) {
  return (number - kSharedKeys) / kPrivateEach;
}
std::string storm_name(std::uint32_t process);

using Member = crash::Member<Journal>;

// The life of a client's process: opens its name, takes up what it held, works with all its threads, closes or leaves,
// and so on. When the storm ends it leaves.
void live_as_client(Journal &journal, const encap_db_config_t &config, std::uint32_t process, std::uint64_t seed);

}  // namespace client_proof

#endif
