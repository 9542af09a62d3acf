#include "references.h"

#include <cerrno>

#include "records/indexes.h"
#include "records/lookup.h"
#include "records/window.h"
#include "session.h"

namespace clients {
namespace {

using vrellis::avl::count_now;
using vrellis::avl::note_count;
using vrellis::avl::note_counted;

int abort_with(int status) {
  avl_change_abort();
  return status;
}

// Notes a slot whose count is about to become `next`: all of it when the slot comes or goes with that.
template <typename Slot>
[[gnu::always_inline]] inline void note_slot(const Slot &slot, std::uint32_t next, bool all) {
  constexpr std::size_t kBehindCount = sizeof slot / sizeof slot.ref_count - 1;
  if (all) {
    note_count<kBehindCount>(undo_log(), &slot.ref_count, next);
  } else {
    note_count<0>(undo_log(), &slot.ref_count, next);
  }
}

int share(Ledger &ledger, const Place &place, std::uint32_t nh, std::uint32_t tunnel, encap_entry_t *entry) {
  if (place.holding == nullptr && !place.is_sound()) {
    return EINVAL;
  }
  if (place.holding != nullptr && place.holding->held == kMostHeld) {
    return EOVERFLOW;
  }
  begin_change();
  const std::uint32_t held = add_reference(ledger, place, nh);
  if (held == 0) {
    return abort_with(ENOMEM);
  }
  egr_nh_info_t &slot = nh_slot(nh);
  avl_change_version(&slot);
  count_now(undo_log(), &slot.ref_count, slot.ref_count + 1);
  avl_change_commit();
  *entry = {nh, tunnel, held, 0, 0, 0};
  return 0;
}

void note_slots(const egress_encap_info_t &info) {
  egr_nh_info_t &nh = nh_slot(info.egr_nh);
  note_slot(nh, 1, true);
  avl_change_version(&nh);
  const egr_tun_info_t &tunnel = tunnel_slot(info.egr_tun);
  note_slot(tunnel, tunnel.ref_count + 1, info.tun_found == 0);
}

// The insert need not search again. A node at the end of a search is one, so its address may be followed.
void tell_of_searches(const Found &found) {
  avl_change_searched(0, egress_encap_db->tun_root, at<mpls_tunnel_entry_t>(found.end_of_tunnels));
  if (found.tunnel != nullptr) {
    avl_change_searched(1, found.tunnel->nh_root, at<mpls_nh_entry_t>(found.end_of_nhs));
  }
}

int create(Ledger &ledger, const Found &found, const egress_encap_key_t &key, const encap_attributes_t &attributes,
           encap_entry_t *entry) {
  egress_encap_info_t info{};
  info.seed_nh = attributes.seed_nh;
  info.failover_nh = attributes.failover_nh;
  info.failover_id = attributes.failover_id & 0xfffU;
  info.is_protected_te_nh = attributes.is_protected_te_nh & 1U;
  ClientRoot &root = client_root();
  Choice nh{};
  Choice tunnel{};
  const bool needs_tunnel = found.tunnel == nullptr && !is_on_null_tunnel(key);
  if (choose_nh(root, &nh) != 0 || (needs_tunnel && choose_tunnel(root, &tunnel) != 0)) {
    return ENOSPC;
  }
  info.egr_nh = nh.index;
  info.egr_tun = found.tunnel != nullptr ? found.tunnel->egr_tun : tunnel.index;
  info.tun_found = found.tunnel != nullptr ? 1 : 0;
  // The slot was free, so that nothing can be held on this index.
  const Place place{&bucket_of(ledger, nh.index), nullptr};
  if (!place.is_sound()) {
    return EINVAL;
  }
  begin_change();
  take_nh(root, nh);
  if (needs_tunnel) {
    take_tunnel(root, tunnel);
  }
  const std::uint32_t held = add_reference(ledger, place, info.egr_nh);
  if (held == 0) {
    return abort_with(ENOMEM);
  }
  note_slots(info);
  tell_of_searches(found);
  // Indexes and key were looked at, so that memory is all that an insert can want.
  if (vrl_insert_egress_encap(&info, key) != 0) {
    return abort_with(ENOMEM);
  }
  note_counted(undo_log(), vrellis::avl::kCountedNow);
  avl_change_commit();
  *entry = {info.egr_nh, info.egr_tun, held, 1, info.tun_found == 0 && info.egr_tun != 0 ? 1U : 0U, 0};
  return 0;
}

// Takes the NH out after its last reference, and the tunnel after its last NH. Requires an open change. Returns: 0;
// EINVAL when the database is damaged.
int take_out(const KnownTunnels &known, std::uint32_t nh, encap_left_t *left) {
  egr_nh_info_t &slot = nh_slot(nh);
  egr_tun_info_t &tunnel_of_nh = tunnel_slot(left->tunnel);
  left->nh_left = 1;
  left->tunnel_left = tunnel_of_nh.ref_count == 1 && left->tunnel != 0 ? 1 : 0;
  note_slot(slot, 0, true);
  note_slot(tunnel_of_nh, tunnel_of_nh.ref_count - 1, left->tunnel_left != 0);
  give_nh_back(client_root(), nh);
  if (left->tunnel_left != 0) {
    give_tunnel_back(client_root(), left->tunnel);
  }
  const SearchKey key = tunnel_part(key_in(slot, tunnel_of_nh));
  avl_change_searched(0, egress_encap_db->tun_root, known_tunnel(known, key));
  // The removal counts down before it touches a tree.
  note_counted(undo_log(), vrellis::avl::kCountedWithNext);
  std::uint32_t tunnel = 0;
  std::uint32_t nh_to_del = 0;
  std::uint32_t tunnel_to_del = 0;
  const int status = vrl_delete_and_free_egress_encap_with_nh_key(nh, &tunnel, &nh_to_del, &tunnel_to_del);
  if (status != 0 || nh_to_del == 0) {
    return EINVAL;
  }
  note_counted(undo_log(), vrellis::avl::kCountedNow);
  return 0;
}

// Whether the database can be relied on for this key: a process without a client that died in the middle of an insert
// leaves nodes without an index.
bool is_whole(const Found &found, const egress_encap_key_t &key) {
  const bool null_tunnel = found.tunnel != nullptr && found.tunnel->egr_tun == 0;
  if (found.tunnel != nullptr && (null_tunnel != is_on_null_tunnel(key) || !tunnel_in_range(found.tunnel->egr_tun))) {
    return false;
  }
  return found.nh == nullptr || (nh_in_range(found.nh->nh_index) && nh_slot(found.nh->nh_index).valid != 0);
}

}  // namespace

int take_reference(const KnownTunnels &known, Ledger &ledger, const egress_encap_key_t &key,
                   const encap_attributes_t &attributes, encap_entry_t *entry) {
  Found found;
  const int status = look_up(known, key, &found);
  if (found.nh != nullptr) {
    fetch(bucket_of(ledger, found.nh->nh_index));
  }
  if (status != 0 || !is_whole(found, key)) {
    return EINVAL;
  }
  if (found.nh == nullptr) {
    const int created = create(ledger, found, key, attributes, entry);
    settle_size(ledger);
    return created;
  }
  const std::uint32_t nh = found.nh->nh_index;
  const std::uint32_t tunnel = found.tunnel->egr_tun;
  const Place place = place_of(ledger, nh);
  if (place.holding == nullptr || fresh_of(*place.holding, ledger.epoch) == place.holding->held) {
    const int shared = share(ledger, place, nh, tunnel, entry);
    settle_size(ledger);
    return shared;
  }
  begin_change();
  renew_reference(ledger, *place.holding);
  avl_change_commit();
  *entry = {nh, tunnel, place.holding->held, 0, 0, 1};
  return 0;
}

int give_reference_back(const KnownTunnels &known, Ledger &ledger, std::uint32_t nh, First first, encap_left_t *left) {
  const Place place = place_of(ledger, nh);
  if (place.holding == nullptr) {
    return place.is_sound() ? ENOENT : EINVAL;
  }
  if (!nh_in_range(nh) || (nh_slot(nh).valid != 0 && nh_slot(nh).ref_count == 0) ||
      !tunnel_in_range(nh_slot(nh).egr_tun)) {
    return EINVAL;
  }
  if (place.holding->held <= 1 && !place.is_sound()) {  // it is about to be taken out of its bucket
    return EINVAL;
  }
  egr_nh_info_t &slot = nh_slot(nh);
  left->nh = nh;
  left->tunnel = slot.egr_tun;
  begin_change();
  left->held = drop_reference(ledger, place, first);
  int status = 0;
  if (slot.valid != 0) {  // else a process without a client has taken the NH out, and was told so
    avl_change_version(&slot);
    if (slot.ref_count > 1) {
      count_now(undo_log(), &slot.ref_count, slot.ref_count - 1);
    } else {
      status = take_out(known, nh, left);
    }
  }
  if (status != 0) {
    return abort_with(status);
  }
  avl_change_commit();
  settle_size(ledger);
  return 0;
}

}  // namespace clients
