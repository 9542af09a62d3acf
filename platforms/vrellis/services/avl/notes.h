// Notes in the undo log of an open change, inlined into their callers: they are most of what a change costs.
//
// The tree service and the allocator note their own words. The caller that opened the change (avl_change.h) notes each
// other word before it changes it.
#ifndef VRELLIS_AVL_NOTES_H
#define VRELLIS_AVL_NOTES_H

#include <cstddef>
#include <cstdint>
#include <utility>

#include "avl/undo_log.h"

namespace vrellis::avl {

inline UndoEntry entry_of(const std::uint64_t &word) {
  return {address_of(&word) + kWord, word};
}
inline UndoEntry entry_of(const std::uint32_t &word) {
  return {address_of(&word) + kHalf, word};
}

// Ends the process when the bound of a change's length (U4) is wrong: a word that is not noted could not be taken back.
inline void check_room(Word used, std::size_t entries) {
  if (used + entries > kUndoCapacity) [[unlikely]] {
    __builtin_trap();
  }
}

// Adds entries, all by one store.
template <typename... Entries>
[[gnu::always_inline]] inline void add_entries(UndoLog &log, const Entries &...entries) {
  const Word count = log.count;
  check_room(count, sizeof...(entries));
  UndoEntry *place = &log.entries[count];
  const auto add = [&place](const UndoEntry &entry) {
    store(&place->address, entry.address);
    store(&place->old, entry.old);
    ++place;
  };
  (add(entries), ...);
  store(&log.count, count + sizeof...(entries));
}

// Notes words of 4 or 8 bytes.
template <typename... Words>
[[gnu::always_inline]] inline void note_words(UndoLog &log, const Words &...words) {
  add_entries(log, entry_of(words)...);
}

// Notes so many words of 4 bytes that lie side by side.
template <std::size_t kWords>
[[gnu::always_inline]] inline void note_halves(UndoLog &log, const std::uint32_t *words) {
  [&]<std::size_t... kNumber>(std::index_sequence<kNumber...>) {
    note_words(log, words[kNumber]...);
  }
  (std::make_index_sequence<kWords>{});
}

// Notes a count that is about to become `next`. When the change is taken back, the difference is taken back, and not
// what another process has added since. Bit 31 of the 4-byte word behind the count must be one without a meaning.
inline void note_count(UndoLog &log, const std::uint32_t &count, std::uint32_t next) {
  add_entries(log, UndoEntry{address_of(&count) + kCount, Word{count} << 32 | next});
}

// Notes that the counts have changed, or when they will have. After a death before that, a count that still has its old
// value is taken for one that has not changed.
inline void note_counted(UndoLog &log, Counted when) {
  add_entries(log, UndoEntry{kMark, when});
}

// Notes and changes a count at once. A recovery knows whether the count has changed, also when others have added to it
// since: the same store sets bit 31 of the word behind the count. The bit is clear again when the call returns.
inline void count_now(UndoLog &log, std::uint32_t *count, std::uint32_t next) {
  add_entries(log, UndoEntry{address_of(count) + kCount, Word{*count} << 32 | next}, UndoEntry{kMark, kCountedByBit});
  store_pair(count, next, count[1] | kJustCounted);
  note_counted(log, kCountedNow);
  store_half(count + 1, count[1] & ~kJustCounted);
}

}  // namespace vrellis::avl

#endif
