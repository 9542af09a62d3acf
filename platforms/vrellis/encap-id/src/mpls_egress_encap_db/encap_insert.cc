// Entering encapsulations, and setting an NH's count outright.
//
// The insert creates exactly what the caller's found flags say is missing, and searches for nothing else. Nothing is
// undone: each failure leaves what was done before it, releases the lock once and is reported.
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

template <Point Failed>
int take_lock() ACQUIRES_DATABASE_LOCK_WHEN_0 {
  const int locked = vrl_egress_encap_db_lock(database_mutex());
  if (locked != 0) {
    emit<Failed>(locked);
  }
  return locked;
}

// Gives the lock back on a failure path. Every failure after the lock was taken is answered 22.
template <Point Failed>
int release_and_refuse() RELEASES_DATABASE_LOCK {
  const int unlocked = vrl_egress_encap_db_unlock(database_mutex());
  if (unlocked != 0) {
    emit<Failed>(unlocked);
  }
  return EINVAL;
}

int release_and_return() RELEASES_DATABASE_LOCK {
  const int unlocked = vrl_egress_encap_db_unlock(database_mutex());
  if (unlocked != 0) {
    emit<Point::insert_unlock_failed>(unlocked);
  }
  emit<Point::insert_return>(0);
  return 0;
}

void fill_nh_slot(const mpls_nh_entry_t &nh, const egress_encap_info_t &info,
                  const egress_encap_key_t &key) REQUIRES_DATABASE_LOCK {
  vrl_mem_set_egr_nh_data(nh.nh_index, info.egr_tun, nh_key(key), key.ifh, info.seed_nh, info.is_protected_te_nh,
                          info.failover_id, info.failover_nh);
}

// The tunnel is known: a new NH on it.
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
  mpls_nh_entry_t *nh = nullptr;
  const int inserted = vrl_insert_mpls_nh_entry(nh_key(key), &tunnel->nh_root, &nh);
  if (inserted != 0) {
    emit<Point::insert_known_nh_insert_failed>(nh_fields(key), inserted);
    return release_and_refuse<Point::insert_known_unlock_after_nh_insert>();
  }
  nh->nh_index = info.egr_nh;
  emit<Point::insert_known_inserted>(info.egr_nh);
  fill_nh_slot(*nh, info, key);
  if (vrl_mem_increment_egr_nh_ref_count(info.egr_nh) != 0) {
    return release_and_refuse<Point::insert_known_unlock_after_nh_count>();
  }
  if (vrl_mem_increment_egr_tunnel_ref_count(info.egr_tun) != 0) {
    return release_and_refuse<Point::insert_known_unlock_after_tunnel_count>();
  }
  return release_and_return();
}

// Nothing is known: a new tunnel and a new NH on it. A tunnel left without its NH stays and is found by the next
// lookup.
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
  mpls_nh_entry_t *nh = nullptr;
  if (vrl_insert_mpls_nh_entry(nh_key(key), &tunnel->nh_root, &nh) != 0) {
    return release_and_refuse<Point::insert_new_unlock_after_nh_insert>();
  }
  nh->nh_index = info.egr_nh;
  fill_nh_slot(*nh, info, key);
  if (vrl_mem_increment_egr_nh_ref_count(info.egr_nh) != 0) {
    return release_and_refuse<Point::insert_new_unlock_after_nh_count>();
  }
  if (vrl_mem_increment_egr_tunnel_ref_count(info.egr_tun) != 0) {
    return release_and_refuse<Point::insert_new_unlock_after_tunnel_count>();
  }
  return release_and_return();
}

// Sets the count of a slot in use; reports either way. Returns 0 or 22.
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
  const egress_encap_info_t request = *info;  // what was checked is what is used, whatever happens to the record
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
  const int unlocked = vrl_egress_encap_db_unlock(database_mutex());
  if (unlocked != 0) {
    emit<Point::set_unlock_failed>(unlocked);
    return unlocked;
  }
  return rc;
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
