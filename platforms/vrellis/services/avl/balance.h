// Links a node into a tree that has other nodes, or unlinks it, and keeps the tree balanced. Every word changes through
// a Change. One code serves both sides, since links are indexed by side; one function, lift(), makes all rotations.
#ifndef VRELLIS_AVL_BALANCE_H
#define VRELLIS_AVL_BALANCE_H

#include "avl/link.h"
#include "avl/undo/undo.h"

namespace vrellis::avl {

// Links `node` below `parent`, which has no child on `side`.
void link_below(Change &change, Link *parent, unsigned side, Link *node);

// Unlinks `node` from its tree. The linkage of the node itself stays as it is.
void unlink_one(Change &change, Link *node);

}  // namespace vrellis::avl

#endif
