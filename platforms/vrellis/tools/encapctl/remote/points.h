// The debug points of the database library in another process: their descriptors, read and switched from here.
#ifndef ENCAPCTL_REMOTE_POINTS_H
#define ENCAPCTL_REMOTE_POINTS_H

#include <cstdint>
#include <vector>

#include "ed.h"
#include "remote/process.h"

namespace encapctl {

struct RemotePoint {
  std::uint64_t address = 0;  // of its descriptor there
  ed_point_t row{};           // as a query sees it
};

// The points of the catalogue as they are stored, and no process at all.
std::vector<ed_point_t> catalogue_points();

// Walks the chain of descriptors, testing each, by ascending id. Throws Failure when the process cannot be looked into,
// has no such library, or its chain is not one that this command knows.
std::vector<RemotePoint> read_points(const RemoteProcess &process);

struct Switched {
  std::size_t selected = 0;            // points that a statement of the query named
  std::vector<std::uint32_t> changed;  // ids of those whose flags it changed
};

// Applies a query (ed.h) to the points: all of its statements or, with a mistake in one, none. Throws Failure with the
// place of the mistake and the names that were perhaps meant.
Switched switch_points(const RemoteProcess &process, std::vector<RemotePoint> &points, const std::string &query);

}  // namespace encapctl

#endif
