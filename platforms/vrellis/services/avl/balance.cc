#include "avl/balance.h"

namespace vrellis::avl {

namespace {

void put_lean(Change &change, Link *node, Word lean) {
  change.put(&node->up, (node->up & kPlace) | lean);
}

void put_parent(Change &change, Link *node, const Link *parent) {
  change.put(&node->up, address_of(parent) | lean_of(node));
}

// Rotates: puts `low` above its parent `high`. The subtree whose keys lie between theirs moves from `low` to `high`.
void lift(Change &change, Link *low, Word low_lean, Word high_lean) {
  Link *high = parent_of(low);
  const unsigned side = side_of(low);
  Link *between = child_of(low, 1 - side);
  change.put_holder(holder_of(high), address_of(low));
  change.put(&low->up, (high->up & kPlace) | low_lean);
  change.put(&high->up, address_of(low) | high_lean);
  change.put(&high->child[side], address_of(between));
  change.put(&low->child[1 - side], address_of(high));
  if (between != nullptr) {
    put_parent(change, between, high);
  }
}

// Levels the subtree of `high`, which is two higher on `side`. Returns: its new top node.
Link *level_out(Change &change, Link *high, unsigned side) {
  const unsigned other = 1 - side;
  Link *low = child_of(high, side);
  if (lean_of(low) != leaning(other)) {
    const bool was_level = lean_of(low) == kLevel;  // this happens after a delete only; the height stays
    lift(change, low, was_level ? leaning(other) : kLevel, was_level ? leaning(side) : kLevel);
    return low;
  }
  Link *inner = child_of(low, other);
  const Word lean = lean_of(inner);
  lift(change, inner, kLevel, lean == leaning(other) ? leaning(side) : kLevel);
  lift(change, inner, kLevel, lean == leaning(side) ? leaning(other) : kLevel);
  return inner;
}

// Balances upwards from `node`, whose subtree on `side` has become one higher.
void rebalance_grown(Change &change, Link *node, unsigned side) {
  while (lean_of(node) == kLevel) {
    put_lean(change, node, leaning(side));
    if (is_root(node) || !change.can_climb()) {
      return;
    }
    side = side_of(node);
    node = parent_of(node);
  }
  if (lean_of(node) == leaning(side)) {
    level_out(change, node, side);
  } else {
    put_lean(change, node, kLevel);
  }
}

// Balances upwards from `node`, whose subtree on `side` has become one lower.
void rebalance_shrunk(Change &change, Link *node, unsigned side) {
  while (lean_of(node) != kLevel) {
    if (lean_of(node) == leaning(side)) {
      put_lean(change, node, kLevel);
    } else {
      node = level_out(change, node, 1 - side);
    }
    if (lean_of(node) != kLevel || is_root(node) || !change.can_climb()) {
      return;
    }
    side = side_of(node);
    node = parent_of(node);
  }
  put_lean(change, node, leaning(1 - side));
}

// Hangs `heir` (nullptr: nothing) up where `node` hangs, whose holder has it already. The words of `node` itself stay.
void hang_up(Change &change, const Link *node, Link *heir, Word heir_lean) {
  if (heir != nullptr) {
    change.put(&heir->up, (node->up & kPlace) | heir_lean);
  }
}

// Gives `heir` the place of `node` and both of its subtrees.
void inherit(Change &change, const Link *node, Link *heir) {
  for (const unsigned side : {0U, 1U}) {
    Link *child = child_of(node, side);
    change.put(&heir->child[side], address_of(child));
    if (child != nullptr) {
      put_parent(change, child, heir);
    }
  }
  change.put_holder(holder_of(node), address_of(heir));
  hang_up(change, node, heir, lean_of(node));
}

// The node's neighbour in key order on `side`. Requires: a child on that side.
Link *neighbour_of(const Link *node, unsigned side) {
  Link *near = child_of(node, side);
  while (Link *next = child_of(near, 1 - side)) {
    near = next;
  }
  return near;
}

}  // namespace

void link_below(Change &change, Link *parent, unsigned side, Link *node) {
  store(&node->child[0], 0);
  store(&node->child[1], 0);
  store(&node->up, address_of(parent));
  change.put_first(&parent->child[side], address_of(node));
  rebalance_grown(change, parent, side);
}

void unlink_one(Change &change, Link *node) {
  const unsigned side = lean_of(node) == leaning(0) ? 0 : 1;
  const bool both = node->child[0] != 0 && node->child[1] != 0;
  // With two children, a neighbour takes the node's place. The neighbour on the higher side saves rotations.
  Link *leaver = both ? neighbour_of(node, side) : node;
  Link *start = is_root(leaver) ? nullptr : parent_of(leaver);
  const unsigned start_side = start != nullptr ? side_of(leaver) : 0;
  Link *below = child_of(leaver, leaver->child[0] != 0 ? 0 : 1);
  change.put_first(holder_of(leaver), address_of(below));
  hang_up(change, leaver, below, kLevel);
  if (both) {
    inherit(change, node, leaver);
    start = start == node ? leaver : start;
  }
  if (start != nullptr) {
    rebalance_shrunk(change, start, start_side);
  }
}

}  // namespace vrellis::avl
