// NH nodes against NH slots, both ways. docs/crash-promise.md tells which death leaves which state, and why each is
// mended as it is.
#include <algorithm>
#include <cstring>
#include <unordered_map>

#include "faults.h"

namespace encap_inspect {
namespace {

class Entries {
 public:
  Entries(const Survey &survey, Faults *faults) : survey_(survey), db_(survey.db), out_(*faults) {}

  void run() {
    out_.nh_goes.assign(db_.nhs.size(), false);
    out_.users.assign(db_.tunnel_slots(), 0);
    settled_.assign(db_.nh_slots(), false);
    out_.is_stale.assign(db_.tunnel_slots(), false);
    out_.stays.assign(db_.tunnels.size(), 0);
    index_orphans();
    for (std::uint32_t n = 0; n < db_.nhs.size(); ++n) {
      judge_node(n);
    }
    for (std::uint32_t i = 0; i < db_.nh_slots(); ++i) {
      judge_slot(db_.nh_start + i);
    }
    judge_lost_slots();
  }

 private:
  void add(const Fault &fault) { out_.all.push_back(fault); }

  // ------------------------------------------------------------------------------------------------------- NH nodes

  void keep(std::uint32_t n) {
    const std::uint32_t index = survey_.believed[db_.nhs[n].tunnel];
    ++out_.users[db_.tunnel_slot_number(index)];
    ++out_.stays[db_.nhs[n].tunnel];
  }

  void refuse(FindingKind kind, std::uint32_t n) {
    const NhNode &nh = db_.nhs[n];
    out_.nh_goes[n] = true;
    add({kind, nh.nh_index, survey_.believed[nh.tunnel], nh.address, 0, 0, n});
  }

  void judge_node(std::uint32_t n) {
    const NhNode &nh = db_.nhs[n];
    const egr_nh_info_t *slot = db_.nh_slot(nh.nh_index);
    const bool has_tunnel = db_.tunnel_in_range(survey_.believed[nh.tunnel]);
    if (slot == nullptr || all_zero(slot, sizeof *slot)) {
      refuse(FindingKind::kNodeWithoutSlot, n);
      return;
    }
    const std::uint32_t i = nh.nh_index - db_.nh_start;
    if (db_.node_of_slot[i] == n && has_tunnel) {
      settled_[i] = true;
      keep(n);
      judge_sound(n, *slot);
    } else if (survey_.nh_tree_broken[nh.tunnel] || !has_tunnel) {
      out_.nh_goes[n] = true;  // its tree is rebuilt without it; its slot, if it has one, is judged by itself
      if (!has_tunnel) {
        refuse(FindingKind::kNodeWithoutSlot, n);
      }
    } else if (db_.node_of_slot[i] != kNoNode || settled_[i]) {
      // The index of a node is 0 until the insert fills it in. Slot 0 then belongs to another node.
      refuse(nh.nh_index == 0 ? FindingKind::kNodeWithoutSlot : FindingKind::kDuplicateIndex, n);
    } else {
      settled_[i] = true;
      judge_disagreement(n, *slot);
    }
  }

  // The slot belongs to this node alone, and they disagree. An NH has no references while an insert fills its slot.
  void judge_disagreement(std::uint32_t n, const egr_nh_info_t &slot) {
    if (slot.valid == 0 || slot.ref_count == 0) {
      refuse(FindingKind::kSlotHalfFilled, n);
      return;
    }
    const NhNode &nh = db_.nhs[n];
    keep(n);
    add({FindingKind::kSlotNodeMismatch, nh.nh_index, survey_.believed[nh.tunnel], nh.address, 0, 0, n});
  }

  void judge_sound(std::uint32_t n, const egr_nh_info_t &slot) {
    const NhNode &nh = db_.nhs[n];
    if (slot.ref_count == 0) {
      add({FindingKind::kNhCountZero, nh.nh_index, slot.egr_tun, nh.address, 0, 0, n});
    }
    const auto *node = db_.view->record<mpls_nh_entry_t>(nh.address);
    if (node->spare != 0) {
      add({FindingKind::kNodeResidue, nh.nh_index, slot.egr_tun, nh.address, 0, 0, kNoNode});
    }
  }

  // ------------------------------------------------------------------------------------------- NH slots without nodes

  void judge_slot(std::uint32_t nh_index) {
    const egr_nh_info_t *slot = db_.nh_slot(nh_index);
    if (settled_[nh_index - db_.nh_start] || all_zero(slot, sizeof *slot)) {
      return;
    }
    if (slot->valid == 0) {
      add({FindingKind::kSlotResidue, nh_index});
    } else if (!db_.tunnel_in_range(slot->egr_tun)) {
      add({FindingKind::kSlotWithoutNode, nh_index, slot->egr_tun});
    } else {
      lost_.push_back(nh_index);
    }
  }

  void index_orphans() {
    for (std::size_t i = 0; i < survey_.orphans.size(); ++i) {
      const Orphan &orphan = survey_.orphans[i];
      if (orphan.cls == 0) {
        const auto *node = db_.view->record<mpls_nh_entry_t>(orphan.address);
        orphan_nhs_.emplace(node->nh_index, i);
      }
    }
    adopted_.assign(survey_.orphans.size(), false);
  }

  // The unreachable node that can only be this slot's; SIZE_MAX when there is none.
  std::size_t orphan_of(std::uint32_t nh_index) const {
    const egr_nh_info_t *slot = db_.nh_slot(nh_index);
    const auto [first, last] = orphan_nhs_.equal_range(nh_index);
    for (auto it = first; it != last; ++it) {
      const auto *node = db_.view->record<mpls_nh_entry_t>(survey_.orphans[it->second].address);
      if (same_key(node->key, *slot)) {
        return it->second;
      }
    }
    return SIZE_MAX;
  }

  // True if the slot's node is in use and is not reached since its tree is broken.
  bool is_out_of_reach(std::uint32_t nh_index) {
    const std::uint32_t home = home_of(*db_.nh_slot(nh_index));
    const bool broken = survey_.tunnel_tree_broken || (home != kNoNode && survey_.nh_tree_broken[home]);
    return broken && orphan_of(nh_index) != SIZE_MAX;
  }

  // A removal lowers its tunnel's count before it takes the node out. So a slot that its tunnel still counts lost its
  // node in another way: its tree was broken, or a rebuild of the tree was cut off. Such NHs come back, as do those of
  // trees that are broken now. The other slots are cleared.
  void judge_lost_slots() {
    const auto tunnel_of = [&](std::uint32_t nh_index) { return db_.nh_slot(nh_index)->egr_tun; };
    std::stable_sort(lost_.begin(), lost_.end(), [&](std::uint32_t a, std::uint32_t b) {
      const std::uint16_t one = tunnel_of(a);
      const std::uint16_t other = tunnel_of(b);
      return one != other ? one < other : (orphan_of(a) != SIZE_MAX && orphan_of(b) == SIZE_MAX);
    });
    for (const std::uint32_t nh_index : lost_) {
      const std::uint32_t tunnel = tunnel_of(nh_index);
      std::uint32_t &users = out_.users[db_.tunnel_slot_number(tunnel)];
      if (db_.tunnel_slot(tunnel)->ref_count <= users && !is_out_of_reach(nh_index)) {
        out_.is_stale[db_.tunnel_slot_number(tunnel)] = true;
        add({FindingKind::kSlotWithoutNode, nh_index, tunnel});
        continue;
      }
      ++users;
      bring_back(nh_index, tunnel);
    }
  }

  void bring_back(std::uint32_t nh_index, std::uint32_t tunnel) {
    const std::size_t orphan = orphan_of(nh_index);
    Fault fault{FindingKind::kTreeLost, nh_index, tunnel};
    fault.node = home_of(*db_.nh_slot(nh_index));
    if (fault.node != kNoNode) {
      ++out_.stays[fault.node];
    }
    if (orphan != SIZE_MAX && !adopted_[orphan]) {
      adopted_[orphan] = true;
      fault.address = survey_.orphans[orphan].address;
    }
    add(fault);
  }

  // The tunnel node that an NH's slot names, among those in the tree: on the null tunnel best the one of its labels.
  std::uint32_t home_of(const egr_nh_info_t &slot) {
    if (homes_.empty()) {
      for (std::uint32_t number = 0; number < db_.tunnels.size(); ++number) {
        homes_.emplace(std::uint64_t{survey_.believed[number]} << 32 | db_.tunnels[number].key.ifh, number);
      }
    }
    const auto [first, last] = homes_.equal_range(std::uint64_t{slot.egr_tun} << 32 | slot.ifh);
    std::uint32_t home = kNoNode;
    for (auto it = first; it != last; ++it) {
      if (home == kNoNode || has_labels(db_.tunnels[it->second], *db_.tunnel_slot(slot.egr_tun))) {
        home = it->second;
      }
    }
    return home;
  }

  const Survey &survey_;
  const Database &db_;
  Faults &out_;
  std::vector<bool> settled_;                                       // by NH slot: its node is judged, and it with it
  std::vector<std::uint32_t> lost_;                                 // indexes of valid slots without a node
  std::unordered_multimap<std::uint32_t, std::size_t> orphan_nhs_;  // by the index in the node
  std::unordered_multimap<std::uint64_t, std::uint32_t> homes_;     // by tunnel index and interface
  std::vector<bool> adopted_;                                       // by orphan
};

}  // namespace

void find_entry_faults(const Survey &survey, Faults *faults) {
  Entries(survey, faults).run();
  find_tunnel_faults(survey, faults);
}

void find_client_faults(const Survey &survey, Faults *faults) {
  if (survey.clients_damaged) {
    faults->all.push_back({FindingKind::kClientsDamaged, kNoIndex, kNoIndex, 0, 0, 0, kNoNode});
    return;
  }
  const Database &db = survey.db;
  for (std::uint32_t i = 0; i < survey.client_references.size(); ++i) {
    const egr_nh_info_t *const slot = db.nh_slot(db.nh_start + i);
    const std::uint64_t held = survey.client_references[i];
    if (held > (slot->valid != 0 ? slot->ref_count : 0)) {
      faults->all.push_back({FindingKind::kLedgerCount, db.nh_start + i, kNoIndex, 0, slot->ref_count, held, kNoNode});
    }
  }
}

}  // namespace encap_inspect
