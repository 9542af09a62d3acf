// The lookups: the two that search for a key, and the one that adds a user to an NH.
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

void set_tunnel_found(egress_encap_info_t *info, std::uint32_t egr_tun) {
  info->tun_found = 1;
  info->egr_tun = egr_tun;
}

void set_nh_found(egress_encap_info_t *info, std::uint32_t egr_nh) {
  info->nh_found = 1;
  info->egr_nh = egr_nh;
}

// What differs between the two lookups by key: their points, and whether they report a find after or before they write
// it to the caller's record.
struct Find {
  static void note_tunnel(egress_encap_info_t *info, std::uint32_t egr_tun) {
    set_tunnel_found(info, egr_tun);
    emit<Point::find_tunnel_found>(egr_tun);
  }
  static void note_nh(egress_encap_info_t *info, std::uint32_t egr_nh) {
    set_nh_found(info, egr_nh);
    emit<Point::find_nh_found>(egr_nh);
  }
};

struct FindAndShare {
  static void note_tunnel(egress_encap_info_t *info, std::uint32_t egr_tun) {
    emit<Point::share_tunnel_found>(egr_tun);
    set_tunnel_found(info, egr_tun);
  }
  static void note_nh(egress_encap_info_t *info, std::uint32_t egr_nh) {
    emit<Point::share_nh_found>(egr_nh);
    set_nh_found(info, egr_nh);
  }
};

// Writes the tunnel and the NH that the database holds for `key` to `info`. Returns the node of the NH, or NULL.
template <typename Lookup>
const mpls_nh_entry_t *find(egress_encap_info_t *info, const egress_encap_key_t &key) REQUIRES_DATABASE_LOCK {
  mpls_tunnel_entry_t *tunnel;
  vrl_find_mpls_tunnel_entry(tunnel_key(key), &tunnel);
  if (tunnel == nullptr) {
    return nullptr;
  }
  Lookup::note_tunnel(info, tunnel->egr_tun);
  mpls_nh_entry_t *nh;
  vrl_find_mpls_nh_entry(nh_key(key), tunnel->nh_root, &nh);
  if (nh == nullptr) {
    return nullptr;
  }
  Lookup::note_nh(info, nh->nh_index);
  return nh;
}

// Adds a user to the NH that a node names. A process that dies between linking a node and storing its index leaves the
// index 0. An index out of range has no slot and is answered like a slot that is not valid and counts 0.
int share_nh_of(const mpls_nh_entry_t &nh) REQUIRES_DATABASE_LOCK {
  if (__builtin_expect(!nh_in_range(nh.nh_index), 0)) {
    return refuse_nh_count_up(nh.nh_index, 0);
  }
  return vrl_mem_increment_egr_nh_ref_count(nh.nh_index);
}

}  // namespace
}  // namespace encap

using namespace encap;

int vrl_find_egress_encap(egress_encap_info_t *info, egress_encap_key_t key) {
  clear_found(info);
  const int locked = take_lock<Point::find_lock_failed>();
  if (locked != 0) {
    return locked;
  }
  find<Find>(info, key);
  const int unlocked = release_lock<Point::find_unlock_failed>();
  if (unlocked != 0) {
    return unlocked;
  }
  emit<Point::find_return>(0, info->nh_found, info->tun_found, info->egr_nh, info->egr_tun);
  return 0;
}

int vrl_find_and_share_egress_encap(egress_encap_info_t *info, egress_encap_key_t key) {
  emit<Point::share_entry>(key_fields(key));
  clear_found(info);
  const int locked = take_lock<Point::share_lock_failed>();
  if (locked != 0) {
    return locked;
  }
  const mpls_nh_entry_t *nh = find<FindAndShare>(info, key);
  const int shared = nh == nullptr ? 0 : share_nh_of(*nh);
  if (shared != 0) {
    release_lock();  // the increment has reported its refusal, which is the result; the unlock's status is not
    return shared;
  }
  release_lock<Point::share_unlock_failed>();
  emit<Point::share_return>(0, info->nh_found, info->tun_found, info->egr_nh, info->egr_tun);
  return 0;
}

int vrl_find_and_share_egress_nh(uint32_t nh_index) {
  if (!nh_in_range(nh_index)) {
    emit<Point::share_nh_out_of_range>(nh_index);
    return EINVAL;
  }
  const int locked = take_lock<Point::share_nh_lock_failed>();
  if (locked != 0) {
    return locked;
  }
  const int shared = vrl_mem_increment_egr_nh_ref_count(nh_index);
  if (shared != 0) {
    release_lock();  // the increment has reported its refusal, which is the result; the unlock's status is not
    return shared;
  }
  const int unlocked = release_lock<Point::share_nh_unlock_failed>();
  if (unlocked != 0) {
    return unlocked;
  }
  emit<Point::share_nh_return>(0, nh_index);
  return 0;
}
