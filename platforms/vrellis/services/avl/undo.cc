#include "avl/undo.h"

namespace vrellis::avl {

namespace {

// True if a tree of this window can have such a word. Only the user area of the window's header can hold root fields.
bool is_word_of(const WindowMap &map, Word address) {
  const Word user_area = address_of(map.user_area);
  const Word behind_header = address_of(map.tree_area) + kTreeAreaBytes;
  return address % sizeof(Word) == 0 && covers(map, address) &&
         (address - user_area < kUserAreaBytes || address >= behind_header);
}

// The log lies where every process can write. One wrong entry shows that the others cannot be trusted either.
bool is_sound(const WindowMap &map, const UndoLog &log) {
  if (log.count > kUndoCapacity) {
    return false;
  }
  for (Word i = 0; i < log.count; ++i) {
    if (!is_word_of(map, log.entries[i].address)) {
      return false;
    }
  }
  return true;
}

}  // namespace

// The last entry comes first, so that a word that changed several times ends with its oldest value. The count stays
// until every word is restored: if this process dies too, the next one restores the same words again.
bool roll_back(const WindowMap &map) {
  UndoLog &log = undo_log_of(map);
  const bool sound = is_sound(map, log);
  for (Word left = sound ? log.count : 0; left != 0; --left) {
    const UndoEntry &entry = log.entries[left - 1];
    store(word_at(entry.address), entry.old);
  }
  store(&log.count, 0);
  return sound;
}

// The caller read `root` before its call. It may be a node that a rotation had put on top, or even the node that was
// being inserted, and the roll-back takes it away again. Under the lock the field cannot have changed since the caller
// read it, so the root was taken from the log's field exactly if that field holds the same value now. No other tree has
// this root. An empty tree needs no such care: its first and its last node come and go by one store to the field.
[[gnu::cold, gnu::noinline]] Word root_after_roll_back(const WindowMap &map, Word root) {
  const Word address = undo_log_of(map).field;
  const Word *const field = is_word_of(map, address) ? word_at(address) : nullptr;
  const bool taken_from_field = field != nullptr && *field == root;
  roll_back(map);
  return taken_from_field ? *field : root;
}

}  // namespace vrellis::avl
