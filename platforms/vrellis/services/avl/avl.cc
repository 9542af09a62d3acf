#include "avl.h"

#include <cstddef>

#include "avl/balance.h"
#include "avl/link.h"
#include "avl/undo/undo.h"
#include "between_services.h"

namespace vrellis {

SERVICES_TLS constinit thread_local SearchEnds search_ends;

namespace avl {
namespace {

constexpr int kEqual = 1;

// Where a descent ended: at the node of an equal key, or at the node that a new node of this key would hang under.
struct Spot {
  Link *node;
  int order;  // the last comparison's result; half of it is the side to hang on
};

// Fetches a node's linkage and the key behind it, which often lies in the next cache line. A null node is computed with
// as a number, since no pointer may be 32 bytes behind a null pointer; a prefetch of any address does no harm.
[[gnu::always_inline]] inline void prefetch_node(const Link *node) {
  constexpr std::uintptr_t kKeyEnd = 32;
  __builtin_prefetch(node);
  __builtin_prefetch(reinterpret_cast<const void *>(reinterpret_cast<std::uintptr_t>(node) + kKeyEnd));
}

// Fetches both children while the keys are compared. Requires: `node` is not null.
inline Spot descend(Link *node, const void *probe, avl_compare_fn compare) {
  for (;;) {
    Link *const before = child_of(node, 0);
    Link *const after = child_of(node, 1);
    prefetch_node(before);
    prefetch_node(after);
    const int order = compare(probe, node);
    if (order == kEqual) {
      return {node, order};
    }
    Link *const next = __builtin_expect_with_probability(order > kEqual, 1, 0.5) ? after : before;
    if (next == nullptr) {
      return {node, order};
    }
    node = next;
  }
}

// In a big window a tree is seldom in the caches, but the allocator places its nodes close together. This fetches the
// lines around the top node at once, before the descent needs them one by one. It must be inlined: g++ drops calls of a
// function that only prefetches, since it has no effect.
[[gnu::always_inline]] inline void prefetch_around(const WindowMap *map, const Link *top) {
  constexpr std::uintptr_t kBigWindow = std::uintptr_t{16} << 20;
  constexpr std::ptrdiff_t kAround = std::ptrdiff_t{5} * 64;  // five cache lines on either side
  if (map == nullptr || map->end - map->begin < kBigWindow) {
    return;
  }
  const char *const middle = reinterpret_cast<const char *>(top);
  for (std::ptrdiff_t offset = -kAround; offset <= kAround; offset += 64) {
    __builtin_prefetch(middle + offset);
  }
}

// The store to the root field alone links a tree's first node, or unlinks its last one (U3). Outside an open change a
// reader without the lock sees the tree before or after that store. A reader that already holds the address of the last
// node must learn that it has gone, so the version is odd around that store.
[[gnu::always_inline]] inline void store_root(const WindowMap *map, Word *field, Word root) {
  if (map == nullptr) {
    store(field, root);
    return;
  }
  if (open_change.map == nullptr) [[likely]] {
    if (root == 0) {
      Word *const version = version_of(map->begin, address_of(field));
      begin_version(version);
      store(field, root);
      end_version(version);
    } else {
      store(field, root);
    }
    return;
  }
  if (covers(*map, address_of(field))) {
    note_words(open_log(), *field);
  }
  Word *const version = version_of(map->begin, address_of(field));
  keep_version(*map, version);
  begin_version(version);
  store(field, root);
}

void link_first(const WindowMap *map, Word *field, Link *node) {
  store(&node->child[0], 0);
  store(&node->child[1], 0);
  store(&node->up, address_of(field) | kRoot);
  store_root(map, field, address_of(node));
}

// Clears the links of a removed node. If the process dies here, only a node that is in no tree keeps stale links;
// avl_delete() tolerates that (T4).
[[gnu::always_inline]] inline void clear_linkage(Link *node) {
  if (open_change.map != nullptr && covers(*open_change.map, address_of(node))) [[unlikely]] {
    note_words(open_log(), node->child[0], node->child[1], node->up);
  }
  store(&node->child[0], 0);
  store(&node->child[1], 0);
  store(&node->up, 0);
}

// Where a descent from `top` may begin: the caller of an open change may have searched before.
inline Link *known_end(Link *top) {
  for (const auto &searched : open_change.searched) {
    if (searched.top == top) {
      return static_cast<Link *>(searched.end);
    }
  }
  return top;
}

// Where a search begins while the undo log is in use.
[[gnu::noinline]] Link *begin_of_search(const WindowMap &map, Link *top) {
  return open_change.map != nullptr ? known_end(top) : link_at(root_after_roll_back(map, address_of(top)));
}

// A tree that is about to change.
struct Tree {
  const WindowMap *map;
  Word *given;  // the root field that the caller gave: the tree's own one, or a copy
  Link *top;    // nullptr: the tree is empty
  Word *field;  // the tree's own root field
};

// Settles the window first, and brings the given field up to date. Returns: false when that field holds no root, or
// when the field that the root node records can be no field of this tree.
[[gnu::always_inline]] inline bool open_tree(Tree &tree, void **root, const void *node) {
  tree.map = window_of(node);
  tree.given = reinterpret_cast<Word *>(root);
  if (is_unsettled(tree.map)) [[unlikely]] {
    store(tree.given, root_after_roll_back(*tree.map, *tree.given));
  }
  tree.top = link_at(*tree.given);
  tree.field = tree.given;
  if (tree.top == nullptr) {
    return true;
  }
  tree.field = field_of(tree.top);
  const bool reachable = tree.field == tree.given || tree.map == nullptr || covers(*tree.map, address_of(tree.field));
  return is_root(tree.top) && reachable;
}

inline Link *begin_of_insert(const Tree &tree) {
  return open_change.map != nullptr ? known_end(tree.top) : tree.top;
}

[[gnu::always_inline]] inline void close_tree(const Tree &tree, int *flag) {
  const Word now = *tree.field;
  if (now != address_of(tree.top)) {
    *flag = 1;
  }
  if (tree.given != tree.field) {
    store(tree.given, now);
  }
}

}  // namespace
}  // namespace avl
}  // namespace vrellis

using namespace vrellis::avl;

void *avl_search(void *root, const void *probe, avl_compare_fn compare) {
  if (root == nullptr) {
    return nullptr;
  }
  vrellis::trace_operation_begins();
  const vrellis::WindowMap *const map = vrellis::window_of(root);
  auto *top = static_cast<Link *>(root);
  if (is_log_in_use(map)) [[unlikely]] {
    top = begin_of_search(*map, top);
    if (top == nullptr) {
      return nullptr;  // the root was the first node of a tree, in a change that its process did not end
    }
  }
  prefetch_around(map, top);
  const Spot spot = descend(top, probe, compare);
  vrellis::search_ends.previous = vrellis::search_ends.last;
  vrellis::search_ends.last = spot.node;
  return spot.order == kEqual ? spot.node : nullptr;
}

void *avl_insert(void **root, void *node, int *flag, avl_compare_fn compare) {
  Tree tree;
  if (!open_tree(tree, root, node)) {
    return nullptr;
  }
  auto *link = static_cast<Link *>(node);
  if (tree.top == nullptr) {
    link_first(tree.map, tree.field, link);
  } else {
    const Spot spot = descend(begin_of_insert(tree), node, compare);
    if (spot.order == kEqual) {
      return nullptr;
    }
    Change change(tree.map, tree.field);
    link_below(change, spot.node, static_cast<unsigned>(spot.order) >> 1, link);
    if (!change.commit()) {
      clear_linkage(link);
      return nullptr;
    }
  }
  close_tree(tree, flag);
  return node;
}

// A linked node knows its place, so keys need not be compared.
void *avl_delete(void **root, void *node, int *flag, avl_compare_fn /*compare*/) {
  Tree tree;
  auto *link = static_cast<Link *>(node);
  if (link == nullptr || !open_tree(tree, root, node) || link->up == 0 || root_above(link) != tree.top ||
      !is_held(link)) {
    return nullptr;
  }
  if (link == tree.top && link->child[0] == 0 && link->child[1] == 0) {
    store_root(tree.map, tree.field, 0);
  } else {
    Change change(tree.map, tree.field);
    unlink_one(change, link);
    if (!change.commit()) {
      return nullptr;
    }
  }
  clear_linkage(link);
  close_tree(tree, flag);
  return node;
}

int avl_settle(const void *address) {
  const vrellis::WindowMap *const map = vrellis::window_of(address);
  if (!is_unsettled(map)) {
    return 0;
  }
  return roll_back(*map) ? 1 : -1;
}
