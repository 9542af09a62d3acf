// The slots of the two arrays: filling, reading back, counting and clearing them.
//
// None of these functions takes the lock or checks a range, since the operations have done both. A slot that is not
// valid is not counted, and a count of 0 does not go down.
#ifndef MPLS_EGRESS_ENCAP_DB_SLOTS_H
#define MPLS_EGRESS_ENCAP_DB_SLOTS_H

#include <cassert>
#include <cstdint>

#include "lock.h"

namespace encap {

// True if start <= index < end, as unsigned numbers. The ranges never change, so no lock is needed.
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

// Fills the slot: writes every field, makes it valid, and sets its count to 0. A value is cut to the bits of its field.
void vrl_mem_set_egr_nh_data(std::uint32_t nh_index, std::uint32_t egr_tun, mpls_nh_key_t key, std::uint32_t ifh,
                             std::uint32_t seed_nh, std::uint32_t is_protected_te_nh, std::uint32_t failover_id,
                             std::uint32_t failover_nh) REQUIRES_DATABASE_LOCK;

// Reads the slot and the labels of its tunnel back. Writes the named fields of both records only.
// Returns: 0; 22 when the slot is not valid or names a tunnel index out of range, with both records untouched.
int vrl_mem_get_key_from_egr_nh(std::uint32_t nh_index, egress_encap_aux_data_t *aux,
                                egress_encap_key_t *key) REQUIRES_DATABASE_LOCK;

// Adds a reference; at 4294967295 the count goes on at 0. Returns: 0; 22 when the slot is not valid (reported, raised).
int vrl_mem_increment_egr_nh_ref_count(std::uint32_t nh_index) REQUIRES_DATABASE_LOCK;

// Refuses to count a slot up that is not valid: reports and raises that. Returns: 22.
int refuse_nh_count_up(std::uint32_t nh_index, std::uint32_t ref_count) REQUIRES_DATABASE_LOCK;

// Takes a reference. Sets *del to 1 if it was the last one, else to 0, also after a failure.
// Returns: 0; 22 when the count is 0 already (reported), or when the slot is not valid (reported, raised).
int vrl_mem_decrement_egr_nh_ref_count(std::uint32_t nh_index, int *del) REQUIRES_DATABASE_LOCK;

// Zeroes the slot, which makes it free.
void vrl_mem_clear_egr_nh_data(std::uint32_t nh_index) REQUIRES_DATABASE_LOCK;

// Fills the slot: writes the labels, makes it valid, and sets its count to 0. The null tunnel slot keeps its count.
void vrl_mem_set_egr_tun_data(std::uint32_t tunnel_if, std::uint32_t out_label2,
                              std::uint32_t out_label3) REQUIRES_DATABASE_LOCK;

// Adds a reference, as for NHs.
int vrl_mem_increment_egr_tunnel_ref_count(std::uint32_t tunnel_if) REQUIRES_DATABASE_LOCK;

// Takes a reference, as for NHs, but only writes *del to set it to 1: the caller has set it to 0.
int vrl_mem_decrement_egr_tunnel_ref_count(std::uint32_t tunnel_if, int *del) REQUIRES_DATABASE_LOCK;

// Zeroes the slot, unless it is the null tunnel slot.
void vrl_mem_clear_egr_tun_data(std::uint32_t tunnel_if) REQUIRES_DATABASE_LOCK;

}  // namespace encap

#endif
