// The inserts, and setting the count of an NH.
//
// The insert creates exactly what the caller's found flags say is missing and searches for nothing else. No failure
// undoes the steps before it; each failure path releases the lock once and is reported.
#include <cerrno>

#include "../diag/error_messages.h"
#include "../diag/points.h"
#include "key_index.h"
#include "lock.h"
#include "slots.h"
#include "values.h"

namespace encap {
namespace {

bool refuses_tunnel_index(const egress_encap_info_t &info, const egress_encap_key_t &key) {
  if (tunnel_in_range(info.egr_tun)) {
    return false;
  }
  emit<Point::insert_tunnel_out_of_range>(info.egr_tun, 0, key_fields(key));
  return true;
}

template <Point P>
bool refuses_nh_index(const egress_encap_info_t &info, const egress_encap_key_t &key) {
  if (nh_in_range(info.egr_nh)) {
    return false;
  }
  emit<P>(info.egr_nh, 0, nh_fields(key));
  return true;
}

// Gives the lock back after a failure. All failures that happen while the lock is held are answered 22.
template <Point Failed>
inline int release_and_refuse() RELEASES_DATABASE_LOCK {
  release_lock<Failed>();
  return EINVAL;
}

// What differs between the two cases once the tunnel's node is there: the points of a failing unlock, and whether the
// NH's insert is reported here. (The insert of the node itself is always reported by the key index.)
struct KnownTunnel {
  static constexpr bool reports_nh = true;
  static constexpr Point unlock_after_nh_insert = Point::insert_known_unlock_after_nh_insert;
  static constexpr Point unlock_after_nh_count = Point::insert_known_unlock_after_nh_count;
  static constexpr Point unlock_after_tunnel_count = Point::insert_known_unlock_after_tunnel_count;
};

struct NewTunnel {
  static constexpr bool reports_nh = false;
  static constexpr Point unlock_after_nh_insert = Point::insert_new_unlock_after_nh_insert;
  static constexpr Point unlock_after_nh_count = Point::insert_new_unlock_after_nh_count;
  static constexpr Point unlock_after_tunnel_count = Point::insert_new_unlock_after_tunnel_count;
};

// The common end of both cases: enters the NH under its tunnel, fills its slot, counts it and its tunnel up, and gives
// the lock back.
template <typename Case>
int insert_nh(mpls_tunnel_entry_t *tunnel, const egress_encap_info_t &info,
              const egress_encap_key_t &key) RELEASES_DATABASE_LOCK {
  mpls_nh_entry_t *nh = nullptr;
  const int inserted = vrl_insert_mpls_nh_entry(nh_key(key), &tunnel->nh_root, &nh);
  if (inserted != 0) {
    if constexpr (Case::reports_nh) {
      emit<Point::insert_known_nh_insert_failed>(nh_fields(key), inserted);
    }
    return release_and_refuse<Case::unlock_after_nh_insert>();
  }
  nh->nh_index = info.egr_nh;
  if constexpr (Case::reports_nh) {
    emit<Point::insert_known_inserted>(info.egr_nh);
  }
  vrl_mem_set_egr_nh_data(info.egr_nh, info.egr_tun, nh_key(key), key.ifh, info.seed_nh, info.is_protected_te_nh,
                          info.failover_id, info.failover_nh);
  if (vrl_mem_increment_egr_nh_ref_count(info.egr_nh) != 0) {
    return release_and_refuse<Case::unlock_after_nh_count>();
  }
  if (vrl_mem_increment_egr_tunnel_ref_count(info.egr_tun) != 0) {
    return release_and_refuse<Case::unlock_after_tunnel_count>();
  }
  release_lock<Point::insert_unlock_failed>();
  emit<Point::insert_return>(0);
  return 0;
}

// Enters a new NH on a tunnel that the caller has found.
int insert_on_known_tunnel(const egress_encap_info_t &info, const egress_encap_key_t &key) {
  if (refuses_nh_index<Point::insert_known_nh_out_of_range>(info, key) || refuses_tunnel_index(info, key)) {
    return EINVAL;
  }
  const int locked = take_lock<Point::insert_known_lock_failed>();
  if (locked != 0) {
    return locked;
  }
  mpls_tunnel_entry_t *tunnel;
  vrl_find_mpls_tunnel_entry(tunnel_key(key), &tunnel);
  if (tunnel == nullptr) {
    const int refused = release_and_refuse<Point::insert_known_unlock_tunnel_missing>();
    emit<Point::insert_known_tunnel_missing>(key_fields(key));
    return refused;
  }
  return insert_nh<KnownTunnel>(tunnel, info, key);
}

// Enters a new tunnel and a new NH on it. When the NH is refused, the tunnel stays, and the next lookup finds it.
int insert_with_new_tunnel(const egress_encap_info_t &info, const egress_encap_key_t &key) {
  if (refuses_tunnel_index(info, key) || refuses_nh_index<Point::insert_new_nh_out_of_range>(info, key)) {
    return EINVAL;
  }
  const int locked = take_lock<Point::insert_new_lock_failed>();
  if (locked != 0) {
    return locked;
  }
  mpls_tunnel_entry_t *tunnel = nullptr;
  vrl_insert_mpls_tunnel_entry(tunnel_key(key), &tunnel);
  if (tunnel == nullptr) {
    return release_and_refuse<Point::insert_new_unlock_after_tunnel_insert>();
  }
  tunnel->egr_tun = static_cast<std::uint16_t>(info.egr_tun);
  tunnel->nh_root = nullptr;
  vrl_mem_set_egr_tun_data(info.egr_tun, key.out_label2, key.out_label3);
  return insert_nh<NewTunnel>(tunnel, info, key);
}

// Sets the count of the NH's slot and reports it. Returns: 0; 22 when the slot is not valid (reported, raised).
int set_count(std::uint32_t nh_index, std::uint32_t ref_count) REQUIRES_DATABASE_LOCK {
  egr_nh_info_t &slot = nh_slot(nh_index);
  if (slot.valid == 0) {
    emit<Point::set_not_valid>(nh_index, slot.ref_count, ref_count);
    raise_nh_not_valid("vrl_find_and_set_egress_nh_ref", nh_index, slot.ref_count);
    return EINVAL;
  }
  emit<Point::set_done>(nh_index, slot.ref_count, ref_count);
  slot.ref_count = ref_count;
  return 0;
}

}  // namespace
}  // namespace encap

using namespace encap;

int vrl_insert_egress_encap(egress_encap_info_t *info, egress_encap_key_t key) {
  if (info == nullptr) {
    return EINVAL;
  }
  const egress_encap_info_t request =
      *info;  // so the insert uses the values that it checked, even when another thread changes the record
  emit<Point::insert_entry>(key_fields(key), request.tun_found, request.nh_found, request.egr_nh, request.egr_tun,
                            request.is_protected_te_nh, request.failover_id, request.failover_nh);
  if (request.tun_found == 0) {
    return insert_with_new_tunnel(request, key);
  }
  return request.nh_found != 0 ? 0 : insert_on_known_tunnel(request, key);
}

int vrl_find_and_set_egress_nh_ref(uint32_t nh_index, uint32_t ref_count) {
  if (!nh_in_range(nh_index)) {
    emit<Point::set_out_of_range>(nh_index);
    return EINVAL;
  }
  const int locked = take_lock<Point::set_lock_failed>();
  if (locked != 0) {
    return locked;
  }
  const int rc = set_count(nh_index, ref_count);
  const int unlocked = release_lock<Point::set_unlock_failed>();
  return unlocked != 0 ? unlocked : rc;
}

int vrl_egress_encap_nh_insert_attach(egress_encap_info_t *info, uint32_t ref_count, egress_encap_key_t key) {
  if (info == nullptr) {
    emit<Point::attach_null_record>();
    return EINVAL;
  }
  const int inserted = vrl_insert_egress_encap(info, key);
  if (inserted != 0) {
    emit<Point::attach_insert_failed>(inserted, info->egr_nh);
    return inserted;
  }
  const int set = vrl_find_and_set_egress_nh_ref(info->egr_nh, ref_count);
  if (set != 0) {
    emit<Point::attach_set_failed>(ref_count, info->egr_nh, set);
    return set;
  }
  emit<Point::attach_done>(info->egr_nh);
  return 0;
}
