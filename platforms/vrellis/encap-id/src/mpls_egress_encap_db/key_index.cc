#include "key_index.h"

#include <cerrno>
#include <cstring>

#include "avl.h"
#include "shmwin.h"
#include "values.h"

namespace encap {
namespace {

constexpr std::size_t kKeyOffset = 24;  // behind the linkage, in either node
static_assert(offsetof(mpls_nh_entry_t, key) == kKeyOffset && offsetof(mpls_tunnel_entry_t, key) == kKeyOffset);

// A word of a node's key as a number that orders like its bytes in memory.
template <typename Word>
Word ordered_word(const void *node, std::size_t offset) {
  Word word;
  std::memcpy(&word, static_cast<const char *>(node) + kKeyOffset + offset, sizeof word);
  if constexpr (sizeof word == sizeof(std::uint64_t)) {
    return __builtin_bswap64(word);
  } else {
    return __builtin_bswap32(word);
  }
}

// 0 before, 1 equal, 2 after; in this form the compilers need no branch, which the search could not predict.
template <typename Word>
int order(Word a, Word b) {
  return static_cast<int>(a >= b) + static_cast<int>(a > b);
}

// A node-shaped record on the stack: zero but for its key.
template <typename Entry, typename Key>
Entry probe_for(Key key) {
  Entry probe{};
  probe.key = key;
  return probe;
}

// Takes a zeroed node with `key` from the window. Returns NULL when there is no memory.
template <typename Entry, typename Key>
Entry *allocate_node(Key key) {
  void *block = nullptr;
  if (shmwin_malloc(egress_encap_db->shm_id, sizeof(Entry), &block) != 0 || block == nullptr) {
    return nullptr;
  }
  std::memset(block, 0, sizeof(Entry));
  auto *entry = static_cast<Entry *>(block);
  entry->key = key;
  return entry;
}

bool link_node(void **root, void *node, avl_compare_fn compare) {
  int flag = 0;
  return avl_insert(root, node, &flag, compare) != nullptr;
}

bool unlink_node(void **root, void *node, avl_compare_fn compare) {
  int flag = 0;
  return avl_delete(root, node, &flag, compare) != nullptr;
}

}  // namespace

int vrl_mpls_nh_key_compare(const void *a, const void *b) {
  if (__builtin_expect(a == nullptr || b == nullptr, 0)) {
    emit<Point::nh_compare_null>();
    return 1;
  }
  return order(ordered_word<std::uint64_t>(a, 0), ordered_word<std::uint64_t>(b, 0));
}

int vrl_mpls_tunnel_key_compare(const void *a, const void *b) {
  if (__builtin_expect(a == nullptr || b == nullptr, 0)) {
    emit<Point::tunnel_compare_null>();
    return 1;
  }
  const int labels = order(ordered_word<std::uint64_t>(a, 0), ordered_word<std::uint64_t>(b, 0));
  return labels != 1 ? labels : order(ordered_word<std::uint32_t>(a, 8), ordered_word<std::uint32_t>(b, 8));
}

void vrl_find_mpls_nh_entry(mpls_nh_key_t key, void *root, mpls_nh_entry_t **entry) {
  *entry = nullptr;
  const auto probe = probe_for<mpls_nh_entry_t>(key);
  *entry = static_cast<mpls_nh_entry_t *>(avl_search(root, &probe, vrl_mpls_nh_key_compare));
  emit<Point::nh_find_result>(key.out_label1, key.te_local_label, key.is_failover_nh, key.protocol,
                              key.is_l2vpn_pref_path, *entry != nullptr);
}

void vrl_find_mpls_tunnel_entry(mpls_tunnel_key_t key, mpls_tunnel_entry_t **entry) {
  *entry = nullptr;
  const auto probe = probe_for<mpls_tunnel_entry_t>(key);
  *entry =
      static_cast<mpls_tunnel_entry_t *>(avl_search(egress_encap_db->tun_root, &probe, vrl_mpls_tunnel_key_compare));
  emit<Point::tunnel_find_result>(key.ifh, key.out_label2, key.out_label3, *entry != nullptr);
}

int vrl_insert_mpls_nh_entry(mpls_nh_key_t key, void **root, mpls_nh_entry_t **entry) {
  emit<Point::nh_insert_entry>(nh_fields(key));
  auto *node = allocate_node<mpls_nh_entry_t>(key);
  if (node == nullptr) {
    emit<Point::nh_insert_no_memory>(nh_fields(key));
    return ENOMEM;
  }
  if (!link_node(root, node, vrl_mpls_nh_key_compare)) {
    shmwin_free(node);
    emit<Point::nh_insert_refused>(nh_fields(key));
    return EINVAL;
  }
  *entry = node;
  emit<Point::nh_insert_return>(0);
  return 0;
}

int vrl_insert_mpls_tunnel_entry(mpls_tunnel_key_t key, mpls_tunnel_entry_t **entry) {
  emit<Point::tunnel_insert_entry>(tunnel_fields(key));
  auto *node = allocate_node<mpls_tunnel_entry_t>(key);
  if (node == nullptr) {
    emit<Point::tunnel_insert_no_memory>(tunnel_fields(key));
    return ENOMEM;
  }
  if (!link_node(&egress_encap_db->tun_root, node, vrl_mpls_tunnel_key_compare)) {
    shmwin_free(node);
    emit<Point::tunnel_insert_refused>(tunnel_fields(key));
    return EINVAL;
  }
  *entry = node;
  emit<Point::tunnel_insert_return>(0);
  return 0;
}

int vrl_delete_mpls_nh_entry(mpls_nh_key_t key, mpls_nh_entry_t *entry, void **root) {
  emit<Point::nh_delete_entry>(nh_fields(key));
  if (!unlink_node(root, entry, vrl_mpls_nh_key_compare)) {
    emit<Point::nh_delete_refused>(nh_fields(key));
    return EINVAL;
  }
  shmwin_free(entry);
  emit<Point::nh_delete_return>(0);
  return 0;
}

int vrl_delete_mpls_tunnel_entry(mpls_tunnel_key_t key, mpls_tunnel_entry_t *entry) {
  emit<Point::tunnel_delete_entry>(tunnel_fields(key));
  if (!unlink_node(&egress_encap_db->tun_root, entry, vrl_mpls_tunnel_key_compare)) {
    emit<Point::tunnel_delete_refused>(tunnel_fields(key));
    return EINVAL;
  }
  shmwin_free(entry);
  emit<Point::tunnel_delete_return>(0);
  return 0;
}

}  // namespace encap
