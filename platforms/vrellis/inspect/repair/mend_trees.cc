// Trees rebuilt from their nodes, and nodes brought back into them.
#include "avl/undo/versions.h"
#include "mend.h"
#include "shmwin.h"

namespace encap_inspect {
namespace {

template <typename Entry>
Entry *new_node(std::uint32_t shm_id) {
  void *block = nullptr;
  if (shmwin_malloc(shm_id, sizeof(Entry), &block) != 0 || block == nullptr) {
    return nullptr;
  }
  std::memset(block, 0, sizeof(Entry));
  return static_cast<Entry *>(block);
}

}  // namespace

// The root field goes first: from then on the tree is empty and sound, and every node enters it by an insert.
void Mender::rebuild_broken_trees() {
  for (const Flaw &flaw : survey_.flaws) {
    const std::uint32_t tunnel = flaw.tree == kNoNode ? kNoIndex : survey_.believed[flaw.tree];
    const Fault fault{flaw.kind, kNoIndex, tunnel, flaw.address};
    changes_.push_back({flaw.kind, kNoIndex, tunnel, flaw.address, mending_of(fault)});
  }
  if (deed_ == Deed::kRehearse) {
    return;
  }
  int flag = 0;
  for (std::uint32_t number = 0; number < db_.tunnels.size(); ++number) {
    if (!survey_.nh_tree_broken[number]) {
      continue;
    }
    const TunnelNode &tunnel = db_.tunnels[number];
    tunnel_node(number)->nh_root = nullptr;
    end_of_step();
    for (std::uint32_t n = tunnel.first_nh; n < tunnel.first_nh + tunnel.nh_count; ++n) {
      if (!faults_.nh_goes[n]) {
        avl_insert(&tunnel_node(number)->nh_root, writable<mpls_nh_entry_t>(survey_, db_.nhs[n].address), &flag,
                   kCompareNhs);
      }
    }
  }
  if (survey_.tunnel_tree_broken) {
    // A client remembers the root for as long as the tree's version stays.
    const auto window = reinterpret_cast<Address>(survey_.view().bytes().data());
    auto *const version = vrellis::avl::version_of(window, reinterpret_cast<Address>(tunnel_root()));
    vrellis::avl::begin_version(version);
    *tunnel_root() = nullptr;
    vrellis::avl::end_version(version);
    end_of_step();
    for (std::uint32_t number = 0; number < db_.tunnels.size(); ++number) {
      avl_insert(tunnel_root(), tunnel_node(number), &flag, kCompareTunnels);
    }
  }
}

// The tunnel node for an NH that comes back: the one found, or one that nothing reaches, or a new one of the key that
// the slots give.
mpls_tunnel_entry_t *Mender::home_of(const egr_nh_info_t &slot, std::uint32_t number) {
  if (number != kNoNode) {
    return tunnel_node(number);
  }
  const egr_tun_info_t *tunnel = db_.tunnel_slot(slot.egr_tun);
  mpls_tunnel_entry_t probe{};
  probe.key.out_label2 = tunnel->out_label2;
  probe.key.out_label3 = tunnel->out_label3;
  probe.key.ifh = slot.ifh;
  void *found = avl_search(*tunnel_root(), &probe, kCompareTunnels);
  if (found != nullptr) {
    return static_cast<mpls_tunnel_entry_t *>(found);
  }
  auto *node = new_node<mpls_tunnel_entry_t>(db_.window.shm_id);
  if (node == nullptr) {
    return nullptr;
  }
  node->key = probe.key;
  node->egr_tun = slot.egr_tun;
  int flag = 0;
  return avl_insert(tunnel_root(), node, &flag, kCompareTunnels) != nullptr ? node : nullptr;
}

// When the tree has its key already the slot is a second one of one NH, and goes; with no memory it waits.
void Mender::bring_back(const Fault &fault) {
  egr_nh_info_t *slot = nh_slot(fault.nh_index);
  mpls_tunnel_entry_t *home = home_of(*slot, fault.node);
  if (home == nullptr) {
    waits_ = true;
    return;
  }
  auto *node = fault.address != 0 ? writable<mpls_nh_entry_t>(survey_, fault.address)
                                  : new_node<mpls_nh_entry_t>(db_.window.shm_id);
  if (node == nullptr) {
    waits_ = true;
    return;
  }
  if (fault.address == 0) {
    node->nh_index = fault.nh_index;
    node->key.out_label1 = slot->out_label1;
    node->key.te_local_label = slot->te_local_label;
    node->key.is_failover_nh = slot->is_failover_nh;
    node->key.protocol = slot->protocol;
    node->key.is_l2vpn_pref_path = slot->is_l2vpn_pref_path;
  }
  end_of_step();
  int flag = 0;
  if (avl_insert(&home->nh_root, node, &flag, kCompareNhs) == nullptr) {
    std::memset(slot, 0, sizeof *slot);
  }
}

}  // namespace encap_inspect
