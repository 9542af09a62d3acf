// The one checker of databases: trees against slots, slots against counts, and all of it against the model.
#include <algorithm>
#include <sstream>

#include "support/model.h"

namespace encap_test {
namespace {

std::uint64_t link(const void *node, std::size_t word) {
  std::uint64_t value;
  std::memcpy(&value, static_cast<const std::uint8_t *>(node) + 8 * word, 8);
  return value;
}

void *node_at(std::uint64_t address) {
  return reinterpret_cast<void *>(address);
}

const mpls_tunnel_entry_t &tunnel_node(const void *node) {
  return *static_cast<const mpls_tunnel_entry_t *>(node);
}
const mpls_nh_entry_t &nh_node(const void *node) {
  return *static_cast<const mpls_nh_entry_t *>(node);
}

template <typename Key>
Key key_at(const void *node) {
  Key key;
  std::memcpy(key.data(), static_cast<const std::uint8_t *>(node) + 24, key.size());
  return key;
}

template <typename Slot>
Bytes image_of(const Slot &slot) {
  const auto *bytes = reinterpret_cast<const std::uint8_t *>(&slot);
  return {bytes, bytes + sizeof slot};
}

bool zero(const std::uint8_t *bytes, std::size_t count) {
  return std::all_of(bytes, bytes + count, [](std::uint8_t byte) { return byte == 0; });
}

// The trees of a database in the model's shape; "order" and "spare" are reported through `wrong`.
std::map<TunnelKey, Tunnel> trees(const egress_encap_db_t &header, Walk walk, std::string &wrong) {
  std::map<TunnelKey, Tunnel> all;
  for (void *node : walk(header.tun_root)) {
    const auto &tunnel = tunnel_node(node);
    const auto key = key_at<TunnelKey>(node);
    if (!all.empty() && !(all.rbegin()->first < key)) {
      wrong += "tunnel tree out of order\n";
    }
    if (tunnel.spare != 0 || !zero(tunnel.zero, sizeof tunnel.zero)) {
      wrong += "spare bytes of a tunnel node\n";
    }
    Tunnel &found = all[key];
    found.index = tunnel.egr_tun;
    for (void *leaf : walk(tunnel.nh_root)) {
      const auto nh = key_at<NhKey>(leaf);
      if (!found.nhs.empty() && !(found.nhs.rbegin()->first < nh)) {
        wrong += "NH tree out of order\n";
      }
      if (nh_node(leaf).spare != 0) {
        wrong += "spare bytes of an NH node\n";
      }
      found.nhs[nh] = nh_node(leaf).nh_index;
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
    const Bytes is = image_of(slots[i]);
    if (is != expected[i].image()) {
      out << kind << " slot " << i << "\n  is        " << hex(is) << "\n  should be " << hex(expected[i].image())
          << '\n';
    }
  }
}

}  // namespace

std::string hex(const Bytes &bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    text += i != 0 && i % 4 == 0 ? " " : "";
    text += {kDigits[bytes[i] >> 4], kDigits[bytes[i] & 15]};
  }
  return text;
}

std::vector<void *> walk_list(void *root) {
  std::vector<void *> nodes;
  for (void *node = root; node != nullptr; node = node_at(link(node, 0))) {
    nodes.push_back(node);
  }
  return nodes;
}

std::vector<void *> walk_avl(void *root) {
  std::vector<void *> nodes;
  std::vector<void *> above;
  for (void *node = root; node != nullptr || !above.empty();) {
    for (; node != nullptr; node = node_at(link(node, 0))) {
      above.push_back(node);
    }
    nodes.push_back(above.back());
    above.pop_back();
    node = node_at(link(nodes.back(), 1));
  }
  return nodes;
}

std::string differences(const egress_encap_db_t &header, const Model &model, Walk walk) {
  std::ostringstream out;
  const std::array is{header.nh_start, header.nh_end, header.tun_start, header.tun_end};
  if (is != std::array{model.nh_start, model.nh_end, model.tun_start, model.tun_end}) {
    out << "ranges differ\n";
  }
  compare_slots("NH", header.nh_info_array, model.nh_slots(), out);
  compare_slots("tunnel", header.tun_info_array, model.tunnel_slots(), out);
  std::string wrong;
  const std::string tree_text = text_of(trees(header, walk, wrong));
  if (tree_text != text_of(model.tunnels)) {
    out << "trees are\n" << tree_text << "should be\n" << text_of(model.tunnels);
  }
  return out.str() + wrong;
}

std::string inconsistency(const egress_encap_db_t &header, Walk walk) {
  std::string wrong;
  const auto tunnels = trees(header, walk, wrong);
  std::map<std::uint32_t, std::uint32_t> users;  // NHs that ride on each tunnel index
  std::uint32_t nodes = 0;
  for (const auto &[tunnel_key, tunnel] : tunnels) {
    for (const auto &[nh_key, index] : tunnel.nhs) {
      const auto &slot = header.nh_info_array[index - header.nh_start];
      std::uint32_t ifh;
      std::memcpy(&ifh, tunnel_key.data() + 8, 4);
      const bool same = std::memcmp(image_of(slot).data() + 4, nh_key.data(), nh_key.size()) == 0;
      if (!slot.valid || slot.egr_tun != tunnel.index || slot.ifh != ifh || !same) {
        wrong += "slot of NH " + std::to_string(index) + " does not match its node\n";
      }
      ++users[tunnel.index];
      ++nodes;
    }
  }
  for (std::uint32_t i = header.nh_start; i != header.nh_end; ++i) {
    nodes -= header.nh_info_array[i - header.nh_start].valid;
  }
  wrong += nodes == 0 ? "" : "a valid NH slot has no node\n";
  for (std::uint32_t i = header.tun_start; i != header.tun_end + 1; ++i) {
    const auto &slot = header.tun_info_array[i - header.tun_start];
    const std::uint32_t index = i == header.tun_end ? 0 : i;
    if (index == 0 && i != header.tun_end) {
      continue;  // a range that begins at 0: index 0 is the null tunnel all the same
    }
    const bool known = index == 0 || users.contains(index) == (slot.valid != 0);
    if (slot.ref_count != users[index] || !known) {
      wrong += "tunnel " + std::to_string(index) + " counts " + std::to_string(slot.ref_count) + " of " +
               std::to_string(users[index]) + " NHs\n";
    }
  }
  return wrong;
}

}  // namespace encap_test
