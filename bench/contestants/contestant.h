// What a contestant is: a class with these members, taken as a template argument so that nothing stands between the
// timed loop and it.
//
//   static const (char * or std::string) kName;            column of the tables
//   Contestant(const Place &place, const Workload &workload, Role role);
//   Found find(const Key &key);                          both levels: a miss tells whether the tunnel is there
//   Found share(const Key &key);                         find, and one more user of the NH found
//   bool insert(const Encap &encap, bool with_tunnel);   with its first user; with_tunnel: its tunnel is new
//   bool release(const Encap &encap);                    one user less; goes with its last, a tunnel with its last NH
//   bool attach(const Encap &encap, std::uint32_t users);
//   bool detach(const Encap &encap);                     goes although it may have users
//   bool read_back(const Encap &encap, Data &data);
//   std::uint64_t bytes();                               of shared memory in use
//
// Every call takes the contestant's lock and gives it back.
#ifndef ENCAP_BENCH_CONTESTANT_H
#define ENCAP_BENCH_CONTESTANT_H

#include <cstdint>
#include <string>

#include "measuring/workload.h"

namespace encap_bench {

struct Found {
  bool nh_found = false;
  bool tun_found = false;
  std::uint32_t nh = 0;
  std::uint32_t tun = 0;
};

// An NH's data as it is read back.
struct Data {
  std::uint32_t seed_nh = 0;
  std::uint32_t failover_nh = 0;
  std::uint32_t tun = 0;
};

// Where a contestant keeps its files: a directory of its own for each run, on the shared-memory file system.
struct Place {
  std::string directory;
  std::string file(const std::string &name) const { return directory + "/" + name; }
};

// The creator makes the store and fills it; the others attach to what is there.
enum class Role { creator, user };

// What the user stores with an NH, derived from its index so that reading back can be checked.
inline std::uint32_t seed_of(std::uint32_t nh) {
  return nh * 3 + 1;
}

// The way all users take: look up, and enter what is missing.
template <typename Contestant>
bool fill(Contestant &contestant, const Workload &workload) {
  for (const Encap &encap : workload.entered) {
    const Found found = contestant.find(encap.key);
    if (found.nh_found || !contestant.insert(encap, !found.tun_found)) {
      return false;
    }
  }
  return true;
}

}  // namespace encap_bench

#endif
