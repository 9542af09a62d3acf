// The database as it stands, and its comparison with the model.
#ifndef ENCAP_DEMO_SNAPSHOT_H
#define ENCAP_DEMO_SNAPSHOT_H

#include <cstdint>
#include <map>

#include "model.h"
#include "plan.h"
#include "report.h"
#include "shmwin.h"

namespace demo {

struct Snapshot {
  struct Nh {
    std::uint32_t nh_index;
    std::uint32_t egr_tun;
    std::uint32_t ref_count;
  };
  std::map<Key, Nh> nhs;
  std::map<std::uint32_t, std::uint32_t> tunnels;  // ref_count by tunnel index, valid slots; not the null tunnel
  std::uint32_t valid_nh_slots = 0;
  std::uint32_t dirty_slots = 0;  // neither valid nor all zero
  egr_tun_info_t null_tunnel{};
  bool tunnel_tree_empty = false;
  shmwin_stat_t usage{};
};

// Reads the database in one hold of its lock.
Snapshot take_snapshot();

// Compares every NH, every tunnel, every count and the blocks of the window.
void compare(const Snapshot &seen, const Model &model, Report &report);

// Nothing left: no NH, no tunnel, no node, both arrays zero but for the null tunnel slot, which stays valid with no NH
// once it was used.
void expect_empty(const Snapshot &seen, bool null_tunnel_was_used, Report &report);

// The NHs with the most references, at most `rows`.
void print_table(const Snapshot &seen, const Model &model, const Plan &plan, std::size_t rows, Report &report);

}  // namespace demo

#endif
