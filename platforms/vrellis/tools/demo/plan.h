// What every process of the demo works out from the route file by itself: who enters what, and which indexes are whose.
#ifndef ENCAP_DEMO_PLAN_H
#define ENCAP_DEMO_PLAN_H

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "encap_db_owner.h"
#include "route_file.h"

namespace demo {

inline constexpr std::uint32_t kWorkers = 2;
inline constexpr std::uint32_t kNhStart = 1000;
inline constexpr std::uint32_t kTunStart = 100;
inline constexpr const char *kWindowName = "window";

using Key = std::array<std::uint32_t, 4>;     // ifh, out_label3, out_label2, out_label1
using Tunnel = std::array<std::uint32_t, 3>;  // ifh, out_label3, out_label2

inline Key key_of(const egress_encap_key_t &key) {
  return {key.ifh, key.out_label3, key.out_label2, key.out_label1};
}
inline Tunnel tunnel_of(const Key &key) {
  return {key[0], key[1], key[2]};
}
inline bool on_null_tunnel(const Key &key) {
  return key[1] == 0 && key[2] == 0;
}

inline char letter_of(std::uint32_t worker) {
  return static_cast<char>('A' + worker);
}

// Half-open range of indexes.
struct Range {
  std::uint32_t first;
  std::uint32_t end;
};

struct Plan {
  std::string directory;  // of the window
  route_file::RouteFile routes;
  std::uint32_t nhs_each = 0;      // NH indexes in each worker's share, enough for every NH of the file
  std::uint32_t tunnels_each = 0;  // tunnel indexes in each worker's share, likewise

  // The hops of worker `worker`: routes go to the workers in turn, with all their next hops.
  std::vector<route_file::Hop> part_of(std::uint32_t worker) const;

  Range nh_share(std::uint32_t worker) const {
    return {kNhStart + worker * nhs_each, kNhStart + (worker + 1) * nhs_each};
  }
  Range tunnel_share(std::uint32_t worker) const {
    return {kTunStart + worker * tunnels_each, kTunStart + (worker + 1) * tunnels_each};
  }
  // Which worker chose NH index `nh_index`, and so created the NH.
  std::uint32_t creator_of(std::uint32_t nh_index) const { return (nh_index - kNhStart) / nhs_each; }

  // Valid as long as the plan.
  encap_db_config_t database() const;
};

// Throws std::runtime_error, one sentence, when the file cannot be read, has a bad line or too few labelled routes.
Plan make_plan(const std::string &route_file, std::string directory);

}  // namespace demo

#endif
