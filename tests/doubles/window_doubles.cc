// Doubles of the window allocator and of the tree service. The trees are sorted lists, each node the right child of
// the one before; the root field they are handed (or its copy) is the only one they change.
#include <algorithm>
#include <cstring>

#include "avl.h"
#include "doubles/journal.h"
#include "model/model_steps.h"
#include "shmwin.h"

namespace encap_test {
namespace {

constexpr std::size_t kNhNode = 40;
constexpr std::size_t kTunnelNode = 56;
constexpr std::uint64_t kInTree = 0x1234567890abcdef;  // third link word of a node that is in a tree

struct Node {
  std::uint64_t zero;
  Node *next;
  std::uint64_t in_tree;
  std::uint8_t key[32];
};

Compare last_order[2];

Node *node_of(const void *node) {
  return static_cast<Node *>(const_cast<void *>(node));
}

// An order that looks at 12 bytes tells these two apart, one that looks at 8 does not.
bool orders_tunnels(Compare compare) {
  std::uint8_t a[kTunnelNode] = {};
  std::uint8_t b[kTunnelNode] = {};
  b[24 + 11] = 1;
  return compare(a, b) != 1;
}

bool is_block(const std::uint8_t *at, std::size_t bytes) {
  const auto found = arena().blocks().find(const_cast<std::uint8_t *>(at));
  return found != arena().blocks().end() && found->second == bytes;
}

std::string key_name(const void *node, bool tunnel) {
  return name_of({node_of(node)->key, tunnel ? sizeof(TunnelKey) : sizeof(NhKey)});
}

std::string block_name(void *block) {
  const auto *bytes = static_cast<std::uint8_t *>(block);
  const bool tunnel = is_block(bytes, kTunnelNode);
  return tunnel || is_block(bytes, kNhNode) ? key_name(block, tunnel) : "nothing";
}

// A root field by its address: the header's, a tunnel node's, or a copy somewhere else.
std::string field_name(void **root) {
  const auto *at = reinterpret_cast<std::uint8_t *>(root);
  if (root == &arena().header()->tun_root) {
    return "tun_root";
  }
  return is_block(at - 40, kTunnelNode) ? "nh_root" : arena().covers(root) ? "nowhere" : "copy";
}

// A root by its value.
std::string root_name(const void *root) {
  if (root == nullptr) {
    return "empty";
  }
  if (root == arena().header()->tun_root) {
    return "tun_root";
  }
  for (const auto &[block, bytes] : arena().blocks()) {
    void *nh_root;
    std::memcpy(&nh_root, block + 40, sizeof nh_root);
    if (bytes == kTunnelNode && nh_root == root) {
      return "nh_root";
    }
  }
  return "nowhere";
}

// Whether all of a node but its key is zero.
bool pristine(const void *node, bool tunnel) {
  std::uint8_t image[kTunnelNode] = {};
  std::memcpy(image, node, tunnel ? kTunnelNode : kNhNode);
  std::memset(image + 24, 0, tunnel ? 12 : 8);
  return std::all_of(image, image + sizeof image, [](std::uint8_t byte) { return byte == 0; });
}

Node **place_of(Node **at, const Node *node, Compare compare) {
  while (*at != nullptr && compare(*at, node) == 0) {
    at = &(*at)->next;
  }
  return at;
}

}  // namespace

Compare tunnel_order() {
  return last_order[0];
}
Compare nh_order() {
  return last_order[1];
}

}  // namespace encap_test

using namespace encap_test;

int shmwin_malloc(std::uint32_t shm_id, std::size_t size, void **block) {
  const auto ordered = faults().due("malloc");
  journal().add(entry_of("malloc", std::to_string(shm_id) + "," + std::to_string(size), ordered.value_or(0)));
  if (!ordered) {
    *block = arena().take(size);
  } else if (*ordered == kNull) {
    *block = nullptr;
  }
  return ordered.value_or(0) == kNull ? 0 : ordered.value_or(0);
}

void shmwin_free(void *block) {
  journal().add("free(" + block_name(block) + ")");
  arena().give(block);
}

void *avl_search(void *root, const void *probe, avl_compare_fn compare) {
  const bool tunnel = orders_tunnels(compare);
  last_order[tunnel ? 0 : 1] = compare;
  Node *found = node_of(root);
  if (faults().due("search")) {
    found = nullptr;
  }
  while (found != nullptr && compare(found, probe) != 1) {
    found = found->next;
  }
  const std::string where = root_name(root);
  journal().add(entry_of("search", where + "," + key_name(probe, tunnel), found ? 0 : kNull) +
                (where == "empty" || (where == "tun_root") == tunnel ? "" : "!order") +
                (pristine(probe, tunnel) ? "" : "!probe"));
  return found;
}

void *avl_insert(void **root, void *node, int *flag, avl_compare_fn compare) {
  const bool tunnel = orders_tunnels(compare);
  last_order[tunnel ? 0 : 1] = compare;
  const std::string where = field_name(root);
  Node **place = place_of(reinterpret_cast<Node **>(root), node_of(node), compare);
  const bool taken = *place != nullptr && compare(*place, node) == 1;
  const bool refused = faults().due("insert").has_value() || taken;
  journal().add(entry_of("insert", where + "," + key_name(node, tunnel), refused ? kNull : 0) +
                (*flag == 0 ? "" : "!flag") + (pristine(node, tunnel) ? "" : "!node") +
                ((where == "tun_root") == tunnel ? "" : "!order"));
  *flag = 77;
  if (refused) {
    return nullptr;
  }
  node_of(node)->next = *place;
  node_of(node)->in_tree = kInTree;
  *place = node_of(node);
  return node;
}

void *avl_delete(void **root, void *node, int *flag, avl_compare_fn compare) {
  const bool tunnel = orders_tunnels(compare);
  const std::string where = field_name(root);
  Node **place = reinterpret_cast<Node **>(root);
  while (*place != nullptr && *place != node) {
    place = &(*place)->next;
  }
  const bool refused = faults().due("delete").has_value() || *place == nullptr;
  journal().add(entry_of("delete", where + "," + key_name(node, tunnel), refused ? kNull : 0) +
                (*flag == 0 ? "" : "!flag") + (node_of(node)->in_tree == kInTree ? "" : "!link") +
                ((where == "tun_root") == tunnel ? "" : "!order"));
  *flag = 77;
  if (refused) {
    return nullptr;
  }
  *place = node_of(node)->next;
  return node;
}
