// Notes in the undo log of an open change, inlined into their callers: they are most of what a change costs.
//
// The tree service and the allocator note their own words. The caller that opened the change (avl_change.h) notes each
// other word before it changes it.
#ifndef VRELLIS_AVL_NOTES_H
#define VRELLIS_AVL_NOTES_H

#include <cstddef>
#include <cstdint>

#include "avl/undo/undo_log.h"

namespace vrellis::avl {

// Returns: the entry behind the one written.
inline UndoEntry *write_entry(UndoEntry *entry, Word address, Word old) {
  store(&entry->address, address);
  store(&entry->old, old);
  return entry + 1;
}
inline UndoEntry *write_word(UndoEntry *entry, const std::uint64_t &word) {
  return write_entry(entry, address_of(&word) + kWord, word);
}
inline UndoEntry *write_word(UndoEntry *entry, const std::uint32_t &word) {
  return write_entry(entry, address_of(&word) + kHalf, word);
}
template <std::size_t kWords>
[[gnu::always_inline]] inline UndoEntry *write_halves(UndoEntry *entry, const std::uint32_t *words) {
#pragma GCC unroll 16
  for (std::size_t i = 0; i < kWords; ++i) {
    entry = write_word(entry, words[i]);
  }
  return entry;
}
inline UndoEntry *write_count(UndoEntry *entry, const std::uint32_t *count, std::uint32_t next) {
  return write_entry(entry, address_of(count) + kCount, Word{*count} << 32 | next);
}

// Adds so many entries, which `write` writes, all by one store. Ends the process when the bound of a change's length
// (U4) is wrong: a word that is not noted could not be taken back.
template <typename Write>
[[gnu::always_inline]] inline void add_entries(UndoLog &log, std::size_t entries, Write write) {
  const Word count = log.count;
  if (count + entries > kUndoCapacity) [[unlikely]] {
    __builtin_trap();
  }
  write(&log.entries[count]);
  store(&log.count, count + entries);
}

// Notes words of 4 or 8 bytes.
template <typename... Words>
[[gnu::always_inline]] inline void note_words(UndoLog &log, const Words &...words) {
  add_entries(log, sizeof...(words), [&](UndoEntry *entry) { ((entry = write_word(entry, words)), ...); });
}

// Notes so many words of 4 bytes that lie side by side.
template <std::size_t kWords>
[[gnu::always_inline]] inline void note_halves(UndoLog &log, const std::uint32_t *words) {
  add_entries(log, kWords, [&](UndoEntry *entry) { write_halves<kWords>(entry, words); });
}

// Notes a count that is about to become `next`, and so many words of 4 bytes behind it. When the change is taken back,
// the count's difference is taken back, and not what another process has added since. Bit 31 of the word behind the
// count must be one without a meaning.
template <std::size_t kWords>
[[gnu::always_inline]] inline void note_count(UndoLog &log, const std::uint32_t *count, std::uint32_t next) {
  add_entries(log, 1 + kWords,
              [&](UndoEntry *entry) { write_halves<kWords>(write_count(entry, count, next), count + 1); });
}

// Notes that the counts have changed, or when they will have. After a death before that, a count that still has its old
// value is taken for one that has not changed.
inline void note_counted(UndoLog &log, Counted when) {
  add_entries(log, 1, [&](UndoEntry *entry) { write_entry(entry, kMark, when); });
}

// Notes and changes a count at once. A recovery knows whether the count has changed, also when others have added to it
// since: the same store sets bit 31 of the word behind the count. The bit is clear again when the call returns.
inline void count_now(UndoLog &log, std::uint32_t *count, std::uint32_t next) {
  add_entries(log, 2, [&](UndoEntry *entry) { write_entry(write_count(entry, count, next), kMark, kCountedByBit); });
  store_pair(count, next, count[1] | kJustCounted);
  note_counted(log, kCountedNow);
  store_half(count + 1, count[1] & ~kJustCounted);
}

}  // namespace vrellis::avl

#endif
