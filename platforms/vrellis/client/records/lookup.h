// Finds what the database has for a key, without a reference and without a record of the trace.
#ifndef VRELLIS_CLIENT_LOOKUP_H
#define VRELLIS_CLIENT_LOOKUP_H

#include <cstddef>
#include <cstdint>

#include "known.h"
#include "mpls_egress_encap_db.h"

namespace clients {

struct Found {
  const mpls_tunnel_entry_t *tunnel;  // nullptr: the tunnel is not there
  const mpls_nh_entry_t *nh;          // nullptr: the NH is not there
  std::uint64_t end_of_tunnels;       // addresses of the nodes at which the two searches ended; 0 = the tree is empty
  std::uint64_t end_of_nhs;
};

// Requires the database lock, and that no change is open. Returns: 0; EINVAL when a tree is damaged.
int look_up(const KnownTunnels &known, const egress_encap_key_t &key, Found *found);

// Returns: nullptr when the node of the tunnel is not known. Requires the database lock.
mpls_tunnel_entry_t *known_tunnel(const KnownTunnels &known, const SearchKey &key);

// Whether all bits outside the key's fields are 0.
bool is_possible(const egress_encap_key_t &key);

inline bool is_on_null_tunnel(const egress_encap_key_t &key) {
  return key.out_label2 == 0 && key.out_label3 == 0;
}

inline bool nh_in_range(std::uint32_t nh) {
  return nh >= egress_encap_db->nh_start && nh < egress_encap_db->nh_end;
}
inline egr_nh_info_t &nh_slot(std::uint32_t nh) {
  return egress_encap_db->nh_info_array[nh - egress_encap_db->nh_start];
}

// False for a damaged index, which has no slot.
inline bool tunnel_in_range(std::uint32_t tunnel) {
  return tunnel == 0 || (tunnel >= egress_encap_db->tun_start && tunnel < egress_encap_db->tun_end);
}
inline egr_tun_info_t &tunnel_slot(std::uint32_t tunnel) {
  return egress_encap_db
      ->tun_info_array[(tunnel == 0 ? egress_encap_db->tun_end : tunnel) - egress_encap_db->tun_start];
}

// The full key that the two slots of an NH hold; without upper labels on the null tunnel.
egress_encap_key_t key_in(const egr_nh_info_t &slot, const egr_tun_info_t &tunnel);

// The full key of an NH whose slot is in use. Requires the database lock.
egress_encap_key_t key_of(std::uint32_t nh);

}  // namespace clients

#endif
