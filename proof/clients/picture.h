// What a database and its clients are, apart from where it lies: so that a state after a death can be compared with the
// states before and after a call.
#ifndef ENCAP_PROOF_CLIENTS_PICTURE_H
#define ENCAP_PROOF_CLIENTS_PICTURE_H

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "model/model.h"
#include "support/window.h"

namespace client_proof {

struct Picture {
  std::map<std::string, std::map<std::uint32_t, std::pair<std::uint32_t, std::uint32_t>>>
      held;  // name, NH: held, stale
  std::map<encap_test::TunnelKey, encap_test::Tunnel> trees;
  std::string slots;  // the bytes of both arrays
  std::vector<std::uint32_t> waiting_nhs, waiting_tunnels;
  std::uint32_t fresh_nh = 0, fresh_tunnel = 0;
  std::set<std::string> taken;  // names that a process has
  std::string wrong;            // where a ledger is in conflict with itself
  // References of processes without a client, by NH; draw() knows none.
  std::map<std::uint32_t, std::uint32_t> others;

  bool operator==(const Picture &) const = default;
};

// Draws this process's database. Requires that nothing changes it meanwhile and that it is settled.
Picture draw();

// What must be true of the queues of free indexes.
enum class Queues : std::uint8_t {
  kWhole,         // an index is free or in use, and never both
  kMayLose,       // an index may be lost to the queue, as when no memory was left to put it there
  kOthersChoose,  // processes without a client take indexes and give them back as they like
};

// What the inspector finds in the window, and what the picture says against itself: indexes that are both
// free and in use or neither, ledgers that do not add up to the counts (these unless `which` is kBlocks). Returns: some
// sentences, or "".
std::string contradiction(const Picture &picture, const crash::Window &window, Queues queues = Queues::kWhole,
                          crash::Findings which = crash::Findings::kAll);

// How two pictures differ, for a person.
std::string difference(const Picture &a, const Picture &b);

}  // namespace client_proof

#endif
