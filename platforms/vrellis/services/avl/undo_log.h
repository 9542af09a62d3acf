// The undo log as it lies in a window, and how its entries are restored: by the process that has the window mapped, or
// in a copy of it.
//
// The two lowest bits of an entry's address say what it names:
//   kWord    an 8-byte word: `old` is what it held
//   kHalf    a 4-byte word: likewise
//   kCount   a 4-byte count: `old` is what it held, shifted by 32, and what it becomes. Processes that do not settle the
//            window before they count may have changed it since, so the difference is taken back.
//   kMark    no word: the counts of the entries before it have changed, or with `old` 1, have once an entry follows
#ifndef VRELLIS_AVL_UNDO_LOG_H
#define VRELLIS_AVL_UNDO_LOG_H

#include <cstddef>
#include <cstdint>

#include "avl/link.h"
#include "between_services.h"

namespace vrellis::avl {

enum EntryKind : Word { kWord = 0, kHalf = 1, kCount = 2, kMark = 3, kKindBits = 3 };

struct UndoEntry {
  Word address;  // of a word in the same window, and its kind
  Word old;      // what it held before
};

inline constexpr std::size_t kUndoCapacity = (kTreeAreaBytes - 2 * sizeof(Word)) / sizeof(UndoEntry);

// Lies in the window's tree area; zeroed with it.
struct UndoLog {
  Word count;  // entries in use; 0 = no change is open
  Word field;  // the root field of the tree being changed, whether or not its value changes
  UndoEntry entries[kUndoCapacity];
};
static_assert(sizeof(UndoLog) <= kTreeAreaBytes && offsetof(UndoLog, count) == 0);  // settle_window() reads the count

// A window by its recorded addresses, and how far from them it lies in this process.
struct LogWindow {
  Word begin, end, user_area, tree_area;
  std::ptrdiff_t shift;

  // True if a change of this window can have such a word. Of the window's header these are the allocator's counters
  // and the user area, which holds root fields.
  bool has(Word address) const {
    constexpr Word kIdentityBytes = 64;
    const bool is_counter = address >= begin + kIdentityBytes && address < user_area;
    const bool in_user_area = address - user_area < kUserAreaBytes;
    return address % sizeof(Word) == 0 && address - begin < end - begin &&
           (is_counter || in_user_area || address >= tree_area + kTreeAreaBytes);
  }

  bool has_entry(Word entry) const {
    const Word kind = entry & kKindBits;
    const bool whole = ((entry & ~Word{kKindBits}) & (sizeof(Word) - 1)) == 0;
    return kind == kMark || ((kind != kWord || whole) && has(entry & ~(sizeof(Word) - 1)));
  }

  Word here(Word address) const { return address + static_cast<Word>(shift); }
};

inline void store_half(std::uint32_t *word, std::uint32_t value) {
  __atomic_store_n(word, value, __ATOMIC_RELEASE);
}

// Takes the difference back. If it is not known that the count has changed, it has unless it holds its old value.
inline void restore_count(std::uint32_t *count, Word old, bool has_changed) {
  const auto before = static_cast<std::uint32_t>(old >> 32);
  const auto after = static_cast<std::uint32_t>(old);
  if (has_changed || *count != before) {
    store_half(count, *count + before - after);
  }
}

// `counted` tells whether the counts of earlier entries are known to have changed.
inline void restore_entry(UndoLog &log, const LogWindow &window, Word number, bool is_newest, bool &counted) {
  const UndoEntry &entry = log.entries[number];
  const Word address = window.here(entry.address & ~Word{kKindBits});
  switch (entry.address & kKindBits) {
    case kWord:
      store(word_at(address), entry.old);
      break;
    case kHalf:
      store_half(half_at(address), static_cast<std::uint32_t>(entry.old));
      break;
    case kMark:
      counted = counted || entry.old == 0 || !is_newest;
      break;
    default:
      // A difference may not be taken back twice: the entries behind this one are done, and it becomes the newest.
      store(&log.count, number + 1);
      restore_count(half_at(address), entry.old, counted);
      store(&log.count, number);
  }
}

// The log lies where every process can write. One wrong entry shows that the others cannot be trusted either.
inline bool is_sound(const LogWindow &window, const UndoLog &log) {
  if (log.count > kUndoCapacity) {
    return false;
  }
  for (Word i = 0; i < log.count; ++i) {
    if (!window.has_entry(log.entries[i].address)) {
      return false;
    }
  }
  return true;
}

/*
 * Restores the entries behind the first `kept` ones. The last entry comes first, so that a word that changed several
 * times ends with its oldest value. The count stays until every word is restored: if this process dies too, the next one
 * restores the same words again.
 * Returns: false when the log is damaged; it is then emptied without writing any word that it names.
 */
inline bool restore_log(UndoLog &log, const LogWindow &window, Word kept) {
  const bool sound = is_sound(window, log);
  const Word count = sound ? log.count : 0;
  bool counted = false;
  for (Word left = count; left > kept; --left) {
    restore_entry(log, window, left - 1, left == count, counted);
  }
  store(&log.count, kept);
  return sound;
}

}  // namespace vrellis::avl

#endif
