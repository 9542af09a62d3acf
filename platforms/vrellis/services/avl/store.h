// The one way in which the tree service writes a word: of a node, of a root field, of an undo log.
//
// A test that wants to see every store defines this header's guard and brings a store() of its own.
#ifndef VRELLIS_AVL_STORE_H
#define VRELLIS_AVL_STORE_H

#include <cstdint>

namespace vrellis::avl {

// The words also have types of their own elsewhere (a root field is a pointer in its owner's record).
using Word [[gnu::may_alias]] = std::uint64_t;

// A release store: what a killed process leaves behind are the first so many of its stores, none of a later one.
// The builtin instead of std::atomic_ref, which cannot refer to a may_alias type.
inline void store(Word *word, Word value) {
  __atomic_store_n(word, value, __ATOMIC_RELEASE);
}

}  // namespace vrellis::avl

#endif
