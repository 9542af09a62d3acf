// What check and repair work on: the decoded database, and beside it what did not hold while it was decoded. For the
// inspector alone.
#ifndef ENCAP_INSPECT_SURVEY_H
#define ENCAP_INSPECT_SURVEY_H

#include <algorithm>
#include <vector>

#include "database.h"
#include "finding_kind.h"
#include "shmwin/heap/node_class.h"

namespace encap_inspect {

// Something in a tree that cannot be: the tree is broken. `tree`: number of the tunnel node whose NH tree it is,
// kNoNode for the tunnel tree.
struct Flaw {
  FindingKind kind;
  std::uint32_t tree;
  Address address;
};

// A block in use that no tree reaches.
struct Orphan {
  Address address;
  int cls;  // 0: an NH's 40 bytes, 1: a tunnel's 56
};

// The nodes that trees reach in one page, and an array as large as a node.
struct Reached {
  std::uint64_t nodes[2] = {};
  std::int8_t cls = -1;  // all of one class: a node of the other cannot be
};

struct PageRange {
  std::uint32_t begin = 0, end = 0;
  bool has(std::uint32_t page) const { return page >= begin && page < end; }
};

struct Survey {
  Database db;
  vrellis::WindowShape shape;
  vrellis::Heap heap;            // of the view's bytes: never written through
  PageRange arrays[2];           // heap pages of the NH and of the tunnel array; empty: it is in a node's block
  std::vector<Reached> reached;  // by page
  std::vector<Orphan> orphans;   // in the order of addresses
  std::vector<Flaw> flaws;
  std::vector<bool> client_page;                 // by page: a whole page that clients refer to
  std::vector<std::uint64_t> client_references;  // by NH slot: what the ledgers of all clients name; empty: no client
  bool clients_damaged = false;                  // what the clients refer to cannot be followed
  bool tunnel_tree_broken = false;
  std::vector<bool> nh_tree_broken;     // by tunnel node
  std::vector<std::uint32_t> believed;  // by tunnel node: its index, or the one that all its NHs' slots have instead

  const View &view() const { return *db.view; }
  Address address_of(std::uint32_t page, std::uint64_t offset) const {
    return db.window.address + shape.heap + page * vrellis::kPageBytes + offset;
  }
  const vrellis::PageSet &page_set(std::uint32_t number) const { return number < 2 ? heap.room[number] : heap.free; }
  bool any_tree_broken() const { return !flaws.empty(); }
};

// Decodes and tests the header; survey() also the rest, when the header is sound.
Survey survey_header(const View &view);
Survey survey(const View &view);

// Whether a node's key is the slot's, which lacks the spare bits.
inline bool same_key(const mpls_nh_key_t &key, const egr_nh_info_t &slot) {
  return key.out_label1 == slot.out_label1 && key.te_local_label == slot.te_local_label &&
         key.is_failover_nh == slot.is_failover_nh && key.protocol == slot.protocol &&
         key.is_l2vpn_pref_path == slot.is_l2vpn_pref_path;
}

inline bool has_labels(const TunnelNode &tunnel, const egr_tun_info_t &slot) {
  return tunnel.key.out_label2 == slot.out_label2 && tunnel.key.out_label3 == slot.out_label3;
}

inline bool all_zero(const void *record, std::size_t bytes) {
  const auto *byte = static_cast<const std::uint8_t *>(record);
  return std::all_of(byte, byte + bytes, [](std::uint8_t value) { return value == 0; });
}

// The place of a node of the class that begins at `address`; the use of the page is not looked at. Returns: false when
// none can begin there.
bool place_in_heap(const Survey &survey, Address address, int cls, vrellis::Place *place);

// Where a node of the class could begin: its page and its slot in it. Returns: false when none can begin there.
bool find_place(const Survey &survey, Address address, int cls, vrellis::Place *place);

enum class Claim { kNew, kOutside, kAgain };

// Enters the node of the class at `address` into `reached`.
Claim reach_node(Survey &survey, Address address, int cls);

// Enters the blocks of clients, and what their ledgers name.
void survey_clients(Survey &survey);

// Walks the tree whose root field lies at `field`, in key order. Each node is entered into `reached`, none twice.
// What cannot be followed is not; each flaw is entered. Appends the nodes' addresses.
void walk_tree(Survey &survey, Address field, int cls, std::uint32_t tree, std::vector<Address> *nodes);

}  // namespace encap_inspect

#endif
