#include "avl_change.h"

#include <cerrno>

#include "avl/undo.h"
#include "between_services.h"

using namespace vrellis;
using namespace vrellis::avl;

int avl_change_begin(void **root) {
  const WindowMap *const map = window_of(root);
  if (map == nullptr) {
    return EINVAL;
  }
  if (is_unsettled(map)) {
    roll_back(*map);
  }
  store(&undo_log_of(*map).field, address_of(root));
  open_change = {map, nullptr, 0};
  return 0;
}

void avl_change_note(const uint32_t *words, size_t count) {
  for (const uint32_t *word = words; word != words + count; ++word) {
    note(address_of(word) | kHalf, *word);
  }
}

void avl_change_put_half(uint32_t *word, uint32_t value) {
  note(address_of(word) | kHalf, *word);
  store_half(word, value);
}

void avl_change_put(uint64_t *word, uint64_t value) {
  note(address_of(word) | kWord, *word);
  store(word, value);
}

void avl_change_count(const uint32_t *count, uint32_t next) {
  note(address_of(count) | kCount, Word{*count} << 32 | next);
}

void avl_change_count_now(uint32_t *count, uint32_t next) {
  note_all({{address_of(count) | kCount, Word{*count} << 32 | next}, {kMark, kCountedByBit}});
  store_pair(count, next, count[1] | kJustCounted);
  note(kMark, kCountedNow);
  store_half(count + 1, count[1] & ~kJustCounted);
}

void avl_change_counted(enum avl_change_counted when) {
  note(kMark, when);
}

void avl_change_version(const void *record) {
  Word *const version = version_of(open_change.map->begin, address_of(record));
  keep_version(*open_change.map, version);
  begin_version(version);
}

void avl_change_commit(void) {
  if (open_change.before_commit != nullptr) {
    open_change.before_commit(true);
  }
  const OpenChange done = open_change;
  store(&undo_log_of(*done.map).count, 0);
  open_change = {};
  end_versions(*done.map, done.versions);
}

void avl_change_abort(void) {
  if (open_change.before_commit != nullptr) {
    open_change.before_commit(false);
  }
  const WindowMap *const map = open_change.map;
  open_change = {};
  roll_back(*map);
}
