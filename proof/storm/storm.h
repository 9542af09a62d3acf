// The kill storm's common ground: who owns what, and what each worker has completed, in memory that survives them.
#ifndef ENCAP_TESTS_CRASH_STORM_H
#define ENCAP_TESTS_CRASH_STORM_H

#include <atomic>
#include <cstdint>
#include <random>
#include <string>

#include "support/operations.h"

namespace crash {

inline constexpr std::uint32_t kWorkers = 4;
inline constexpr std::uint32_t kNhsEach = 24, kTunnelsEach = 4;  // a worker's own indexes, keys and tunnels
inline constexpr std::uint32_t kKept = 8;                        // NHs of the verifier's, on the null tunnel, that stay
inline constexpr std::uint32_t kStormNhs = kWorkers * kNhsEach + kKept, kStormTunnels = kWorkers * kTunnelsEach;
inline constexpr std::uint32_t kStormNhStart = 1000, kStormTunStart = 10;

// What a worker knows of one NH of its own. Written by it alone, before and after each operation, and by the verifier
// while it holds the database lock.
struct Entry {
  std::uint32_t count;  // 0: not entered
  std::uint32_t seed;
};

struct Ledger {
  struct Worker {
    Entry entry[kNhsEach];
    // The operation under way, or the one that a killed predecessor did not live to note: nothing is known of its NH,
    // nor used of its tunnel, until the next repair.
    std::atomic<std::uint32_t> unsure;  // bit: NH of this worker
    std::atomic<std::uint64_t> operations;
    char failure[2048];
  };
  Worker worker[kWorkers];
  std::atomic<bool> stop;
};

// The key of a worker's NH number `nh`: on one of its tunnels, or on a null tunnel node of its own.
egress_encap_key_t storm_key(std::uint32_t worker, std::uint32_t nh);
std::uint32_t storm_nh(std::uint32_t worker, std::uint32_t nh);
std::uint32_t storm_tunnel(std::uint32_t worker, std::uint32_t nh);  // index; 0 for the null tunnel

// Works until it is killed, told to stop, or sees a wrong answer, which it writes down.
void storm_work(Ledger &ledger, std::uint32_t worker, std::uint64_t seed);

// Compares what worker `worker` has completed with the database, under the lock. Returns "" or what is wrong.
std::string storm_difference(const Ledger &ledger, std::uint32_t worker);

}  // namespace crash

#endif
