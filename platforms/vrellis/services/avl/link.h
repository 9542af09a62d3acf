// A node's linkage, read-only: what its three words say. Whoever writes one goes through avl/undo.h.
#ifndef VRELLIS_AVL_LINK_H
#define VRELLIS_AVL_LINK_H

#include <cstddef>
#include <cstdint>

#include "avl/store.h"

namespace vrellis::avl {

// The first 24 bytes of each node. Everything by index: side 0 orders before the node, side 1 after it.
//
//   0  child[0]   address, 0 = none
//   8  child[1]   address, 0 = none
//  16  up          63                                            3   2   1   0
//                 +-----------------------------------------------+---+-------+
//                 | address of the parent; in the root node of    | R | lean  |
//                 | the root field that holds it                  |   |       |
//                 +-----------------------------------------------+---+-------+
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
constexpr Word leaning(unsigned side) {
  return 2 - side;
}  // the subtree on `side` is one higher

inline Word address_of(const void *object) {
  return reinterpret_cast<Word>(object);
}

inline Link *link_at(Word address) {
  return reinterpret_cast<Link *>(address);  // NOLINT(performance-no-int-to-ptr): the window holds plain addresses
}

inline Word *word_at(Word address) {
  return reinterpret_cast<Word *>(address);  // NOLINT(performance-no-int-to-ptr): as above
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

// Not of a root node.
inline Link *parent_of(const Link *node) {
  return link_at(node->up & ~(kLean | kRoot));
}
inline unsigned side_of(const Link *node) {
  return parent_of(node)->child[1] == address_of(node) ? 1 : 0;
}

// Of a root node: the root field that holds it.
inline Word *field_of(const Link *root) {
  return word_at(root->up & ~(kLean | kRoot));
}

// The word that refers to the node from above: its parent's child word or the root field.
inline Word *holder_of(const Link *node) {
  return is_root(node) ? field_of(node) : &parent_of(node)->child[side_of(node)];
}

// Whether the tree knows of the node that says it is linked: a death behind the end of a delete leaves its words
// behind.
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
