// Entries against slots, both ways, and the tunnels' counts. docs/crash-promise.md tells which death leaves which state
// and why each is mended as it is.
#include <algorithm>
#include <cstring>
#include <unordered_map>

#include "faults.h"

namespace encap_inspect {
namespace {

bool all_zero(const void *record, std::size_t bytes) {
  const auto *byte = static_cast<const std::uint8_t *>(record);
  return std::all_of(byte, byte + bytes, [](std::uint8_t value) { return value == 0; });
}

class Entries {
 public:
  Entries(const Survey &survey, Faults *faults) : survey_(survey), db_(survey.db), out_(*faults) {}

  void run() {
    out_.nh_goes.assign(db_.nhs.size(), false);
    out_.tunnel_empty.assign(db_.tunnels.size(), false);
    out_.users.assign(db_.tunnel_slots(), 0);
    out_.tunnels_with_nhs.assign(db_.tunnel_slots(), 0);
    settled_.assign(db_.nh_slots(), false);
    is_stale_.assign(db_.tunnel_slots(), false);
    stays_.assign(db_.tunnels.size(), 0);
    index_orphans();
    for (std::uint32_t n = 0; n < db_.nhs.size(); ++n) {
      judge_node(n);
    }
    for (std::uint32_t i = 0; i < db_.nh_slots(); ++i) {
      judge_slot(db_.nh_start + i);
    }
    judge_lost_slots();
    judge_shared_indexes();
    for (std::uint32_t number = 0; number < db_.tunnels.size(); ++number) {
      judge_tunnel(number);
    }
    for (std::uint32_t i = 0; i < db_.tunnel_slots(); ++i) {
      judge_tunnel_slot(i);
    }
  }

 private:
  void add(const Fault &fault) { out_.all.push_back(fault); }

  // ------------------------------------------------------------------------------------------------------- NH nodes

  void keep(std::uint32_t n) {
    const std::uint32_t index = survey_.believed[db_.nhs[n].tunnel];
    ++out_.users[db_.tunnel_slot_number(index)];
    ++stays_[db_.nhs[n].tunnel];
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
      // A node of which the index is not yet filled in says 0: somebody else's.
      refuse(nh.nh_index == 0 ? FindingKind::kNodeWithoutSlot : FindingKind::kDuplicateIndex, n);
    } else {
      settled_[i] = true;
      judge_disagreement(n, *slot);
    }
  }

  // The slot is this node's and nobody else's, and they disagree. Nobody holds a reference while an insert fills it.
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
        is_stale_[db_.tunnel_slot_number(tunnel)] = true;
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
      ++stays_[fault.node];
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

  // ---------------------------------------------------------------------------------------------------------- tunnels

  static bool has_labels(const TunnelNode &tunnel, const egr_tun_info_t &slot) {
    return tunnel.key.out_label2 == slot.out_label2 && tunnel.key.out_label3 == slot.out_label3;
  }

  // Tunnels with other labels than the slot of their index cannot be read back, nor can their NHs be released: a tunnel
  // whose index was not stored yet says 0, and one whose slot was not filled yet has an index that seemed free. The
  // slot belongs to the tunnel whose labels it has, or else to the first; the null tunnel's to those without labels.
  void judge_shared_indexes() {
    owner_.assign(db_.tunnel_slots(), kNoNode);
    for (std::uint32_t number = 0; number < db_.tunnels.size(); ++number) {
      const std::uint32_t index = survey_.believed[number];
      if (stays_[number] != 0 && index != 0) {
        std::uint32_t &owner = owner_[db_.tunnel_slot_number(index)];
        const egr_tun_info_t &slot = *db_.tunnel_slot(index);
        const bool fits = slot.valid != 0 && has_labels(db_.tunnels[number], slot);
        owner = owner == kNoNode || (fits && !has_labels(db_.tunnels[owner], slot)) ? number : owner;
      }
    }
    for (std::uint32_t number = 0; number < db_.tunnels.size(); ++number) {
      if (stays_[number] != 0 && has_index_of_another(number)) {
        const std::uint32_t index = survey_.believed[number];
        out_.users[db_.tunnel_slot_number(index)] -= stays_[number];
        add({FindingKind::kTunnelWithoutIndex, kNoIndex, index, db_.tunnels[number].address, index, take_free_index(),
             number});
      }
    }
  }

  bool has_index_of_another(std::uint32_t number) const {
    const mpls_tunnel_key_t &key = db_.tunnels[number].key;
    const std::uint32_t index = survey_.believed[number];
    if (index == 0) {
      return key.out_label2 != 0 || key.out_label3 != 0;
    }
    const mpls_tunnel_key_t &owner = db_.tunnels[owner_[db_.tunnel_slot_number(index)]].key;
    return key.out_label2 != owner.out_label2 || key.out_label3 != owner.out_label3;
  }

  // A tunnel index that nothing in the database names, or kNoIndex. Callers tend to look for free indexes from the
  // first one on, so that the last one is the least likely to be taken at the same time.
  std::uint32_t take_free_index() {
    if (index_taken_.empty()) {
      index_taken_.assign(db_.tunnel_slots(), false);
      const auto take = [&](std::uint32_t index) {
        if (index != 0 && db_.tunnel_in_range(index)) {
          index_taken_[db_.tunnel_slot_number(index)] = true;
        }
      };
      for (std::uint32_t number = 0; number < db_.tunnels.size(); ++number) {
        take(db_.tunnels[number].egr_tun);
        take(survey_.believed[number]);
      }
      for (std::uint32_t i = 0; i < db_.nh_slots(); ++i) {
        take(db_.nh_slot(db_.nh_start + i)->egr_tun);
      }
      free_end_ = db_.tun_end;
    }
    while (free_end_ > std::max(db_.tun_start, 1U)) {
      const std::uint32_t index = --free_end_;
      const egr_tun_info_t *slot = db_.tunnel_slot(index);
      if (!index_taken_[db_.tunnel_slot_number(index)] && all_zero(slot, sizeof *slot)) {
        return index;
      }
    }
    return kNoIndex;
  }

  void judge_tunnel(std::uint32_t number) {
    const TunnelNode &tunnel = db_.tunnels[number];
    const std::uint32_t index = survey_.believed[number];
    Fault fault{FindingKind::kTunnelWithoutSlot, kNoIndex, index, tunnel.address, tunnel.egr_tun, index, number};
    out_.tunnel_empty[number] = stays_[number] == 0;
    if (!db_.tunnel_in_range(index)) {
      add(fault);
      return;
    }
    const egr_tun_info_t &slot = *db_.tunnel_slot(index);
    const auto add_as = [&](FindingKind kind) {
      fault.kind = kind;
      add(fault);
    };
    const auto *node = db_.view->record<mpls_tunnel_entry_t>(tunnel.address);
    if (node->spare != 0 || !all_zero(node->zero, sizeof node->zero)) {
      add_as(FindingKind::kNodeResidue);
    }
    if (index != tunnel.egr_tun) {
      add_as(FindingKind::kTunnelIndexMismatch);
    }
    // Index 0 and labels: a tunnel whose index was not yet filled in.
    const bool unfilled = index == 0 && (tunnel.key.out_label2 != 0 || tunnel.key.out_label3 != 0);
    if (out_.tunnel_empty[number]) {
      add_as(slot.valid != 0 && !unfilled ? FindingKind::kTunnelWithoutNh : FindingKind::kTunnelWithoutSlot);
      return;
    }
    if (has_index_of_another(number)) {
      return;
    }
    const std::uint32_t others = out_.tunnels_with_nhs[db_.tunnel_slot_number(index)]++;
    if (slot.valid == 0) {
      add_as(FindingKind::kTunnelWithoutSlot);
    } else if (index != 0 && others != 0) {
      add_as(FindingKind::kTunnelIndexShared);
    } else if (index != 0 && !has_labels(tunnel, slot)) {
      add_as(FindingKind::kTunnelSlotMismatch);
    }
  }

  void judge_tunnel_slot(std::uint32_t i) {
    const auto *slot = db_.view->record<egr_tun_info_t>(db_.tun_array + sizeof(egr_tun_info_t) * i);
    const bool null_slot = i == db_.tunnel_slots() - 1;
    const std::uint32_t index = null_slot ? 0 : db_.tun_start + i;
    const bool named = db_.tunnel_of_slot[i] != kNoNode || out_.users[i] != 0;
    Fault fault{FindingKind::kTunnelCount, kNoIndex, index, 0, slot->ref_count, out_.users[i], kNoNode};
    if (index == 0 && !null_slot) {
      return;  // ranges from 0 on: the slot in front is nobody's
    }
    if (slot->valid == 0) {
      if ((!named || null_slot) && out_.users[i] == 0 && !all_zero(slot, sizeof *slot)) {
        fault.kind = FindingKind::kTunnelSlotResidue;
        add(fault);
      }
    } else if (!named && !null_slot) {
      fault.kind = FindingKind::kTunnelSlotWithoutNode;
      add(fault);
    } else if (slot->ref_count != out_.users[i]) {
      fault.kind = null_slot ? FindingKind::kNullTunnelCount : FindingKind::kTunnelCount;
      add_count_fault(fault);
    }
    if (null_slot && out_.users[i] != 0 && (slot->out_label2 != 0 || slot->out_label3 != 0)) {
      add({FindingKind::kTunnelSlotMismatch, kNoIndex, 0});
    }
  }

  // The process that takes a count to 0 is told to take the tunnel out of the hardware. If one NH is left then, its
  // removal was cut off after it had lowered the count; or its insert was, before it raised it; or another process
  // released the index of a process that died, so that a count went down twice. Only without users is it clear that
  // the NH goes. With several NHs left the count is more likely to be damaged.
  void add_count_fault(Fault &fault) {
    const std::uint32_t i = db_.tunnel_slot_number(fault.tunnel);
    const std::uint32_t owner = fault.tunnel == 0 ? kNoNode : owner_[i];
    if (fault.found == 0 && fault.wanted == 1 && owner != kNoNode && stays_[owner] == 1 && !is_stale_[i]) {
      const TunnelNode &tunnel = db_.tunnels[owner];
      for (std::uint32_t n = tunnel.first_nh; n < tunnel.first_nh + tunnel.nh_count; ++n) {
        if (!out_.nh_goes[n]) {
          fault.nh_index = db_.nhs[n].nh_index;
          fault.node = n;
          fault.address = db_.nhs[n].address;
          const bool unused = db_.nh_slot(fault.nh_index)->ref_count == 0;
          fault.kind = unused ? FindingKind::kTunnelGivenBack : FindingKind::kTunnelInDoubt;
        }
      }
    }
    add(fault);
  }

  const Survey &survey_;
  const Database &db_;
  Faults &out_;
  std::vector<bool> settled_;                                       // by NH slot: its node is judged, and it with it
  std::vector<std::uint32_t> stays_;                                // by tunnel node: NHs that stay or come back
  std::vector<std::uint32_t> lost_;                                 // indexes of valid slots without a node
  std::unordered_multimap<std::uint32_t, std::size_t> orphan_nhs_;  // by the index in the node
  std::unordered_multimap<std::uint64_t, std::uint32_t> homes_;     // by tunnel index and interface
  std::vector<bool> adopted_;                                       // by orphan
  std::vector<bool> is_stale_;        // by tunnel slot: a removal of one of its NHs left the NH's slot behind
  std::vector<std::uint32_t> owner_;  // by tunnel slot: number of the tunnel node that its labels belong to
  std::vector<bool> index_taken_;     // by tunnel slot: a node or an NH's slot names it; empty: not yet looked
  std::uint32_t free_end_ = 0;        // take_free_index() has looked at this index and all behind it
};

}  // namespace

void find_entry_faults(const Survey &survey, Faults *faults) {
  Entries(survey, faults).run();
}

}  // namespace encap_inspect
