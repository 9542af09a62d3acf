// The undo log as it lies in a window, and how its entries are restored: by the process that has the window mapped, or
// in a copy of it.
//
// The two lowest bits of an entry's address say what it names:
//   kWord    an 8-byte word: `old` is what it held
//   kHalf    a 4-byte word: likewise
//   kCount   a 4-byte count: `old` is what it held, shifted by 32, and what it becomes. Processes that do not settle
//            the window before they count may have changed it since, so the difference is taken back. Bit 31 of the
//            4-byte word behind a count has no meaning of its own.
//   kMark    no word: tells when the counts of the entries before it have changed, by `old` (Counted)
#ifndef VRELLIS_AVL_UNDO_LOG_H
#define VRELLIS_AVL_UNDO_LOG_H

#include <cstddef>
#include <cstdint>

#include "avl/link.h"
#include "between_services.h"

namespace vrellis::avl {

enum EntryKind : Word { kWord = 0, kHalf = 1, kCount = 2, kMark = 3, kKindBits = 3 };

enum Counted : Word {
  kCountedNow = 0,
  kCountedWithNext = 1,  // once an entry follows
  kCountedByBit = 2,     // with the store that sets kJustCounted in the word behind the count
};
inline constexpr std::uint32_t kJustCounted = std::uint32_t{1} << 31;

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
    const Word behind = kind == kCount ? entry + sizeof(std::uint32_t) : entry;
    return kind == kMark ||
           ((kind != kWord || whole) && has(entry & ~(sizeof(Word) - 1)) && has(behind & ~(sizeof(Word) - 1)));
  }

  Word here(Word address) const { return address + static_cast<Word>(shift); }
};

inline void store_half(std::uint32_t *word, std::uint32_t value) {
  __atomic_store_n(word, value, __ATOMIC_RELEASE);
}

// Both words in one instruction, so that no death falls between them. They need not lie in one aligned word.
inline void store_pair(std::uint32_t *words, std::uint32_t first, std::uint32_t second) {
  struct [[gnu::packed, gnu::may_alias]] Pair {
    std::uint64_t word;
  };
  reinterpret_cast<volatile Pair *>(words)->word = std::uint64_t{second} << 32 | first;
}

// What the marks behind an entry tell of the counts before them.
struct Marks {
  bool counted = false;
  bool by_bit = false;
};

// Takes the difference back. Without a mark a count has changed unless it holds its old value. The bit goes by the same
// store, so that the difference is not taken back again.
inline void restore_count(std::uint32_t *count, Word old, const Marks &marks) {
  const auto before = static_cast<std::uint32_t>(old >> 32);
  const auto after = static_cast<std::uint32_t>(old);
  const bool has_bit = (count[1] & kJustCounted) != 0;
  const bool has_changed = marks.counted || has_bit || (!marks.by_bit && *count != before);
  const std::uint32_t restored = *count + (has_changed ? before - after : 0);
  if (has_bit) {
    store_pair(count, restored, count[1] & ~kJustCounted);
  } else if (has_changed) {
    store_half(count, restored);
  }
}

inline void restore_entry(UndoLog &log, const LogWindow &window, Word number, bool is_newest, Marks &marks) {
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
      marks.counted = marks.counted || entry.old == kCountedNow || (entry.old == kCountedWithNext && !is_newest);
      marks.by_bit = marks.by_bit || entry.old == kCountedByBit;
      break;
    default:
      // A difference may not be taken back twice: the entries behind this one are done, and it becomes the newest.
      store(&log.count, number + 1);
      restore_count(half_at(address), entry.old, marks);
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
 * times ends with its oldest value. The count stays until every word is restored: if this process dies too, the next
 * one restores the same words again.
 * Returns: false when the log is damaged; it is then emptied without writing any word that it names.
 */
inline bool restore_log(UndoLog &log, const LogWindow &window, Word kept) {
  const bool sound = is_sound(window, log);
  const Word count = sound ? log.count : 0;
  Marks marks;
  for (Word left = count; left > kept; --left) {
    restore_entry(log, window, left - 1, left == count, marks);
  }
  store(&log.count, kept);
  return sound;
}

}  // namespace vrellis::avl

#endif
