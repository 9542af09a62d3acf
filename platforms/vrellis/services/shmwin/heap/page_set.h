// Sets of heap pages in a window: hints that find a page in constant time (invariants H4 and H5 of shmwin/layout.h).
#ifndef VRELLIS_SHMWIN_HEAP_PAGE_SET_H
#define VRELLIS_SHMWIN_HEAP_PAGE_SET_H

#include <bit>
#include <cstdint>

#include "shmwin/layout.h"

namespace vrellis {

// A process's view of one page set. What it reads may be damaged: no index leaves its level.
class PageSet {
 public:
  static constexpr std::uint32_t kNone = UINT32_MAX;

  PageSet() = default;

  PageSet(std::uint64_t *words, std::uint64_t pages) {
    std::uint64_t count = pages;
    do {
      count = words_above(count);
      level_[depth_] = words;
      words_[depth_] = static_cast<std::uint32_t>(count);
      words += count;
      ++depth_;
    } while (count > 1);
    pages_ = static_cast<std::uint32_t>(pages);
  }

  // Fresh words: all pages are members.
  void fill() {
    std::uint64_t bits = pages_;
    for (int i = 0; i < depth_; ++i) {
      for (std::uint64_t word = 0; word < words_[i]; ++word) {
        const std::uint64_t left = bits - 64 * word;
        store_word(level_[i][word], left >= 64 ? ~std::uint64_t{0} : bit(left) - 1);
      }
      bits = words_[i];
    }
  }

  bool has(std::uint32_t page) const { return (load_word(level_[0][page / 64]) & bit(page)) != 0; }

  // From the top, so that a death on the way leaves at most a path to a word of 0.
  void insert(std::uint32_t page) {
    const std::uint64_t word = load_word(level_[0][page / 64]);
    if (word == 0) {
      insert_above(page);
    }
    store_word(level_[0][page / 64], word | bit(page));
  }

  // Whether the page is found from the top: its bit is set in every level, as H5 wants it.
  bool is_found(std::uint32_t page) const {
    for (int i = 0; i < depth_; ++i) {
      const std::uint32_t index = page >> 6 * i;
      if ((load_word(level_[i][index / 64]) & bit(index)) == 0) {
        return false;
      }
    }
    return true;
  }

  // Inserts a page of which some levels, but not all, may have the bit.
  void restore(std::uint32_t page) {
    insert_above(page);
    insert(page);
  }

  // From the bottom, for the same reason.
  void erase(std::uint32_t page) { erase_from(0, page); }

  // The lowest member, or kNone.
  std::uint32_t first() {
    while (true) {
      std::uint32_t index = 0;
      int i = depth_ - 1;
      for (; i >= 0; --i) {
        const std::uint64_t word = index < words_[i] ? load_word(level_[i][index]) : 0;
        if (word == 0) {
          break;
        }
        index = 64 * index + static_cast<std::uint32_t>(std::countr_zero(word));
      }
      if (i < 0 && index < pages_) {
        return index;
      }
      if (i == depth_ - 1) {
        return kNone;
      }
      erase_from(i + 1, index);  // a bit that leads nowhere
    }
  }

  // The lowest member at or after `page`, or kNone. Walks level 0.
  std::uint32_t next(std::uint32_t page) const {
    std::uint64_t mask = ~std::uint64_t{0} << page % 64;
    for (std::uint32_t i = page / 64; i < words_[0]; ++i, mask = ~std::uint64_t{0}) {
      const std::uint64_t word = load_word(level_[0][i]) & mask;
      if (word != 0) {
        const std::uint32_t found = 64 * i + static_cast<std::uint32_t>(std::countr_zero(word));
        return found < pages_ ? found : kNone;
      }
    }
    return kNone;
  }

 private:
  static constexpr std::uint64_t bit(std::uint64_t index) { return std::uint64_t{1} << index % 64; }

  void insert_above(std::uint32_t page) {
    for (int i = depth_ - 1; i > 0; --i) {
      const std::uint32_t index = page >> 6 * i;
      store_word(level_[i][index / 64], load_word(level_[i][index / 64]) | bit(index));
    }
  }

  void erase_from(int i, std::uint32_t index) {
    for (; i < depth_; ++i, index /= 64) {
      const std::uint64_t word = load_word(level_[i][index / 64]) & ~bit(index);
      store_word(level_[i][index / 64], word);
      if (word != 0) {
        return;
      }
    }
  }

  std::uint64_t *level_[kMaxLevels] = {};
  std::uint32_t words_[kMaxLevels] = {};
  std::uint32_t pages_ = 0;
  int depth_ = 0;
};

}  // namespace vrellis

#endif
