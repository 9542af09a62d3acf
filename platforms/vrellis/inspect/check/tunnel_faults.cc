// Tunnel nodes against tunnel slots, and the tunnels' counts, once it is known which NHs stay.
#include <algorithm>

#include "faults.h"

namespace encap_inspect {
namespace {

class Tunnels {
 public:
  Tunnels(const Survey &survey, Faults *faults) : survey_(survey), db_(survey.db), out_(*faults) {}

  void run() {
    out_.tunnel_empty.assign(db_.tunnels.size(), false);
    out_.tunnels_with_nhs.assign(db_.tunnel_slots(), 0);
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

  // Tunnels with other labels than the slot of their index cannot be read back, nor can their NHs be released: a tunnel
  // whose index was not stored yet says 0, and one whose slot was not filled yet has an index that seemed free. The
  // slot belongs to the tunnel whose labels it has, or else to the first; the null tunnel's to those without labels.
  void judge_shared_indexes() {
    owner_.assign(db_.tunnel_slots(), kNoNode);
    for (std::uint32_t number = 0; number < db_.tunnels.size(); ++number) {
      const std::uint32_t index = survey_.believed[number];
      if (out_.stays[number] != 0 && index != 0) {
        std::uint32_t &owner = owner_[db_.tunnel_slot_number(index)];
        const egr_tun_info_t &slot = *db_.tunnel_slot(index);
        const bool fits = slot.valid != 0 && has_labels(db_.tunnels[number], slot);
        owner = owner == kNoNode || (fits && !has_labels(db_.tunnels[owner], slot)) ? number : owner;
      }
    }
    for (std::uint32_t number = 0; number < db_.tunnels.size(); ++number) {
      if (out_.stays[number] != 0 && has_index_of_another(number)) {
        const std::uint32_t index = survey_.believed[number];
        out_.users[db_.tunnel_slot_number(index)] -= out_.stays[number];
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
    out_.tunnel_empty[number] = out_.stays[number] == 0;
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
      return;  // the range begins at 0, and index 0 has the null tunnel's slot: no tunnel uses this one
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
    if (fault.found == 0 && fault.wanted == 1 && owner != kNoNode && out_.stays[owner] == 1 && !out_.is_stale[i]) {
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
  std::vector<std::uint32_t> owner_;  // by tunnel slot: number of the tunnel node that its labels belong to
  std::vector<bool> index_taken_;     // by tunnel slot: a node or an NH's slot names it; empty: not yet looked
  std::uint32_t free_end_ = 0;        // take_free_index() has looked at this index and all behind it
};

}  // namespace

void find_tunnel_faults(const Survey &survey, Faults *faults) {
  Tunnels(survey, faults).run();
}

}  // namespace encap_inspect
