// The undo log of a window's trees: makes an insert or a delete all or nothing, whenever its process dies.
//
// The log is in use while its count is not 0. Whoever changes a tree holds the lock of the window's trees; so does
// whoever rolls back, and there is one log a window. In order, each step one store:
//   open     field
//   change   entry.address, entry.old, count + 1, then the word itself; for each word
//   commit   count = 0
// The field needs no undoing; an entry counts only once the count says so.
#ifndef VRELLIS_AVL_UNDO_H
#define VRELLIS_AVL_UNDO_H

#include <cstddef>
#include <cstdint>

#include "avl/link.h"
#include "shmwin/attached.h"

namespace vrellis::avl {

struct UndoEntry {
  Word address;  // of a word in the same window
  Word old;      // what it held before
};

inline constexpr std::size_t kUndoCapacity = (kTreeAreaBytes - 2 * sizeof(Word)) / sizeof(UndoEntry);

// Lies in the window's tree area; zeroed with it.
struct UndoLog {
  Word count;  // entries in use; 0 = no change is open
  Word field;  // the root field of the tree being changed, whether or not its value changes
  UndoEntry entries[kUndoCapacity];
};

// The highest AVL tree of so many nodes: one of height h has at least fewest(h - 1) + fewest(h - 2) + 1.
constexpr std::size_t greatest_height(std::uint64_t nodes) {
  std::size_t height = 0;
  std::uint64_t fewest = 0;
  for (std::uint64_t next = 1; next <= nodes; ++height) {
    const std::uint64_t after = fewest + next + 1;
    fewest = next;
    next = after;
  }
  return height;
}

// The longest change is a delete that turns twice on every level; NH and tunnel indexes are 32-bit numbers.
inline constexpr std::size_t kWordsOfUnlinking = 8;
inline constexpr std::size_t kWordsOfLift = 6;
inline constexpr std::size_t kLongestChange =
    kWordsOfUnlinking + 2 * kWordsOfLift * greatest_height(std::uint64_t{1} << 32);

static_assert(greatest_height(3) == 2 && greatest_height(4) == 3 && greatest_height(6) == 3 && greatest_height(7) == 4);
static_assert(kLongestChange <= kUndoCapacity && sizeof(UndoLog) <= kTreeAreaBytes);

inline UndoLog &undo_log_of(const WindowMap &map) {
  return *static_cast<UndoLog *>(map.tree_area);
}

// One open change of the tree under `field`, whose nodes all lie in `map`'s window or, without a window (nullptr), in
// none; then nothing is logged. A node that is in no tree needs no undoing: its words are written with store().
class Change {
 public:
  Change(const WindowMap *map, const Word *field) {
    if (map != nullptr) {
      log_ = &undo_log_of(*map);
      outside_ = covers(*map, address_of(field)) ? nullptr : field;
      store(&log_->field, address_of(field));
    }
  }

  void put(Word *word, Word value) {
    if (log_ != nullptr && word != outside_) {
      log(word);
    }
    store(word, value);
  }

  void commit() {
    if (log_ != nullptr) {
      store(&log_->count, 0);
    }
  }

 private:
  void log(const Word *word) {
    UndoEntry &entry = log_->entries[count_];
    store(&entry.address, address_of(word));
    store(&entry.old, *word);
    store(&log_->count, ++count_);
  }

  UndoLog *log_ = nullptr;
  const Word *outside_ = nullptr;  // the root field, when it lies outside the window: it is no other process's
  std::size_t count_ = 0;
};

/*
 * Takes back a change that its process did not live to end. May itself be cut off anywhere and be begun again.
 * `root` is what the caller read from its root field, when the change was still half-way there.
 * Returns: the root that this tree has now; `root` itself when the change was another tree's.
 */
Word roll_back(const WindowMap &map, Word root);

// The root to go on with, after rolling back what a dead process left open in the window, if anything.
inline Word settled_root(const WindowMap *map, Word root) {
  if (map != nullptr && undo_log_of(*map).count != 0) [[unlikely]] {
    return roll_back(*map, root);
  }
  return root;
}

}  // namespace vrellis::avl

#endif
