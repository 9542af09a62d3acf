#include "slots.h"

#include <cerrno>
#include <cstring>

#include "../diag/error_messages.h"
#include "values.h"

namespace encap {
namespace {

constexpr std::uint32_t kLabelMask = (1U << 21) - 1;
constexpr std::uint32_t kTunnelIndexMask = 0xffff;
constexpr std::uint32_t kFailoverIdMask = (1U << 12) - 1;

}  // namespace

void vrl_mem_set_egr_nh_data(std::uint32_t nh_index, std::uint32_t egr_tun, mpls_nh_key_t key, std::uint32_t ifh,
                             std::uint32_t seed_nh, std::uint32_t is_protected_te_nh, std::uint32_t failover_id,
                             std::uint32_t failover_nh) {
  egr_nh_info_t &slot = nh_slot(nh_index);
  slot.egr_tun = static_cast<std::uint16_t>(egr_tun & kTunnelIndexMask);
  slot.out_label1 = key.out_label1;
  slot.te_local_label = key.te_local_label;
  slot.is_failover_nh = key.is_failover_nh;
  slot.is_l2vpn_pref_path = key.is_l2vpn_pref_path;
  slot.protocol = key.protocol;
  slot.ifh = ifh;
  slot.ref_count = 0;
  slot.valid = 1;
  slot.seed_nh = seed_nh;
  slot.is_protected_te_nh = is_protected_te_nh & 1U;
  slot.failover_id = failover_id & kFailoverIdMask;
  slot.failover_nh = failover_nh;
  emit<Point::nh_slot_set>(egr_tun, nh_index, nh_fields(key), ifh, is_protected_te_nh, failover_id, failover_nh);
}

int vrl_mem_get_key_from_egr_nh(std::uint32_t nh_index, egress_encap_aux_data_t *aux, egress_encap_key_t *key) {
  const egr_nh_info_t &slot = nh_slot(nh_index);
  // Ranges past 16 bits cut an index on its way into a slot; what came out of it is then no index of this array.
  if (slot.valid == 0 || !tunnel_in_range(slot.egr_tun)) {
    emit<Point::nh_read_back_not_valid>(nh_index);
    return EINVAL;
  }
  key->out_label1 = slot.out_label1;
  key->te_local_label = slot.te_local_label;
  key->is_failover_nh = slot.is_failover_nh;
  key->is_l2vpn_pref_path = slot.is_l2vpn_pref_path;
  key->protocol = slot.protocol;
  key->ifh = slot.ifh;
  aux->egr_tun = slot.egr_tun;
  aux->seed_nh = slot.seed_nh;
  aux->is_protected_te_nh = slot.is_protected_te_nh;
  aux->failover_id = slot.failover_id;
  aux->failover_nh = slot.failover_nh;
  const egr_tun_info_t &tunnel = tunnel_slot(aux->egr_tun);
  key->out_label2 = tunnel.out_label2;
  key->out_label3 = tunnel.out_label3;
  emit<Point::nh_read_back>(nh_index, aux->egr_tun, tunnel_slot_number(aux->egr_tun), key->out_label1, key->out_label2,
                            key->out_label3, key->te_local_label, key->is_failover_nh, key->is_l2vpn_pref_path,
                            key->protocol, key->ifh, aux->seed_nh, aux->is_protected_te_nh, aux->failover_id,
                            aux->failover_nh);
  return 0;
}

[[gnu::cold, gnu::noinline]] int refuse_nh_count_up(std::uint32_t nh_index, std::uint32_t ref_count) {
  emit<Point::nh_count_up_not_valid>(nh_index, ref_count);
  raise_nh_not_valid("vrl_mem_increment_egr_nh_ref_count", nh_index, ref_count);
  return EINVAL;
}

int vrl_mem_increment_egr_nh_ref_count(std::uint32_t nh_index) {
  egr_nh_info_t &slot = nh_slot(nh_index);
  if (slot.valid == 0) {
    return refuse_nh_count_up(nh_index, slot.ref_count);
  }
  ++slot.ref_count;
  emit<Point::nh_count_up>(nh_index, slot.ref_count);
  return 0;
}

int vrl_mem_decrement_egr_nh_ref_count(std::uint32_t nh_index, int *del) {
  egr_nh_info_t &slot = nh_slot(nh_index);
  *del = 0;
  if (slot.ref_count == 0) {
    emit<Point::nh_count_down_at_zero>(nh_index, slot.ref_count);
    return EINVAL;
  }
  if (slot.valid == 0) {
    emit<Point::nh_count_down_not_valid>(nh_index, slot.ref_count);
    raise_nh_not_valid("vrl_mem_decrement_egr_nh_ref_count", nh_index, slot.ref_count);
    return EINVAL;
  }
  --slot.ref_count;
  *del = slot.ref_count == 0 ? 1 : 0;
  emit<Point::nh_count_down>(nh_index, slot.ref_count, *del);
  return 0;
}

void vrl_mem_clear_egr_nh_data(std::uint32_t nh_index) {
  std::memset(&nh_slot(nh_index), 0, sizeof(egr_nh_info_t));
}

void vrl_mem_set_egr_tun_data(std::uint32_t tunnel_if, std::uint32_t out_label2, std::uint32_t out_label3) {
  egr_tun_info_t &slot = tunnel_slot(tunnel_if);
  slot.out_label2 = out_label2 & kLabelMask;
  slot.out_label3 = out_label3 & kLabelMask;
  slot.valid = 1;
  if (tunnel_if != 0) {
    slot.ref_count = 0;
  }
  emit<Point::tunnel_slot_set>(tunnel_if, out_label2, out_label3);
}

int vrl_mem_increment_egr_tunnel_ref_count(std::uint32_t tunnel_if) {
  egr_tun_info_t &slot = tunnel_slot(tunnel_if);
  const std::uint32_t number = tunnel_slot_number(tunnel_if);
  if (slot.valid == 0) {
    emit<Point::tunnel_count_up_not_valid>(tunnel_if, number, slot.ref_count);
    // The name in this message is its own, not quite that of the function.
    raise_tunnel_not_valid("vrl_mem_increment_egr_tun_ref_count", tunnel_if, number, slot.ref_count);
    return EINVAL;
  }
  ++slot.ref_count;
  emit<Point::tunnel_count_up>(tunnel_if, number, slot.ref_count);
  return 0;
}

int vrl_mem_decrement_egr_tunnel_ref_count(std::uint32_t tunnel_if, int *del) {
  egr_tun_info_t &slot = tunnel_slot(tunnel_if);
  if (slot.ref_count == 0) {
    emit<Point::tunnel_count_down_at_zero>(tunnel_if, slot.ref_count);
    return EINVAL;
  }
  if (slot.valid == 0) {
    emit<Point::tunnel_count_down_not_valid>(tunnel_if, slot.ref_count);
    raise_tunnel_not_valid("vrl_mem_decrement_egr_tunnel_ref_count", tunnel_if, tunnel_slot_number(tunnel_if),
                           slot.ref_count);
    return EINVAL;
  }
  --slot.ref_count;
  if (slot.ref_count == 0) {
    *del = 1;
  }
  emit<Point::tunnel_count_down>(tunnel_if, slot.ref_count, *del);
  return 0;
}

void vrl_mem_clear_egr_tun_data(std::uint32_t tunnel_if) {
  if (tunnel_if != 0) {
    std::memset(&tunnel_slot(tunnel_if), 0, sizeof(egr_tun_info_t));
  }
}

}  // namespace encap
