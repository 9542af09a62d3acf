#include "lookup.h"

#include "avl/undo_view.h"
#include "search.h"

namespace clients {
namespace {

// Reads words that cannot change, since the database lock is held.
struct LockedWords {
  static const Extent &window() { return extent; }
  static std::uint64_t word(std::uint64_t address) { return vrellis::avl::load_word(address); }
  static std::uint32_t half(std::uint64_t address) { return vrellis::avl::load_half(address); }
};

}  // namespace

int look_up(const egress_encap_key_t &key, Found *found) {
  *found = {};
  LockedWords words;
  std::uint64_t tunnel = 0;
  std::uint64_t nh = 0;
  int status = search<mpls_tunnel_entry_t>(words, address_of(egress_encap_db->tun_root), tunnel_part(key), &tunnel);
  if (status != 0 || tunnel == 0) {
    return status;
  }
  found->tunnel = at<mpls_tunnel_entry_t>(tunnel);
  status = search<mpls_nh_entry_t>(words, address_of(found->tunnel->nh_root), nh_part(key), &nh);
  found->nh = at<mpls_nh_entry_t>(nh);
  return status;
}

bool is_possible(const egress_encap_key_t &key) {
  return key.spare_word0 == 0 && key.spare_word1 == 0 && key.spare_word2 == 0 && key.spare_word3 == 0;
}

egress_encap_key_t key_in(const egr_nh_info_t &slot, const egr_tun_info_t &tunnel) {
  egress_encap_key_t key{};
  key.out_label1 = slot.out_label1;
  key.te_local_label = slot.te_local_label;
  key.is_failover_nh = slot.is_failover_nh;
  key.protocol = slot.protocol;
  key.is_l2vpn_pref_path = slot.is_l2vpn_pref_path;
  key.ifh = slot.ifh;
  if (slot.egr_tun != 0) {
    key.out_label2 = tunnel.out_label2;
    key.out_label3 = tunnel.out_label3;
  }
  return key;
}

egress_encap_key_t key_of(std::uint32_t nh) {
  const egr_nh_info_t &slot = nh_slot(nh);
  return key_in(slot, tunnel_in_range(slot.egr_tun) ? tunnel_slot(slot.egr_tun) : egr_tun_info_t{});
}

}  // namespace clients
