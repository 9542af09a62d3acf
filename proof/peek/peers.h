// What the processes of a storm of looks share, and what each of them does.
#ifndef ENCAP_PROOF_PEEK_PEERS_H
#define ENCAP_PROOF_PEEK_PEERS_H

#include <atomic>
#include <cstdint>

#include "encap_client.h"
#include "storm/herd.h"

namespace peek_proof {

inline constexpr std::uint32_t kPeekers = 3;       // processes
inline constexpr std::uint32_t kGroupsOfEach = 4;  // tunnels that one process changes; the last one is a null tunnel
inline constexpr std::uint32_t kGroups = kPeekers * kGroupsOfEach;
inline constexpr std::uint32_t kNhsOfGroup = 3;
inline constexpr std::uint32_t kMostHeld = 2;
inline constexpr std::uint32_t kKept =
    1024;  // states of a group; a look that takes longer than half of them is not judged
inline constexpr std::uint32_t kAtRest = 60;  // encapsulations that nothing changes
inline constexpr std::uint32_t kNone = UINT32_MAX;

struct Group {
  // What a look may answer: for each NH its index and references, and the index of the tunnel; kNone where it is not there.
  struct State {
    std::uint32_t nh[kNhsOfGroup];
    std::uint32_t count[kNhsOfGroup];
    std::uint32_t tunnel;
  };
  std::atomic<std::uint64_t> stamp;  // twice the number of the state; one more while a change is under way
  State state[kKept];
};

struct Journal {
  crash::HerdState herd;
  Group group[kGroups];
  std::atomic<std::uint64_t> looks[kPeekers], unjudged;
  std::atomic<bool> stopped;  // a process is
};

// Before the first process starts.
void fill(Journal &journal, const encap_db_config_t &config);

// A process: one thread changes its groups, the other one looks at all.
void live(Journal &journal, const encap_db_config_t &config, std::uint32_t process, std::uint64_t seed);

}  // namespace peek_proof

#endif
