#include "plan.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <set>
#include <stdexcept>
#include <utility>

namespace demo {
namespace {

// So that each worker has a route left in each quarter of its part.
constexpr std::uint32_t kMinRoutes = 4 * kWorkers;

}  // namespace

std::vector<route_file::Hop> Plan::part_of(std::uint32_t worker) const {
  std::vector<route_file::Hop> part;
  for (const route_file::Hop &hop : routes.hops) {
    if (hop.route % kWorkers == worker) {
      part.push_back(hop);
    }
  }
  return part;
}

encap_db_config_t Plan::database() const {
  encap_db_config_t config{};
  config.directory = directory.c_str();
  config.name = kWindowName;
  config.shm_id = 1;
  config.nh_start = kNhStart;
  config.nh_size = kWorkers * nhs_each;
  config.tun_start = kTunStart;
  config.tun_size = kWorkers * tunnels_each;
  return config;
}

Plan make_plan(const std::string &route_file, std::string directory) {
  std::ifstream in(route_file);
  if (!in.is_open()) {
    throw std::runtime_error(fmt::format("{}: {}", route_file, std::strerror(errno)));
  }
  Plan plan{.directory = std::move(directory), .routes = route_file::read_routes(in)};
  if (!plan.routes.faults.empty()) {
    throw std::runtime_error(fmt::format("{}: {}", route_file, sentence(plan.routes.faults.front())));
  }
  if (plan.routes.hops.empty()) {
    throw std::runtime_error(fmt::format("{}: no route with an MPLS encapsulation", route_file));
  }
  if (plan.routes.labelled_routes < kMinRoutes) {
    throw std::runtime_error(fmt::format("{}: {} routes with an MPLS encapsulation are too few; the demo needs {}",
                                         route_file, plan.routes.labelled_routes, kMinRoutes));
  }
  std::set<Key> keys;
  std::set<Tunnel> tunnels;
  for (const route_file::Hop &hop : plan.routes.hops) {
    keys.insert(key_of(route_file::key_of(hop)));
    tunnels.insert(tunnel_of(*keys.find(key_of(route_file::key_of(hop)))));
  }
  plan.nhs_each = static_cast<std::uint32_t>(keys.size());
  plan.tunnels_each = static_cast<std::uint32_t>(tunnels.size());
  return plan;
}

}  // namespace demo
