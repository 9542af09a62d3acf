// The fields of keys in the orders in which messages show them.
#ifndef MPLS_EGRESS_ENCAP_DB_VALUES_H
#define MPLS_EGRESS_ENCAP_DB_VALUES_H

#include <cstring>

#include "../diag/points.h"
#include "../mpls_egress_encap_db.h"

namespace encap {

// The two halves of a full key, bit for bit.
inline mpls_nh_key_t nh_key(const egress_encap_key_t &key) {
  mpls_nh_key_t half;
  std::memcpy(&half, &key, sizeof half);
  return half;
}

inline mpls_tunnel_key_t tunnel_key(const egress_encap_key_t &key) {
  mpls_tunnel_key_t half;
  std::memcpy(&half, reinterpret_cast<const char *>(&key) + sizeof(mpls_nh_key_t), sizeof half);
  return half;
}

// out_label1, te_local_label, is_failover_nh, is_l2vpn_pref_path, protocol
template <typename Key>
Values<5> nh_fields(const Key &key) {
  return {{key.out_label1, key.te_local_label, key.is_failover_nh, key.is_l2vpn_pref_path, key.protocol}};
}

// out_label2, out_label3, ifh
inline Values<3> tunnel_fields(const mpls_tunnel_key_t &key) {
  return {{key.out_label2, key.out_label3, key.ifh}};
}

// out_label1, out_label2, out_label3, te_local_label, is_failover_nh, is_l2vpn_pref_path, protocol, ifh
inline Values<8> key_fields(const egress_encap_key_t &key) {
  return {{key.out_label1, key.out_label2, key.out_label3, key.te_local_label, key.is_failover_nh,
           key.is_l2vpn_pref_path, key.protocol, key.ifh}};
}

}  // namespace encap

#endif
