#include "database.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "survey.h"

namespace encap_inspect {
namespace {

template <typename Node, typename Key>
const Node *find_key(const Node *begin, const Node *end, const Key &key) {
  const auto before = [](const Node &node, const Key &wanted) {
    return std::memcmp(&node.key, &wanted, sizeof wanted) < 0;
  };
  const Node *found = std::lower_bound(begin, end, key, before);
  return found != end && std::memcmp(&found->key, &key, sizeof key) == 0 ? found : nullptr;
}

}  // namespace

Database decode(const View &view) {
  return std::move(survey(view).db);
}

const egr_nh_info_t *Database::nh_slot(std::uint32_t index) const {
  return nh_in_range(index) ? view->record<egr_nh_info_t>(nh_array + sizeof(egr_nh_info_t) * (index - nh_start))
                            : nullptr;
}

const egr_tun_info_t *Database::tunnel_slot(std::uint32_t index) const {
  return tunnel_in_range(index)
             ? view->record<egr_tun_info_t>(tun_array + sizeof(egr_tun_info_t) * tunnel_slot_number(index))
             : nullptr;
}

const TunnelNode *Database::find_tunnel(const mpls_tunnel_key_t &key) const {
  return find_key(tunnels.data(), tunnels.data() + tunnels.size(), key);
}

const NhNode *Database::find_nh(const TunnelNode &tunnel, const mpls_nh_key_t &key) const {
  const NhNode *first = nhs.data() + tunnel.first_nh;
  return find_key(first, first + tunnel.nh_count, key);
}

egress_encap_key_t Database::full_key(const NhNode &nh) const {
  egress_encap_key_t key;
  std::memcpy(&key, &nh.key, sizeof nh.key);
  std::memcpy(reinterpret_cast<std::uint8_t *>(&key) + sizeof nh.key, &tunnels[nh.tunnel].key,
              sizeof(mpls_tunnel_key_t));
  return key;
}

}  // namespace encap_inspect
