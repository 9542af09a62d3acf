#include "plan.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <fstream>
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

encap_client_t *Plan::open(const char *name) const {
  encap_client_config_t config{};
  config.name = name;
  config.database.directory = directory.c_str();
  config.database.name = kWindowName;
  config.database.shm_id = 1;
  config.database.nh_start = 1000;
  config.database.nh_size = static_cast<std::uint32_t>(routes.hops.size());
  config.database.tun_start = 100;
  config.database.tun_size = static_cast<std::uint32_t>(routes.hops.size());
  encap_client_t *client = nullptr;
  shmwin_error_t error{};
  if (encap_client_open(&config, &client, &error) != 0) {
    throw std::runtime_error(error.text);
  }
  return client;
}

Plan make_plan(const std::string &route_file, std::string directory) {
  std::ifstream in(route_file);
  if (!in.is_open()) {
    throw std::runtime_error(fmt::format("{}: {}", route_file, std::strerror(errno)));
  }
  Plan plan{std::move(directory), route_file, route_file::read_routes(in)};
  if (!plan.routes.faults.empty()) {
    throw std::runtime_error(fmt::format("{}: {}", route_file, sentence(plan.routes.faults.front())));
  }
  if (plan.routes.labelled_routes < kMinRoutes) {
    throw std::runtime_error(fmt::format("{}: {} routes with an MPLS encapsulation are too few; the demo needs {}",
                                         route_file, plan.routes.labelled_routes, kMinRoutes));
  }
  return plan;
}

}  // namespace demo
