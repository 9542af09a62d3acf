// What the words of a window were before the change that is open, for a reader without the lock. The same rules as
// those by which restore_log() (undo_log.h) writes them, without a store.
#ifndef VRELLIS_AVL_UNDO_VIEW_H
#define VRELLIS_AVL_UNDO_VIEW_H

#include <algorithm>

#include "avl/undo/undo_log.h"

// Other threads change these words meanwhile, by plain stores; the reader finds that out by versions and by the log's
// count, which ThreadSanitizer cannot know.
#if defined(__clang__)
#define ENCAP_READS_WHAT_CHANGES __attribute__((disable_sanitizer_instrumentation))
#else
#define ENCAP_READS_WHAT_CHANGES
#endif

namespace vrellis::avl {

ENCAP_READS_WHAT_CHANGES inline Word load_word(Word address) {
  return __atomic_load_n(word_at(address), __ATOMIC_ACQUIRE);
}

ENCAP_READS_WHAT_CHANGES inline std::uint32_t load_half(Word address) {
  return __atomic_load_n(half_at(address), __ATOMIC_ACQUIRE);
}

class UndoView {
 public:
  // Until open() is called, words are as they are in memory. `window_end` bounds what is read beside a word.
  UndoView(const UndoLog &log, Word window_end) : log_(address_of(&log)), window_end_(window_end) {}

  // From here on words are as they were before the change that is open now, if one is.
  void open() {
    if (!is_open_) {
      is_open_ = true;
      count_ = load_word(log_);
    }
  }

  // True when a change was open at open(), so that words are read through its log.
  bool reads_log() const { return count_ != 0; }

  // False when the log has changed since open().
  bool holds() const { return !is_open_ || load_word(log_) == count_; }

  // True when a count and the bit behind it may have been read from before and after one store.
  bool unsure() const { return unsure_; }

  // Requires: an aligned address in the window.
  Word word(Word address) {
    const Word now = load_word(address);
    return !is_open_ || count_ == 0 || count_ > kUndoCapacity ? now : before(address, now);
  }

  std::uint32_t half(Word address) { return static_cast<std::uint32_t>(word(address & ~Word{7}) >> 8 * (address & 4)); }

 private:
  [[gnu::cold, gnu::noinline]] Word before(Word address, Word now) {
    Marks marks;
    for (Word left = count_; left > 0; --left) {
      const Word entry = log_ + offsetof(UndoLog, entries) + (left - 1) * sizeof(UndoEntry);
      const Word named = load_word(entry);
      const Word old = load_word(entry + 8);
      if ((named & kKindBits) == kMark) {
        marks.counted = marks.counted || old == kCountedNow || (old == kCountedWithNext && left != count_);
        marks.by_bit = marks.by_bit || old == kCountedByBit;
      } else if ((named & ~Word{7}) == address) {
        now = (named & kKindBits) == kWord ? old : with_half(named, old, now, marks);
      }
    }
    return now;
  }

  Word with_half(Word named, Word old, Word now, const Marks &marks) {
    const Word shift = 8 * (named & 4);
    auto half = static_cast<std::uint32_t>(old);
    if ((named & kKindBits) == kCount) {
      half = count_before(static_cast<std::uint32_t>(now >> shift), behind(named, now), old, marks);
    }
    return (now & ~(Word{0xffffffff} << shift)) | Word{half} << shift;
  }

  // The 4-byte word behind a count.
  std::uint32_t behind(Word named, Word now) const {
    const Word next = (named & ~Word{7}) + 8;
    return static_cast<std::uint32_t>((named & 4) == 0 ? now >> 32 : next < window_end_ ? load_word(next) : 0);
  }

  std::uint32_t count_before(std::uint32_t count, std::uint32_t behind, Word old, const Marks &marks) {
    const auto before = static_cast<std::uint32_t>(old >> 32);
    const auto after = static_cast<std::uint32_t>(old);
    const bool has_bit = (behind & kJustCounted) != 0;
    unsure_ = unsure_ || (marks.by_bit && !marks.counted && (count == before) == has_bit);
    const bool has_changed = marks.counted || has_bit || (!marks.by_bit && count != before);
    return count + (has_changed ? before - after : 0);
  }

  Word log_;
  Word window_end_;
  Word count_ = 0;
  bool is_open_ = false;
  bool unsure_ = false;
};

}  // namespace vrellis::avl

#endif
