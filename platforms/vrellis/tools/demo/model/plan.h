// What every process of the demo works out from the route file by itself: the database, and who enters what.
#ifndef ENCAP_DEMO_PLAN_H
#define ENCAP_DEMO_PLAN_H

#include <cstdint>
#include <string>
#include <vector>

#include "encap_client.h"
#include "route_file.h"

namespace demo {

inline constexpr std::uint32_t kA = 0;  // the worker that is killed
inline constexpr std::uint32_t kB = 1;
inline constexpr std::uint32_t kWorkers = 2;
inline constexpr const char *kWindowName = "window";
inline constexpr const char *kClientNames[] = {"worker-A", "worker-B", "supervisor"};

struct Plan {
  std::string directory;  // of the window
  std::string route_file;
  route_file::RouteFile routes;

  // The hops of a worker: routes go to the workers in turn, with all their next hops.
  std::vector<route_file::Hop> part_of(std::uint32_t worker) const;

  // Opens the client of a name. Throws std::runtime_error, one sentence.
  encap_client_t *open(const char *name) const;
};

// Throws std::runtime_error, one sentence, when the file cannot be read, has a bad line or too few labelled routes.
Plan make_plan(const std::string &route_file, std::string directory);

}  // namespace demo

#endif
