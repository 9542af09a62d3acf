#include "lookup.h"

#include <cstring>

#include "avl.h"

namespace clients {
namespace {

constexpr std::size_t kKeyOffset = offsetof(mpls_nh_entry_t, key);
static_assert(offsetof(mpls_tunnel_entry_t, key) == kKeyOffset);

template <typename Word>
Word word_of(const void *node, std::size_t offset) {
  Word word;
  std::memcpy(&word, static_cast<const char *>(node) + kKeyOffset + offset, sizeof word);
  return word;
}

// The trees order keys by their bytes in memory. 0 before, 1 equal, 2 after.
template <typename Word>
int order(Word a, Word b) {
  return static_cast<int>(a >= b) + static_cast<int>(a > b);
}

int compare_nhs(const void *a, const void *b) {
  return order(__builtin_bswap64(word_of<std::uint64_t>(a, 0)), __builtin_bswap64(word_of<std::uint64_t>(b, 0)));
}

int compare_tunnels(const void *a, const void *b) {
  const int labels = compare_nhs(a, b);
  return labels != 1
             ? labels
             : order(__builtin_bswap32(word_of<std::uint32_t>(a, 8)), __builtin_bswap32(word_of<std::uint32_t>(b, 8)));
}

}  // namespace

Found look_up(const egress_encap_key_t &key) {
  mpls_tunnel_entry_t tunnel_probe{};
  std::memcpy(&tunnel_probe.key, reinterpret_cast<const char *>(&key) + sizeof(mpls_nh_key_t), sizeof tunnel_probe.key);
  const auto *tunnel =
      static_cast<mpls_tunnel_entry_t *>(avl_search(egress_encap_db->tun_root, &tunnel_probe, compare_tunnels));
  if (tunnel == nullptr) {
    return {nullptr, nullptr};
  }
  mpls_nh_entry_t nh_probe{};
  std::memcpy(&nh_probe.key, &key, sizeof nh_probe.key);
  return {tunnel, static_cast<mpls_nh_entry_t *>(avl_search(tunnel->nh_root, &nh_probe, compare_nhs))};
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
