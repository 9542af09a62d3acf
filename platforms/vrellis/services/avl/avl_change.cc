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

// Two words that lie in one of 8 bytes are one entry, and one store adds all entries.
void avl_change_note(const uint32_t *words, size_t count) {
  UndoLog &log = undo_log_of(*open_change.map);
  const Word begin = log.count;
  check_room(begin, count);
  UndoEntry *entry = &log.entries[begin];
  const auto add = [&entry](Word named, Word old) {
    store(&entry->address, named);
    store(&entry->old, old);
    ++entry;
  };
  const uint32_t *const end = words + count;
  if (words != end && address_of(words) % sizeof(Word) != 0) {
    add(address_of(words) | kHalf, *words);
    ++words;
  }
  for (; end - words > 1; words += 2) {
    add(address_of(words) | kWord, *word_at(address_of(words)));
  }
  if (words != end) {
    add(address_of(words) | kHalf, *words);
  }
  store(&log.count, static_cast<Word>(entry - log.entries));
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
