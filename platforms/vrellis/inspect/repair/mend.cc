// Entries, slots and counts, made right one by one.
#include "mend.h"

#include "shmwin.h"

namespace encap_inspect {

// Counts are set before a tree is taken apart: from then on they tell the next repair, should this one die, which slots
// are to have a node.
const Mender::Step Mender::kBeforeTrees[] = {
    {FindingKind::kHeapPage, &Mender::in_heap<mend_page>},
    {FindingKind::kBlockNotTaken, &Mender::in_heap<mend_block_not_taken>},
    {FindingKind::kHeapHint, &Mender::in_heap<mend_hint>},
    {FindingKind::kSlotWithoutNode, &Mender::clear_nh_slot},
    {FindingKind::kSlotResidue, &Mender::clear_nh_slot},
    {FindingKind::kTunnelSlotResidue, &Mender::clear_tunnel_slot},
    {FindingKind::kNodeWithoutSlot, &Mender::take_out_nh},
    {FindingKind::kDuplicateIndex, &Mender::take_out_nh},
    {FindingKind::kSlotHalfFilled, &Mender::take_out_half_filled},
    {FindingKind::kTunnelIndexMismatch, &Mender::rewrite_tunnel_index},
    {FindingKind::kSlotNodeMismatch, &Mender::rewrite_nh_slot},
    {FindingKind::kTunnelSlotMismatch, &Mender::rewrite_labels},
    {FindingKind::kTunnelCount, &Mender::set_count},
    {FindingKind::kNullTunnelCount, &Mender::set_count},
    {FindingKind::kNodeResidue, &Mender::zero_residue},
};

const Mender::Step Mender::kBehindTrees[] = {
    {FindingKind::kTreeLost, &Mender::bring_back},
    {FindingKind::kTunnelWithoutSlot, &Mender::mend_tunnel},
    {FindingKind::kTunnelWithoutIndex, &Mender::move_tunnel},
    {FindingKind::kTunnelGivenBack, &Mender::take_out_given_back},
    {FindingKind::kTunnelInDoubt, &Mender::set_count},
    {FindingKind::kNhCountZero, &Mender::drop_nh},
    {FindingKind::kTunnelWithoutNh, &Mender::take_out_tunnel},
    {FindingKind::kTunnelSlotWithoutNode, &Mender::clear_tunnel_slot},
    {FindingKind::kBlockUnreachable, &Mender::free_block},
    {FindingKind::kHeapCount, &Mender::in_heap<mend_page_count>},
};

// Once a tree was broken nothing else is certain: what is behind waits for the next round.
void Mender::run() {
  work_through(kBeforeTrees);
  if (survey_.any_tree_broken()) {
    rebuild_broken_trees();
  } else {
    work_through(kBehindTrees);
  }
}

template <std::size_t Count>
void Mender::work_through(const Step (&steps)[Count]) {
  for (const Step &step : steps) {
    for (const Fault &fault : faults_.all) {
      if (fault.kind == step.kind && is_wanted(fault)) {
        work_off(fault, step.mend);
      }
    }
  }
}

void Mender::work_off(Fault fault, Mend mend) {
  waits_ = false;
  if (fault.kind == FindingKind::kTunnelInDoubt && options_.drop_given_back) {
    fault.kind = FindingKind::kTunnelGivenBack;
    mend = &Mender::take_out_given_back;
  }
  if (deed_ == Deed::kMend) {
    (this->*mend)(fault);
    end_of_step();
  }
  if (!waits_) {
    changes_.push_back({fault.kind, fault.nh_index, fault.tunnel, fault.address, mending_of(fault)});
  }
}

bool Mender::is_wanted(const Fault &fault) const {
  if (fault.kind == FindingKind::kNhCountZero) {
    return options_.drop_unreferenced;
  }
  return fault.kind != FindingKind::kTunnelWithoutNh || !options_.keep_empty_tunnels;
}

// ------------------------------------------------------------------------------------------------------------- entries

// A broken tree is rebuilt without the node, which nothing reaches then.
void Mender::take_out_nh(const Fault &fault) {
  const std::uint32_t tunnel = db_.nhs[fault.node].tunnel;
  if (survey_.nh_tree_broken[tunnel]) {
    return;
  }
  auto *node = writable<mpls_nh_entry_t>(survey_, fault.address);
  int flag = 0;
  if (avl_delete(&tunnel_node(tunnel)->nh_root, node, &flag, kCompareNhs) != nullptr) {
    end_of_step();
    shmwin_free(node);
  }
}

void Mender::take_out_half_filled(const Fault &fault) {
  take_out_nh(fault);
  end_of_step();
  clear_nh_slot(fault);
}

// As the library does it: the count first.
void Mender::drop_nh(const Fault &fault) {
  egr_tun_info_t *slot = tunnel_slot(fault.tunnel);
  slot->ref_count -= slot->ref_count != 0 ? 1 : 0;
  end_of_step();
  take_out_half_filled(fault);
}

void Mender::rewrite_nh_slot(const Fault &fault) {
  const NhNode &nh = db_.nhs[fault.node];
  egr_nh_info_t *slot = nh_slot(fault.nh_index);
  slot->out_label1 = nh.key.out_label1;
  slot->te_local_label = nh.key.te_local_label;
  slot->is_failover_nh = nh.key.is_failover_nh;
  slot->protocol = nh.key.protocol;
  slot->is_l2vpn_pref_path = nh.key.is_l2vpn_pref_path;
  slot->ifh = db_.tunnels[nh.tunnel].key.ifh;
  slot->egr_tun = static_cast<std::uint16_t>(survey_.believed[nh.tunnel]);
}

void Mender::rewrite_tunnel_index(const Fault &fault) {
  tunnel_node(fault.node)->egr_tun = static_cast<std::uint16_t>(fault.wanted);
}

void Mender::rewrite_labels(const Fault &fault) {
  egr_tun_info_t *slot = tunnel_slot(fault.tunnel);
  const bool null_tunnel = fault.node == kNoNode;
  slot->out_label2 = null_tunnel ? 0U : db_.tunnels[fault.node].key.out_label2;
  slot->out_label3 = null_tunnel ? 0U : db_.tunnels[fault.node].key.out_label3;
}

// A tunnel whose slot is not filled: filled for those with NHs, the count last but for the flag that makes it count.
void Mender::mend_tunnel(const Fault &fault) {
  if (faults_.tunnel_empty[fault.node]) {
    take_out_tunnel(fault);
    return;
  }
  rewrite_labels(fault);
  egr_tun_info_t *slot = tunnel_slot(fault.tunnel);
  slot->ref_count = faults_.users[db_.tunnel_slot_number(fault.tunnel)];
  end_of_step();
  slot->valid = 1;
}

void Mender::unlink_tunnel(std::uint32_t number, bool slot_goes, std::uint32_t index) {
  mpls_tunnel_entry_t *node = tunnel_node(number);
  int flag = 0;
  if (avl_delete(tunnel_root(), node, &flag, kCompareTunnels) == nullptr) {
    return;
  }
  end_of_step();
  shmwin_free(node);
  end_of_step();
  if (slot_goes && index != 0 && db_.tunnel_in_range(index)) {
    std::memset(tunnel_slot(index), 0, sizeof(egr_tun_info_t));
  }
}

void Mender::take_out_tunnel(const Fault &fault) {
  const bool shared =
      db_.tunnel_in_range(fault.tunnel) && faults_.tunnels_with_nhs[db_.tunnel_slot_number(fault.tunnel)] != 0;
  unlink_tunnel(fault.node, !shared, fault.tunnel);
}

Fault Mender::fault_of_nh(std::uint32_t n) const {
  const NhNode &nh = db_.nhs[n];
  return {FindingKind::kTunnelWithoutIndex, nh.nh_index, survey_.believed[nh.tunnel], nh.address, 0, 0, n};
}

// The new slot comes first, with its count, and the node's index last. Before that, a repair of what this one leaves
// takes the slots back to the node's index; and once all the NHs' slots have the new one, it goes on to the end.
void Mender::move_tunnel(const Fault &fault) {
  const TunnelNode &tunnel = db_.tunnels[fault.node];
  const bool has_index = fault.wanted != kNoIndex;
  const auto index = static_cast<std::uint32_t>(fault.wanted);
  if (has_index) {
    egr_tun_info_t *slot = tunnel_slot(index);
    slot->out_label2 = tunnel.key.out_label2;
    slot->out_label3 = tunnel.key.out_label3;
    for (std::uint32_t n = tunnel.first_nh; n < tunnel.first_nh + tunnel.nh_count; ++n) {
      slot->ref_count += faults_.nh_goes[n] ? 0U : 1U;
    }
    end_of_step();
    slot->valid = 1;
    end_of_step();
  }
  for (std::uint32_t n = tunnel.first_nh; n < tunnel.first_nh + tunnel.nh_count; ++n) {
    if (faults_.nh_goes[n]) {
      continue;
    }
    if (has_index) {
      nh_slot(db_.nhs[n].nh_index)->egr_tun = static_cast<std::uint16_t>(index);
    } else {
      take_out_half_filled(fault_of_nh(n));
    }
    end_of_step();
  }
  if (has_index) {
    tunnel_node(fault.node)->egr_tun = static_cast<std::uint16_t>(index);
  } else {
    unlink_tunnel(fault.node, false, 0);
  }
}

// Its count is 0 already.
void Mender::take_out_given_back(const Fault &fault) {
  take_out_half_filled(fault);
  end_of_step();
  unlink_tunnel(db_.nhs[fault.node].tunnel, true, fault.tunnel);
}

void Mender::set_count(const Fault &fault) {
  tunnel_slot(fault.tunnel)->ref_count = static_cast<std::uint32_t>(fault.wanted);
}

void Mender::zero_residue(const Fault &fault) {
  if (fault.nh_index != kNoIndex) {
    writable<mpls_nh_entry_t>(survey_, fault.address)->spare = 0;
    return;
  }
  auto *node = writable<mpls_tunnel_entry_t>(survey_, fault.address);
  node->spare = 0;
  std::memset(node->zero, 0, sizeof node->zero);
}

void Mender::free_block(const Fault &fault) {
  shmwin_free(writable<std::uint64_t>(survey_, fault.address));
}

void mend(const Survey &survey, const Faults &faults, const RepairOptions &options, Deed deed,
          std::vector<Change> *changes) {
  Mender(survey, faults, options, deed, changes).run();
}

}  // namespace encap_inspect
