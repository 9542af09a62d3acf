#include "support/model.h"

#include <cerrno>

namespace encap_test {
namespace {

constexpr std::uint32_t kLabel = 0x1fffff;
constexpr std::uint32_t kNhWord1 = 0x1ffffff;  // te_local_label, is_failover_nh, protocol, is_l2vpn_pref_path

void put(Bytes &to, std::uint32_t value, int width) {
  for (int i = 0; i < width; ++i) {
    to.push_back(static_cast<std::uint8_t>(value >> 8 * i));
  }
}

std::uint32_t word(const egress_encap_key_t &key, std::size_t index) {
  std::uint32_t value;
  std::memcpy(&value, reinterpret_cast<const std::uint8_t *>(&key) + 4 * index, 4);
  return value;
}

void put_bits(egress_encap_key_t &key, std::size_t index, std::uint32_t value, std::uint32_t mask) {
  const std::uint32_t merged = (word(key, index) & ~mask) | (value & mask);
  std::memcpy(reinterpret_cast<std::uint8_t *>(&key) + 4 * index, &merged, 4);
}

}  // namespace

NhKey nh_key(const egress_encap_key_t &key) {
  NhKey image;
  std::memcpy(image.data(), &key, image.size());
  return image;
}

TunnelKey tunnel_key(const egress_encap_key_t &key) {
  TunnelKey image;
  std::memcpy(image.data(), reinterpret_cast<const std::uint8_t *>(&key) + 8, image.size());
  return image;
}

Bytes NhSlot::image() const {
  Bytes bytes;
  for (const std::uint32_t value : {count, label1, word1, seed, ifh, failover_nh}) {
    put(bytes, value, 4);
  }
  put(bytes, tunnel, 2);
  put(bytes, failover_id | is_protected << 12 | valid << 13, 2);
  return bytes;
}

Bytes TunnelSlot::image() const {
  Bytes bytes;
  for (const std::uint32_t value : {count, label2, label3, valid}) {
    put(bytes, value, 4);
  }
  return bytes;
}

Model::Model(std::uint32_t nh_first, std::uint32_t nh_size, std::uint32_t tun_first, std::uint32_t tun_size)
    : nh_start(nh_first),
      nh_end(nh_first + nh_size),
      tun_start(tun_first),
      tun_end(tun_first + tun_size),
      nhs_(nh_size),
      tunnel_slots_(tun_size + 1) {}

std::uint32_t Model::tunnel_slot(std::uint32_t tunnel) const {
  return (tunnel == 0 ? tun_end : tunnel) - tun_start;
}

int Model::find(egress_encap_info_t &info, const egress_encap_key_t &key, bool share) {
  info.tun_found = 0;
  info.nh_found = 0;
  const auto tunnel = tunnels.find(tunnel_key(key));
  if (tunnel == tunnels.end()) {
    return 0;
  }
  info.tun_found = 1;
  info.egr_tun = tunnel->second.index;
  const auto nh = tunnel->second.nhs.find(nh_key(key));
  if (nh == tunnel->second.nhs.end()) {
    return 0;
  }
  info.nh_found = 1;
  info.egr_nh = nh->second;
  return share ? this->share(nh->second) : 0;
}

int Model::share(std::uint32_t index) {
  if (!has_nh(index) || !nh(index).valid) {
    return EINVAL;
  }
  ++nh(index).count;
  return 0;
}

void Model::add_tunnel(std::uint32_t index, const egress_encap_key_t &key) {
  tunnels[tunnel_key(key)].index = index & 0xffff;
  TunnelSlot &slot = tunnel(index);
  slot = {index == 0 ? slot.count : 0, word(key, 2) & kLabel, word(key, 3) & kLabel, 1};
}

void Model::add_nh(const egress_encap_info_t &info, const egress_encap_key_t &key) {
  tunnels.at(tunnel_key(key)).nhs[nh_key(key)] = info.egr_nh;
  nh(info.egr_nh) = {0,
                     word(key, 0) & kLabel,
                     word(key, 1) & kNhWord1,
                     info.seed_nh,
                     key.ifh,
                     info.failover_nh,
                     info.egr_tun & 0xffff,
                     info.failover_id,
                     info.is_protected_te_nh,
                     1};
}

int Model::insert(const egress_encap_info_t &info, const egress_encap_key_t &key) {
  if (info.tun_found && info.nh_found) {
    return 0;
  }
  if (!has_nh(info.egr_nh) || !has_tunnel(info.egr_tun)) {
    return EINVAL;
  }
  const auto known = tunnels.find(tunnel_key(key));
  if ((known != tunnels.end()) != (info.tun_found == 1)) {
    return EINVAL;
  }
  if (!info.tun_found) {
    add_tunnel(info.egr_tun, key);
  } else if (known->second.nhs.contains(nh_key(key))) {
    return EINVAL;
  }
  add_nh(info, key);
  ++nh(info.egr_nh).count;
  if (!tunnel(info.egr_tun).valid) {
    return EINVAL;
  }
  ++tunnel(info.egr_tun).count;
  return 0;
}

int Model::attach(const egress_encap_info_t &info, std::uint32_t count, const egress_encap_key_t &key) {
  const int status = insert(info, key);
  return status ? status : set(info.egr_nh, count);
}

int Model::set(std::uint32_t index, std::uint32_t count) {
  if (!has_nh(index) || !nh(index).valid) {
    return EINVAL;
  }
  nh(index).count = count;
  return 0;
}

egress_encap_key_t Model::key_of(std::uint32_t index) const {
  egress_encap_aux_data_t aux;
  egress_encap_key_t key{};
  read(index, aux, key);
  return key;
}

bool Model::drop_tunnel_reference(std::uint32_t index, std::uint32_t &prm) {
  TunnelSlot &slot = tunnel(index);
  if (slot.count == 0 || !slot.valid) {
    return false;
  }
  prm = --slot.count == 0;
  return true;
}

// The common road of detach and release from the tunnel look-up on. Returns 22 when there is no such tunnel.
int Model::remove(std::uint32_t index, std::uint32_t prm, bool &removed) {
  const egress_encap_key_t key = key_of(index);
  const std::uint32_t tunnel_index = nh(index).tunnel;
  const auto entry = tunnels.find(tunnel_key(key));
  if (entry == tunnels.end()) {
    return EINVAL;
  }
  std::uint32_t edb = prm;
  if (entry->second.nhs.erase(nh_key(key)) == 1) {
    removed = true;
    nh(index) = {};
    edb = entry->second.nhs.empty() && tunnel_index == 0 ? 1 : edb;
  }
  if (edb && entry->second.nhs.empty()) {
    tunnels.erase(entry);
    if (tunnel_index != 0) {
      tunnel(tunnel_index) = {};
    }
  }
  return 0;
}

int Model::detach(std::uint32_t index, Outs &outs) {
  if (!has_nh(index)) {
    return EINVAL;
  }
  outs = {0, 0, 0};
  if (!nh(index).valid) {
    return EINVAL;
  }
  outs.third = nh(index).count;
  const std::uint32_t tunnel_index = nh(index).tunnel;
  std::uint32_t prm = 0;
  bool removed = false;
  const bool counted = drop_tunnel_reference(tunnel_index, prm);
  if (remove(index, prm, removed) != 0) {
    return EINVAL;
  }
  outs.first = tunnel_index;
  outs.second = prm;
  return counted ? 0 : EINVAL;
}

int Model::release(std::uint32_t index, Outs &outs) {
  if (!has_nh(index) || !nh(index).valid || nh(index).count == 0) {
    return EINVAL;
  }
  if (--nh(index).count != 0) {
    return 0;
  }
  const std::uint32_t tunnel_index = nh(index).tunnel;
  std::uint32_t prm = 0;
  bool removed = false;
  const bool counted = drop_tunnel_reference(tunnel_index, prm);
  if (remove(index, prm, removed) != 0) {
    return EINVAL;
  }
  outs.first = tunnel_index;
  outs.second = removed ? 1 : outs.second;
  outs.third = prm;
  return counted ? 0 : EINVAL;
}

int Model::can_delete(std::uint32_t index) const {
  return has_nh(index) && nh(index).valid && nh(index).count == 1;
}

int Model::update(std::uint32_t index, const egr_nh_data_t &data) {
  if (!has_nh(index) || !nh(index).valid) {
    return EINVAL;
  }
  nh(index).seed = data.seed_nh;
  nh(index).failover_nh = data.failover_nh;
  nh(index).failover_id = data.failover_id;
  nh(index).is_protected = data.is_protected_te_nh;
  return 0;
}

int Model::read(std::uint32_t index, egress_encap_aux_data_t &aux, egress_encap_key_t &key) const {
  if (!has_nh(index) || !nh(index).valid) {
    return EINVAL;
  }
  const NhSlot &slot = nh(index);
  aux.egr_tun = slot.tunnel;
  aux.seed_nh = slot.seed;
  aux.is_protected_te_nh = slot.is_protected;
  aux.failover_id = static_cast<std::uint16_t>(slot.failover_id);
  aux.failover_nh = slot.failover_nh;
  put_bits(key, 0, slot.label1, kLabel);
  put_bits(key, 1, slot.word1, kNhWord1);
  put_bits(key, 2, tunnel(slot.tunnel).label2, kLabel);
  put_bits(key, 3, tunnel(slot.tunnel).label3, kLabel);
  key.ifh = slot.ifh;
  return 0;
}

}  // namespace encap_test
