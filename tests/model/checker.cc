// Records as bytes: their images, names and keys, and the slots that operations fill and read back. And the one checker
// of databases: trees against slots, slots against counts, and all of it against the model.
#include <algorithm>
#include <sstream>

#include "model/model.h"

namespace encap_test {
namespace {

constexpr std::uint32_t kLabel = 0x1fffff;
constexpr std::uint32_t kNhWord1 = 0x1ffffff;  // te_local_label, is_failover_nh, protocol, is_l2vpn_pref_path

std::uint32_t word(const egress_encap_key_t &key, std::size_t index) {
  std::uint32_t value;
  std::memcpy(&value, reinterpret_cast<const std::uint8_t *>(&key) + 4 * index, 4);
  return value;
}

void put_bits(egress_encap_key_t &key, std::size_t index, std::uint32_t value, std::uint32_t mask) {
  const std::uint32_t merged = (word(key, index) & ~mask) | (value & mask);
  std::memcpy(reinterpret_cast<std::uint8_t *>(&key) + 4 * index, &merged, 4);
}

void put(Bytes &to, std::uint32_t value, int width) {
  for (int i = 0; i < width; ++i) {
    to.push_back(static_cast<std::uint8_t>(value >> 8 * i));
  }
}

template <typename Key>
Key part_of(const egress_encap_key_t &key, std::size_t from) {
  Key part;
  std::memcpy(part.data(), reinterpret_cast<const std::uint8_t *>(&key) + from, part.size());
  return part;
}
}  // namespace

NhKey nh_key(const egress_encap_key_t &key) {
  return part_of<NhKey>(key, 0);
}
TunnelKey tunnel_key(const egress_encap_key_t &key) {
  return part_of<TunnelKey>(key, 8);
}
std::string name_of(KeyBytes key) {
  std::string name;
  for (std::size_t i = 0; i < key.size(); i += 4) {
    std::uint32_t value;
    std::memcpy(&value, key.data() + i, 4);
    name += (i != 0 ? "/" : key.size() == sizeof(NhKey) ? "N:" : "T:") + std::to_string(value);
  }
  return name;
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

std::string hex(const Bytes &bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    text += i != 0 && i % 4 == 0 ? " " : "";
    text += {kDigits[bytes[i] >> 4], kDigits[bytes[i] & 15]};
  }
  return text;
}

Model::Model(std::uint32_t nh_first, std::uint32_t nh_size, std::uint32_t tun_first, std::uint32_t tun_size)
    : nh_start(nh_first),
      nh_end(nh_first + nh_size),
      tun_start(tun_first),
      tun_end(tun_first + tun_size),
      nhs_(nh_size),
      tunnel_slots_(tun_size + 1) {}

std::uint32_t Model::free_nh() const {
  const auto free = std::find_if(nhs_.begin(), nhs_.end(), [](const NhSlot &slot) { return slot.valid == 0; });
  return nh_start + static_cast<std::uint32_t>(free - nhs_.begin());
}

std::uint32_t Model::free_tunnel() const {
  const auto last = tunnel_slots_.end() - 1;  // the null tunnel's
  const auto free = std::find_if(tunnel_slots_.begin(), last, [](const TunnelSlot &slot) { return slot.valid == 0; });
  return tun_start + static_cast<std::uint32_t>(free - tunnel_slots_.begin());
}

void Model::know_key(const egress_encap_key_t &key) {
  const std::uint32_t bits = word(key, 1);
  know({{"l1", word(key, 0) & kLabel}, {"l2", word(key, 2) & kLabel}, {"l3", word(key, 3) & kLabel}});
  know({{"te", bits & kLabel}, {"fo", bits >> 21 & 1}, {"proto", bits >> 22 & 3}, {"l2vpn", bits >> 24 & 1}});
  know({{"ifh", key.ifh}});
}

void Model::add_tunnel(std::uint32_t index, const egress_encap_key_t &key) {
  tunnels[tunnel_key(key)].index = index & 0xffff;
  TunnelSlot &slot = tunnel(index);
  slot = {index == 0 ? slot.count : 0, word(key, 2) & kLabel, word(key, 3) & kLabel, 1};
  point(23, {{"tun", index}});
}

void Model::add_nh(const egress_encap_info_t &info, const egress_encap_key_t &key) {
  tunnels.at(tunnel_key(key)).nhs[nh_key(key)] = info.egr_nh;
  NhSlot &slot = nh(info.egr_nh);
  slot = {0, word(key, 0) & kLabel, word(key, 1) & kNhWord1, info.seed_nh, key.ifh, info.failover_nh};
  slot.tunnel = info.egr_tun & 0xffff;
  slot.failover_id = info.failover_id;
  slot.is_protected = info.is_protected_te_nh;
  slot.valid = 1;
  point(22);
}

int Model::read_back(std::uint32_t index, egress_encap_aux_data_t &aux, egress_encap_key_t &key) {
  const NhSlot &slot = nh(index);
  if (!slot.valid || !has_tunnel(slot.tunnel)) {
    return point(24);
  }
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
  know_key(key);
  know({{"tun", slot.tunnel}, {"slot", tunnel_slot(slot.tunnel)}, {"seed", slot.seed}});
  point(25, {{"prot", slot.is_protected}, {"fid", slot.failover_id}, {"fnh", slot.failover_nh}});
  return 0;
}

// ------------------------------------------------------------------------------------------------------------ checker

namespace {

void *link(const void *node, std::size_t word) {
  void *value;
  std::memcpy(&value, static_cast<const std::uint8_t *>(node) + 8 * word, 8);
  return value;
}

// The key in a tree's node.
template <typename Key>
Key key_at(const void *node) {
  Key key;
  std::memcpy(key.data(), static_cast<const std::uint8_t *>(node) + 24, key.size());
  return key;
}

bool zero(const std::uint8_t *bytes, std::size_t count) {
  return std::all_of(bytes, bytes + count, [](std::uint8_t byte) { return byte == 0; });
}

// The trees of a database in the model's shape; "order" and "spare" are reported through `wrong`.
std::map<TunnelKey, Tunnel> trees(const egress_encap_db_t &header, std::string &wrong) {
  std::map<TunnelKey, Tunnel> all;
  for (void *node : walk_avl(header.tun_root)) {
    const auto &tunnel = *static_cast<const mpls_tunnel_entry_t *>(node);
    const auto key = key_at<TunnelKey>(node);
    if (!all.empty() && !(all.rbegin()->first < key)) {
      wrong += "tunnel tree out of order\n";
    }
    if (tunnel.spare != 0 || !zero(tunnel.zero, sizeof tunnel.zero)) {
      wrong += "spare bytes of a tunnel node\n";
    }
    Tunnel &found = all[key];
    found.index = tunnel.egr_tun;
    for (void *leaf : walk_avl(tunnel.nh_root)) {
      const auto nh = key_at<NhKey>(leaf);
      if (!found.nhs.empty() && !(found.nhs.rbegin()->first < nh)) {
        wrong += "NH tree out of order\n";
      }
      const auto &entry = *static_cast<const mpls_nh_entry_t *>(leaf);
      if (entry.spare != 0) {
        wrong += "spare bytes of an NH node\n";
      }
      found.nhs[nh] = entry.nh_index;
    }
  }
  return all;
}

std::string text_of(const std::map<TunnelKey, Tunnel> &tunnels) {
  std::ostringstream text;
  for (const auto &[key, tunnel] : tunnels) {
    text << "  tunnel " << hex({key.begin(), key.end()}) << " index " << tunnel.index << '\n';
    for (const auto &[nh, index] : tunnel.nhs) {
      text << "    nh " << hex({nh.begin(), nh.end()}) << " index " << index << '\n';
    }
  }
  return text.str();
}

template <typename Slot, typename Expected>
void compare_slots(const char *kind, const Slot *slots, const std::vector<Expected> &expected, std::ostream &out) {
  for (std::size_t i = 0; i < expected.size(); ++i) {
    const Bytes is = bytes_of(slots[i]);
    if (is != expected[i].image()) {
      out << kind << " slot " << i << "\n  is        " << hex(is) << "\n  should be " << hex(expected[i].image())
          << '\n';
    }
  }
}

}  // namespace

std::vector<void *> walk_avl(void *root) {
  std::vector<void *> nodes;
  std::vector<void *> above;
  for (void *node = root; node != nullptr || !above.empty();) {
    for (; node != nullptr; node = link(node, 0)) {
      above.push_back(node);
    }
    nodes.push_back(above.back());
    above.pop_back();
    node = link(nodes.back(), 1);
  }
  return nodes;
}

std::string differences(const egress_encap_db_t &header, const Model &model) {
  std::ostringstream out;
  const std::array is{header.nh_start, header.nh_end, header.tun_start, header.tun_end};
  if (is != std::array{model.nh_start, model.nh_end, model.tun_start, model.tun_end}) {
    out << "ranges differ\n";
  }
  compare_slots("NH", header.nh_info_array, model.nh_slots(), out);
  compare_slots("tunnel", header.tun_info_array, model.tunnel_slots(), out);
  std::string wrong;
  if (const auto are = trees(header, wrong); are != model.tunnels) {
    out << "trees are\n" << text_of(are) << "should be\n" << text_of(model.tunnels);
  }
  return out.str() + wrong;
}

Model model_of(const egress_encap_db_t &header) {
  Model model(header.nh_start, header.nh_end - header.nh_start, header.tun_start, header.tun_end - header.tun_start);
  std::string ignored;
  for (const auto &[tunnel_key, tunnel] : trees(header, ignored)) {
    egress_encap_key_t key{};
    auto *const bytes = reinterpret_cast<std::uint8_t *>(&key);
    std::copy(tunnel_key.begin(), tunnel_key.end(), bytes + sizeof(NhKey));
    model.add_tunnel(tunnel.index, key);
    for (const auto &[nh_key, index] : tunnel.nhs) {
      std::copy(nh_key.begin(), nh_key.end(), bytes);
      const egr_nh_info_t &slot = header.nh_info_array[index - header.nh_start];
      egress_encap_info_t info{};
      info.egr_nh = index;
      info.egr_tun = tunnel.index;
      info.seed_nh = slot.seed_nh;
      info.failover_nh = slot.failover_nh;
      info.failover_id = slot.failover_id;
      info.is_protected_te_nh = slot.is_protected_te_nh;
      model.add_nh(info, key);
      model.nh(index).count = slot.ref_count;
      ++model.tunnel(tunnel.index).count;
    }
  }
  // The null tunnel's slot is never cleared, and has the labels that were entered last.
  const egr_tun_info_t &null_slot = header.tun_info_array[model.tunnel_slot(0)];
  TunnelSlot &null_tunnel = model.tunnel(0);
  null_tunnel = {null_tunnel.count, null_slot.out_label2, null_slot.out_label3, null_slot.valid};
  return model;
}

std::string inconsistency(const egress_encap_db_t &header) {
  const Model model = model_of(header);
  std::string wrong = differences(header, model);
  for (const auto &[key, tunnel] : model.tunnels) {
    wrong += tunnel.nhs.empty() ? "tunnel " + std::to_string(tunnel.index) + " has no NH\n" : "";
  }
  return wrong;
}

}  // namespace encap_test
