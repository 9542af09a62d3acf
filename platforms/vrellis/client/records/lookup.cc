#include "lookup.h"

#include "avl/undo/undo_view.h"
#include "avl/undo/versions.h"
#include "search.h"

namespace clients {
namespace {

// Reads words that cannot change, since the database lock is held.
class LockedWords {
 public:
  explicit LockedWords(const KnownTunnels &known)
      : known_(known), version_(*vrellis::avl::version_of(extent.window, tunnel_field())) {}

  static const Extent &window() { return extent; }
  static std::uint64_t word(std::uint64_t address) { return vrellis::avl::load_word(address); }
  static std::uint32_t half(std::uint64_t address) { return vrellis::avl::load_half(address); }

  static std::uint64_t root_of_tunnels() { return address_of(egress_encap_db->tun_root); }
  std::uint64_t known_tunnel(const SearchKey &key) const { return known_.of(key).at(version_); }
  // A process that died may have left the version odd.
  void learn(const SearchKey &key, std::uint64_t tunnel) const {
    if (version_ % 2 == 0) {
      known_.of(key).remember(version_, tunnel);
    }
  }

 private:
  const KnownTunnels &known_;
  const std::uint64_t version_;
};

}  // namespace

int look_up(const KnownTunnels &known, const egress_encap_key_t &key, Found *found) {
  *found = {};
  LockedWords words(known);
  std::uint64_t tunnel = 0;
  std::uint64_t nh = 0;
  int status = find_tunnel(words, tunnel_part(key), &tunnel, &found->end_of_tunnels);
  if (status != 0 || tunnel == 0) {
    return status;
  }
  found->tunnel = at<mpls_tunnel_entry_t>(tunnel);
  status = search<mpls_nh_entry_t>(words, address_of(found->tunnel->nh_root), nh_part(key), &nh, &found->end_of_nhs);
  found->nh = at<mpls_nh_entry_t>(nh);
  return status;
}

mpls_tunnel_entry_t *known_tunnel(const KnownTunnels &known, const SearchKey &key) {
  LockedWords words(known);
  const std::uint64_t node = words.known_tunnel(key);
  return node != 0 && key_at<mpls_tunnel_entry_t>(words, node) == key ? at<mpls_tunnel_entry_t>(node) : nullptr;
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
