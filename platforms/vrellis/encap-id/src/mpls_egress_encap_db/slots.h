// Slot bookkeeping: filling, reading back, counting and clearing the slots of the two arrays.
//
// Nothing here takes the lock or tests a range: the operations have done both. A slot that is not in use refuses to be
// counted; a count of 0 refuses to go down.
#ifndef MPLS_EGRESS_ENCAP_DB_SLOTS_H
#define MPLS_EGRESS_ENCAP_DB_SLOTS_H

#include <cassert>
#include <cstdint>

#include "lock.h"

namespace encap {

// start <= index < end, unsigned. The fixed fields are read without the lock.
inline bool nh_in_range(std::uint32_t nh_index) {
  return nh_index >= egress_encap_db->nh_start && nh_index < egress_encap_db->nh_end;
}

// Tunnel index 0, the null tunnel, is always in range.
inline bool tunnel_in_range(std::uint32_t tunnel_if) {
  return tunnel_if == 0 || (tunnel_if >= egress_encap_db->tun_start && tunnel_if < egress_encap_db->tun_end);
}

// Requires: the index is in range (nh_in_range(), tunnel_in_range()).
inline egr_nh_info_t &nh_slot(std::uint32_t nh_index) REQUIRES_DATABASE_LOCK {
  assert(nh_in_range(nh_index));
  return egress_encap_db->nh_info_array[nh_index - egress_encap_db->nh_start];
}

// The number of the element of the tunnel array that `tunnel_if` selects. Index 0 selects the null tunnel slot, which
// stands behind all others.
inline std::uint32_t tunnel_slot_number(std::uint32_t tunnel_if) {
  return (tunnel_if == 0 ? egress_encap_db->tun_end : tunnel_if) - egress_encap_db->tun_start;
}

inline egr_tun_info_t &tunnel_slot(std::uint32_t tunnel_if) REQUIRES_DATABASE_LOCK {
  assert(tunnel_in_range(tunnel_if));
  return egress_encap_db->tun_info_array[tunnel_slot_number(tunnel_if)];
}

// Fills the slot: every field written, valid, count 0. Only the low bits that a field has are used.
void vrl_mem_set_egr_nh_data(std::uint32_t nh_index, std::uint32_t egr_tun, mpls_nh_key_t key, std::uint32_t ifh,
                             std::uint32_t seed_nh, std::uint32_t is_protected_te_nh, std::uint32_t failover_id,
                             std::uint32_t failover_nh) REQUIRES_DATABASE_LOCK;

// Reads the slot and its tunnel's labels back, writing the named fields alone.
// Returns: 0; 22 when the slot is not valid or names a tunnel index out of range, both records untouched.
int vrl_mem_get_key_from_egr_nh(std::uint32_t nh_index, egress_encap_aux_data_t *aux,
                                egress_encap_key_t *key) REQUIRES_DATABASE_LOCK;

// Adds a reference; at 4294967295 the count wraps to 0. Returns: 0; 22 when the slot is not valid (reported, raised).
int vrl_mem_increment_egr_nh_ref_count(std::uint32_t nh_index) REQUIRES_DATABASE_LOCK;

// What the increment answers for a slot that is not valid: reported, raised. Returns: 22.
int refuse_nh_count_up(std::uint32_t nh_index, std::uint32_t ref_count) REQUIRES_DATABASE_LOCK;

// Takes a reference; *del tells whether it was the last one, and is 0 after a failure.
// Returns: 0; 22 when the count is 0 already (reported) or the slot not valid (reported, raised).
int vrl_mem_decrement_egr_nh_ref_count(std::uint32_t nh_index, int *del) REQUIRES_DATABASE_LOCK;

// Zeroes the slot: free.
void vrl_mem_clear_egr_nh_data(std::uint32_t nh_index) REQUIRES_DATABASE_LOCK;

// Fills the slot: labels, valid, and count 0 but for the null tunnel slot, whose count stays.
void vrl_mem_set_egr_tun_data(std::uint32_t tunnel_if, std::uint32_t out_label2,
                              std::uint32_t out_label3) REQUIRES_DATABASE_LOCK;

// As for NHs.
int vrl_mem_increment_egr_tunnel_ref_count(std::uint32_t tunnel_if) REQUIRES_DATABASE_LOCK;

// As for NHs, but *del is only ever set to 1: the caller sets it to 0 first.
int vrl_mem_decrement_egr_tunnel_ref_count(std::uint32_t tunnel_if, int *del) REQUIRES_DATABASE_LOCK;

// Zeroes the slot; leaves the null tunnel slot alone.
void vrl_mem_clear_egr_tun_data(std::uint32_t tunnel_if) REQUIRES_DATABASE_LOCK;

}  // namespace encap

#endif
