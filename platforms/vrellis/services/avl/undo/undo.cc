#include "avl/undo/undo.h"

namespace vrellis {

SERVICES_TLS constinit thread_local OpenChange open_change;

void note_word(const std::uint64_t *word) {
  avl::note_words(avl::open_log(), *word);
}

void roll_window_back(const WindowMap &map) {
  if (avl::is_unsettled(&map)) [[unlikely]] {
    avl::roll_back(map);
  }
}

namespace avl {

namespace {

LogWindow log_window_of(const WindowMap &map) {
  return {map.begin, map.end, address_of(map.user_area), address_of(map.tree_area), 0};
}

}  // namespace

bool roll_back_to(const WindowMap &map, Word kept) {
  return restore_log(undo_log_of(map), log_window_of(map), kept);
}

bool roll_back(const WindowMap &map) {
  const bool sound = roll_back_to(map, 0);
  settle_versions(map);
  return sound;
}

// The caller read `root` before its call. It may be a node that a rotation had put on top, or even the node that was
// being inserted, and the roll-back takes it away again. Under the lock the field cannot have changed since the caller
// read it, so the root was taken from the log's field exactly if that field holds the same value now. No other tree has
// this root. An empty tree needs no such care: its first and its last node come and go by one store to the field.
[[gnu::cold, gnu::noinline]] Word root_after_roll_back(const WindowMap &map, Word root) {
  const Word address = undo_log_of(map).field;
  const Word *const field = log_window_of(map).has(address) ? word_at(address) : nullptr;
  const bool taken_from_field = field != nullptr && *field == root;
  roll_back(map);
  return taken_from_field ? *field : root;
}

}  // namespace avl
}  // namespace vrellis
