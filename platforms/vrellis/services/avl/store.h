// The function by which the tree service writes every word: of a node, of a root field, of an undo log.
//
// A test that is to see every store defines this header's guard and its own store().
#ifndef VRELLIS_AVL_STORE_H
#define VRELLIS_AVL_STORE_H

#include <cstdint>

namespace vrellis::avl {

// may_alias: other code reads the same words as other types (a root field is a pointer in its owner's record).
using Word [[gnu::may_alias]] = std::uint64_t;

// A release store: a process that is killed leaves its first stores behind and none of the later ones. The compiler's
// builtin is used because std::atomic_ref cannot refer to a may_alias type.
inline void store(Word *word, Word value) {
  __atomic_store_n(word, value, __ATOMIC_RELEASE);
}

}  // namespace vrellis::avl

#endif
