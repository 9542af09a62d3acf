#include "aftermath.h"

namespace crash {
namespace {

using encap_test::Model;
using encap_test::NhSlot;

template <typename Slot>
encap_test::Bytes bytes_of(const Slot &slot) {
  const auto *bytes = reinterpret_cast<const std::uint8_t *>(&slot);
  return {bytes, bytes + sizeof slot};
}

bool one_of(std::uint32_t value, std::uint32_t a, std::uint32_t b) {
  return value == a || value == b;
}

// An NH that stays after its operation was cut off and repaired: an identity as before or after, field by field of the
// data old or new, a count that the operation passes through. A new NH that nobody counts yet may lack some of its
// data.
bool is_between(const egr_nh_info_t &slot, const NhSlot &before, const NhSlot &after) {
  const NhSlot &shape = after.valid != 0 ? after : before;
  NhSlot is = shape;
  is.count = slot.ref_count;
  is.seed = slot.seed_nh;
  is.failover_nh = slot.failover_nh;
  is.failover_id = slot.failover_id;
  is.is_protected = slot.is_protected_te_nh;
  const NhSlot unfilled{};
  const NhSlot &old = before.valid != 0 ? before : is.count == 0 ? unfilled : after;
  const bool counted =
      one_of(is.count, old.count, shape.count) || is.count == 0 || (before.valid == 0 && is.count == 1);
  return bytes_of(slot) == is.image() && counted && one_of(is.seed, old.seed, shape.seed) &&
         one_of(is.failover_nh, old.failover_nh, shape.failover_nh) &&
         one_of(is.failover_id, old.failover_id, shape.failover_id) &&
         one_of(is.is_protected, old.is_protected, shape.is_protected);
}

egress_encap_key_t full_key(const encap_test::TunnelKey &tunnel, const encap_test::NhKey &nh) {
  egress_encap_key_t key;
  auto *bytes = reinterpret_cast<std::uint8_t *>(&key);
  std::memcpy(bytes, nh.data(), nh.size());
  std::memcpy(bytes + nh.size(), tunnel.data(), tunnel.size());
  return key;
}

}  // namespace

Expectation::Expectation(const Scenario &scenario, Model before)
    : before_(std::move(before)), after_(before_), interrupted_(scenario.when) {
  for (const Operation &operation : scenario.when) {
    on_model(after_, operation);
    nhs_.insert(operation.nh);
    if (operation.verb == Verb::kInsert || operation.verb == Verb::kAttach) {
      tunnels_.insert(operation.info.egr_tun);
    } else {
      tunnels_.insert(before_.nh(operation.nh).tunnel);
    }
  }
  for (const auto &[tunnel_key, tunnel] : before_.tunnels) {
    for (const auto &[nh_key, nh] : tunnel.nhs) {
      if (!interrupted_.empty() && nh == interrupted_.front().nh) {
        interrupted_.front().key = full_key(tunnel_key, nh_key);
      }
      if (!touches_nh(nh)) {
        untouched_.emplace_back(full_key(tunnel_key, nh_key), nh);
      }
    }
  }
}

std::string Expectation::difference(const egress_encap_db_t &header) const {
  std::string wrong = encap_test::inconsistency(header, encap_test::walk_avl);
  for (std::uint32_t nh = before_.nh_start; nh != before_.nh_end; ++nh) {
    const egr_nh_info_t &slot = header.nh_info_array[nh - before_.nh_start];
    const encap_test::Bytes is = bytes_of(slot);
    const bool right = touches_nh(nh) ? is == NhSlot{}.image() || is_between(slot, before_.nh(nh), after_.nh(nh))
                                      : is == before_.nh(nh).image();
    if (!right) {
      wrong += "NH slot " + std::to_string(nh) + " is " + encap_test::hex(is) + ", was " +
               encap_test::hex(before_.nh(nh).image()) + '\n';
    }
  }
  return wrong + tunnel_difference(header);
}

std::string Expectation::tunnel_difference(const egress_encap_db_t &header) const {
  std::string wrong;
  for (std::uint32_t number = 0; number <= before_.tun_end - before_.tun_start; ++number) {
    const std::uint32_t tunnel = number == before_.tun_end - before_.tun_start ? 0 : before_.tun_start + number;
    const encap_test::Bytes is = bytes_of(header.tun_info_array[number]);
    if (!touches_tunnel(tunnel) && is != before_.tunnel(tunnel).image()) {
      wrong += "tunnel slot " + std::to_string(tunnel) + " is " + encap_test::hex(is) + ", was " +
               encap_test::hex(before_.tunnel(tunnel).image()) + '\n';
    }
  }
  return wrong;
}

}  // namespace crash
