// The undo log of a window: makes a change all or nothing, whenever its process dies. An insert or a delete is such a
// change, and so is everything that a caller does between avl_change_begin() and avl_change_commit(), its inserts and
// deletes included.
//
// A window has one log. A process that changes a tree, or rolls a change back, holds the lock of the window's trees.
// The steps of a change, each one store:
//   open     field
//   change   entry.address, entry.old, count + 1, then the word itself; for each word
//   commit   count = 0
//
// Invariants:
//   U1  The log is in use while its count is not 0; entries 0 to count - 1 are then complete.
//   U2  Restoring the entries from the last to the first gives the tree as it was before the change. Doing so again
//       gives the same tree.
//   U3  A word of a tree changes only while an entry names it. Excepted are the words of a node that is in no tree, and
//       the root field when a tree gets its first node or loses its last one.
//   U4  A change of an undamaged tree has at most kLongestChange entries.
#ifndef VRELLIS_AVL_UNDO_H
#define VRELLIS_AVL_UNDO_H

#include <cstddef>
#include <cstdint>

#include "avl/undo/notes.h"
#include "avl/undo/undo_log.h"
#include "avl/undo/versions.h"

namespace vrellis::avl {

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
inline constexpr std::size_t kWordsOfLevel = 2 * kWordsOfLift;
inline constexpr std::size_t kLongestChange =
    kWordsOfUnlinking + kWordsOfLevel * greatest_height(std::uint64_t{1} << 32);

static_assert(greatest_height(3) == 2 && greatest_height(4) == 3 && greatest_height(6) == 3 && greatest_height(7) == 4);
static_assert(kLongestChange + kWordsOfLevel <= kUndoCapacity);

// A client's longest change takes an NH and its tunnel out: tunnel indexes are 16-bit numbers, and the null tunnel has
// a node for each interface. The rest is linkage, slots, a ledger's and a queue's words, and the allocator's
// bookkeeping.
inline constexpr std::size_t kWordsBesideTrees = 100;
static_assert(kLongestChange + kWordsOfUnlinking + kWordsOfLevel * greatest_height(1U << 17) + kWordsBesideTrees <=
              kUndoCapacity);

inline UndoLog &undo_log_of(const WindowMap &map) {
  return *static_cast<UndoLog *>(map.tree_area);
}

// Rolls back the change in the window's log. May be cut off anywhere and be begun again.
// Returns: false when the log is damaged; it is then emptied without writing any word that it names.
bool roll_back(const WindowMap &map);

// Rolls back the entries behind the first `kept` ones.
bool roll_back_to(const WindowMap &map, Word kept);

// Rolls back as well. Returns: the root that the tree has now, whose root was `root` when the caller read its field.
Word root_after_roll_back(const WindowMap &map, Word root);

// True inside a change, and when a process died in the middle of one.
inline bool is_log_in_use(const WindowMap *map) {
  return map != nullptr && undo_log_of(*map).count != 0;
}

// True if a process died in the middle of a change of this window.
inline bool is_unsettled(const WindowMap *map) {
  return is_log_in_use(map) && open_change.map == nullptr;
}

// The log of the open change.
inline UndoLog &open_log() {
  return undo_log_of(*open_change.map);
}

// One open change of the tree under `field`. Its nodes all lie in `map`'s window; without a window (nullptr) nothing is
// logged. A node that is in no tree needs no undoing: its words are written with store().
class Change {
 public:
  Change(const WindowMap *map, const Word *field) {
    if (map != nullptr) {
      log_ = &undo_log_of(*map);
      version_ = version_of(map->begin, address_of(field));
      outside_ = covers(*map, address_of(field)) ? nullptr : field;
      if (open_change.map == nullptr) {
        store(&log_->field, address_of(field));
      } else {
        keep_version(*map, version_);
        begin_ = count_ = log_->count;
      }
    }
  }

  // The first word of the change, a child word or the root field: readers without the lock learn of the change between
  // its entry and its store (V1).
  void put_first(Word *holder, Word value) {
    if (log_ != nullptr) {
      if (holder != outside_) {
        log(holder);
      }
      begin_version(version_);
    }
    store(holder, value);
  }

  // A word that may be the root field.
  void put_holder(Word *holder, Word value) {
    if (holder != outside_) {
      put(holder, value);
    } else {
      store(holder, value);
    }
  }

  // A word of a node.
  void put(Word *word, Word value) {
    if (log_ != nullptr) {
      log(word);
    }
    store(word, value);
  }

  // False in a damaged tree only (U4). A loop that climbs the tree asks before each level, and gives up: the log has
  // room for the words of one level more than an undamaged tree can need.
  bool can_climb() const { return count_ - begin_ <= kLongestChange; }

  // Returns: false when a loop gave up; every word then has its old value again.
  bool commit() {
    const bool is_whole = can_climb();
    if (!is_whole) [[unlikely]] {
      roll_back_to(*window_of(log_), begin_);
    }
    if (log_ != nullptr && open_change.map == nullptr) {
      store(&log_->count, 0);
      end_version(version_);
    }
    return is_whole;
  }

 private:
  void log(const Word *word) {
    UndoEntry &entry = log_->entries[count_];
    store(&entry.address, address_of(word));
    store(&entry.old, *word);
    store(&log_->count, ++count_);
  }

  UndoLog *log_ = nullptr;
  Word *version_ = nullptr;
  const Word *outside_ = nullptr;  // the root field, when it lies outside the window: no other process can read it
  std::size_t begin_ = 0;          // entries of the enclosing change
  std::size_t count_ = 0;
};

}  // namespace vrellis::avl

#endif
