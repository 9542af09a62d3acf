// A node's linkage: what its three words say. This header only reads them; a word of a tree is written through a Change
// (avl/undo/undo.h), any other word with store().
#ifndef VRELLIS_AVL_LINK_H
#define VRELLIS_AVL_LINK_H

#include <cstddef>
#include <cstdint>

#include "avl/store.h"

namespace vrellis::avl {

// The first 24 bytes of each node. Side 0 holds the keys that order before the node, side 1 those after it.
//
//   0  child[0]   address, 0 = none
//   8  child[1]   address, 0 = none
//  16  up          63                                            3   2   1   0
//                 +-----------------------------------------------+---+-------+
//                 | address of the parent; in the root node of    | R | lean  |
//                 | the root field that holds it                  |   |       |
//                 +-----------------------------------------------+---+-------+
//
// Invariants of a tree, between two changes:
//   T1  The root field and the root node refer to each other; so do a parent and each of its children.
//   T2  Only the root node has R set.
//   T3  The two subtrees of a node differ in height by at most one, and `lean` says which is higher.
//   T4  A node that is in no tree may hold stale links of a change that was cut off; avl_insert() and avl_delete()
//       therefore never trust a node's own links alone.
struct Link {
  Word child[2];
  Word up;
};

static_assert(sizeof(Link) == 24 && alignof(Link) == 8 && offsetof(Link, up) == 16);
static_assert(sizeof(void *) == sizeof(Word));

inline constexpr Word kLean = 3;  // how the node's subtrees differ in height
inline constexpr Word kRoot = 4;  // R: the node is its tree's root
inline constexpr Word kPlace = ~kLean;

inline constexpr Word kLevel = 0;
// The subtree on `side` is one higher.
constexpr Word leaning(unsigned side) {
  return 2 - side;
}

inline Word address_of(const void *object) {
  return reinterpret_cast<Word>(object);
}

inline Link *link_at(Word address) {
  return reinterpret_cast<Link *>(address);  // NOLINT(performance-no-int-to-ptr): the window holds plain addresses
}

inline Word *word_at(Word address) {
  return reinterpret_cast<Word *>(address);  // NOLINT(performance-no-int-to-ptr): as above
}

inline std::uint32_t *half_at(Word address) {
  return reinterpret_cast<std::uint32_t *>(address);  // NOLINT(performance-no-int-to-ptr): as above
}

inline Link *child_of(const Link *node, unsigned side) {
  return link_at(node->child[side]);
}
inline Word lean_of(const Link *node) {
  return node->up & kLean;
}
inline bool is_root(const Link *node) {
  return (node->up & kRoot) != 0;
}

// Requires: `node` is not a root node.
inline Link *parent_of(const Link *node) {
  return link_at(node->up & ~(kLean | kRoot));
}
inline unsigned side_of(const Link *node) {
  return parent_of(node)->child[1] == address_of(node) ? 1 : 0;
}

// Requires: `root` is a root node. Returns: the root field that holds it.
inline Word *field_of(const Link *root) {
  return word_at(root->up & ~(kLean | kRoot));
}

// The word that refers to the node from above: its parent's child word or the root field.
inline Word *holder_of(const Link *node) {
  return is_root(node) ? field_of(node) : &parent_of(node)->child[side_of(node)];
}

// True if the parent, or the root field, still points to this node. A process that died right after a delete leaves
// stale links in the removed node (T4), so its own links prove nothing.
inline bool is_held(const Link *node) {
  return *holder_of(node) == address_of(node);
}

// The root of the tree that a linked node is in.
inline Link *root_above(Link *node) {
  while (!is_root(node)) {
    node = parent_of(node);
  }
  return node;
}

}  // namespace vrellis::avl

#endif
