#include "avl/undo.h"

namespace vrellis::avl {

namespace {

// A log may be damaged: a word outside the window is never touched.
bool is_word_of(const WindowMap &map, Word address) {
  return address % sizeof(Word) == 0 && covers(map, address);
}

void restore(const WindowMap &map, const UndoLog &log) {
  for (Word left = log.count <= kUndoCapacity ? log.count : 0; left != 0; --left) {
    const UndoEntry &entry = log.entries[left - 1];
    if (is_word_of(map, entry.address)) {
      store(word_at(entry.address), entry.old);
    }
  }
}

}  // namespace

// Last to first, so that of a word that changed several times the oldest value stays. The count stays until all is
// restored: whoever begins again restores the same words.
//
// A caller reads its root before it calls, and can hand in one that is taken back here: a node that a rotation had put
// on top, even the node that was being inserted. Under the lock the field cannot have changed since it was read, so
// such a root is what the field holds right now, and no other tree's root is. An empty tree needs no such care: a
// tree's first and last node come and go by one store to the field, without the log.
[[gnu::cold, gnu::noinline]] Word roll_back(const WindowMap &map, Word root) {
  UndoLog &log = undo_log_of(map);
  const Word *field = is_word_of(map, log.field) ? word_at(log.field) : nullptr;
  const bool taken_back = field != nullptr && *field == root;
  restore(map, log);
  store(&log.count, 0);
  return taken_back ? *field : root;
}

}  // namespace vrellis::avl
