// Lookups: what the database holds for a key, and one more user for an NH.
#include <cerrno>

#include "../diag/points.h"
#include "key_index.h"
#include "lock.h"
#include "slots.h"
#include "values.h"

namespace encap {
namespace {

void clear_found(egress_encap_info_t *info) {
  info->tun_found = 0;
  info->nh_found = 0;
}

void set_tunnel_found(egress_encap_info_t *info, const mpls_tunnel_entry_t *tunnel) {
  info->tun_found = 1;
  info->egr_tun = tunnel->egr_tun;
}

void set_nh_found(egress_encap_info_t *info, const mpls_nh_entry_t *nh) {
  info->nh_found = 1;
  info->egr_nh = nh->nh_index;
}

// Fills `info` with what is there for `key`.
void find(egress_encap_info_t *info, const egress_encap_key_t &key) REQUIRES_DATABASE_LOCK {
  mpls_tunnel_entry_t *tunnel;
  vrl_find_mpls_tunnel_entry(tunnel_key(key), &tunnel);
  if (tunnel == nullptr) {
    return;
  }
  set_tunnel_found(info, tunnel);
  emit<Point::find_tunnel_found>(tunnel->egr_tun);
  mpls_nh_entry_t *nh;
  vrl_find_mpls_nh_entry(nh_key(key), tunnel->nh_root, &nh);
  if (nh == nullptr) {
    return;
  }
  set_nh_found(info, nh);
  emit<Point::find_nh_found>(nh->nh_index);
}

// Adds a user to the NH that a node names. A process that dies between linking a node and storing its index leaves the
// index 0: an index out of range has no slot, and is answered like a slot that is not valid and counts 0.
int share_nh_of(const mpls_nh_entry_t &nh) REQUIRES_DATABASE_LOCK {
  if (__builtin_expect(!nh_in_range(nh.nh_index), 0)) {
    return refuse_nh_count_up(nh.nh_index, 0);
  }
  return vrl_mem_increment_egr_nh_ref_count(nh.nh_index);
}

// As find(), reporting each thing before it is recorded, and adds a user to an NH found. Returns the increment's code.
int find_and_share(egress_encap_info_t *info, const egress_encap_key_t &key) REQUIRES_DATABASE_LOCK {
  mpls_tunnel_entry_t *tunnel;
  vrl_find_mpls_tunnel_entry(tunnel_key(key), &tunnel);
  if (tunnel == nullptr) {
    return 0;
  }
  emit<Point::share_tunnel_found>(tunnel->egr_tun);
  set_tunnel_found(info, tunnel);
  mpls_nh_entry_t *nh;
  vrl_find_mpls_nh_entry(nh_key(key), tunnel->nh_root, &nh);
  if (nh == nullptr) {
    return 0;
  }
  emit<Point::share_nh_found>(nh->nh_index);
  set_nh_found(info, nh);
  return share_nh_of(*nh);
}

}  // namespace
}  // namespace encap

using namespace encap;

int vrl_find_egress_encap(egress_encap_info_t *info, egress_encap_key_t key) {
  clear_found(info);
  const int locked = vrl_egress_encap_db_lock(database_mutex());
  if (locked != 0) {
    emit<Point::find_lock_failed>(locked);
    return locked;
  }
  find(info, key);
  const int unlocked = vrl_egress_encap_db_unlock(database_mutex());
  if (unlocked != 0) {
    emit<Point::find_unlock_failed>(unlocked);
    return unlocked;
  }
  emit<Point::find_return>(0, info->nh_found, info->tun_found, info->egr_nh, info->egr_tun);
  return 0;
}

int vrl_find_and_share_egress_encap(egress_encap_info_t *info, egress_encap_key_t key) {
  emit<Point::share_entry>(key_fields(key));
  clear_found(info);
  const int locked = vrl_egress_encap_db_lock(database_mutex());
  if (locked != 0) {
    emit<Point::share_lock_failed>(locked);
    return locked;
  }
  const int rc = find_and_share(info, key);
  const int unlocked = vrl_egress_encap_db_unlock(database_mutex());
  if (rc != 0) {
    return rc;  // reported by the increment; the unlock's status is not looked at
  }
  if (unlocked != 0) {
    emit<Point::share_unlock_failed>(unlocked);
  }
  emit<Point::share_return>(rc, info->nh_found, info->tun_found, info->egr_nh, info->egr_tun);
  return rc;
}

int vrl_find_and_share_egress_nh(uint32_t nh_index) {
  if (!nh_in_range(nh_index)) {
    emit<Point::share_nh_out_of_range>(nh_index);
    return EINVAL;
  }
  const int locked = vrl_egress_encap_db_lock(database_mutex());
  if (locked != 0) {
    emit<Point::share_nh_lock_failed>(locked);
    return locked;
  }
  const int rc = vrl_mem_increment_egr_nh_ref_count(nh_index);
  const int unlocked = vrl_egress_encap_db_unlock(database_mutex());
  if (rc != 0) {
    return rc;  // reported by the increment; the unlock's status is not looked at
  }
  if (unlocked != 0) {
    emit<Point::share_nh_unlock_failed>(unlocked);
    return unlocked;
  }
  emit<Point::share_nh_return>(0, nh_index);
  return 0;
}
