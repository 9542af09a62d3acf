// Linking and unlinking in a tree that has other nodes too: keeps it an AVL tree, word by word through a Change.
//
// Both sides of everything by index; one turn, lift(), makes all rotations.
#ifndef VRELLIS_AVL_BALANCE_H
#define VRELLIS_AVL_BALANCE_H

#include "avl/link.h"
#include "avl/undo.h"

namespace vrellis::avl {

// Hangs `node` below `parent`, which has no child on `side`.
void link_below(Change &change, Link *parent, unsigned side, Link *node);

// Takes `node` out of its tree; its linkage stays as it is.
void unlink_one(Change &change, Link *node);

}  // namespace vrellis::avl

#endif
