// Records by number, and a table that finds them by their keys. Both take little more memory than the records.
#ifndef VRELLIS_ENCAPD_POOL_H
#define VRELLIS_ENCAPD_POOL_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <random>
#include <vector>

namespace encapd {

inline constexpr std::uint32_t kNone = UINT32_MAX;

// Records that stay at their address until they are given back; numbers that were given back are given out again.
template <typename Record>
class Pool {
 public:
  Record &operator[](std::uint32_t number) { return chunks_[number / kChunk][number % kChunk]; }
  const Record &operator[](std::uint32_t number) const { return chunks_[number / kChunk][number % kChunk]; }

  std::uint32_t take() {
    if (!free_.empty()) {
      const std::uint32_t number = free_.back();
      free_.pop_back();
      (*this)[number] = Record{};
      return number;
    }
    if (used_ == chunks_.size() * kChunk) {
      chunks_.push_back(std::make_unique<Record[]>(kChunk));
    }
    return used_++;
  }
  void give_back(std::uint32_t number) { free_.push_back(number); }

 private:
  static constexpr std::uint32_t kChunk = 1024;
  std::vector<std::unique_ptr<Record[]>> chunks_;
  std::vector<std::uint32_t> free_;
  std::uint32_t used_ = 0;
};

// An open-addressing table of numbers. It compares the upper bits of a number's hash before it looks at the record.
class Index {
 public:
  std::uint32_t size() const { return used_; }

  // Returns: the number with that hash for which matches(number) is true; kNone.
  template <typename Matches>
  std::uint32_t find(std::uint64_t hash, Matches matches) const {
    for (std::size_t at = hash & mask(); !cells_.empty() && cells_[at].number != kNone; at = (at + 1) & mask()) {
      if (cells_[at].tag == tag_of(hash) && matches(cells_[at].number)) {
        return cells_[at].number;
      }
    }
    return kNone;
  }

  // hash_of(number) is the hash of the record with that number.
  template <typename HashOf>
  void add(std::uint32_t number, HashOf hash_of) {
    if (4 * std::size_t{used_ + 1} > 3 * cells_.size()) {
      std::vector<Cell> old(cells_.empty() ? 16 : 2 * cells_.size());
      old.swap(cells_);
      for (const Cell &cell : old) {
        if (cell.number != kNone) {
          place(cell.number, hash_of(cell.number));
        }
      }
    }
    place(number, hash_of(number));
    ++used_;
  }

  // Requires that the number is in the table. The cells behind it move up, so that no search ends too early.
  template <typename HashOf>
  void remove(std::uint32_t number, HashOf hash_of) {
    std::size_t hole = hash_of(number) & mask();
    while (cells_[hole].number != number) {
      hole = (hole + 1) & mask();
    }
    for (std::size_t at = (hole + 1) & mask(); cells_[at].number != kNone; at = (at + 1) & mask()) {
      const std::size_t home = hash_of(cells_[at].number) & mask();
      if (((at - home) & mask()) >= ((at - hole) & mask())) {
        cells_[hole] = cells_[at];
        hole = at;
      }
    }
    cells_[hole] = Cell{};
    --used_;
  }

  template <typename Visit>
  void each(Visit visit) const {
    for (const Cell &cell : cells_) {
      if (cell.number != kNone) {
        visit(cell.number);
      }
    }
  }

 private:
  struct Cell {
    std::uint32_t number = kNone;
    std::uint32_t tag = 0;
  };

  std::size_t mask() const { return cells_.size() - 1; }
  static std::uint32_t tag_of(std::uint64_t hash) { return static_cast<std::uint32_t>(hash >> 32); }

  void place(std::uint32_t number, std::uint64_t hash) {
    std::size_t at = hash & mask();
    while (cells_[at].number != kNone) {
      at = (at + 1) & mask();
    }
    cells_[at] = {number, tag_of(hash)};
  }

  std::vector<Cell> cells_;
  std::uint32_t used_ = 0;
};

// Different in each process, so that a router cannot choose prefixes that collide.
inline const std::uint64_t kHashSeed = std::uint64_t{std::random_device{}()} << 32 | std::random_device{}();

// A hash of `count` words of 4 bytes.
inline std::uint64_t hash_words(const void *words, std::size_t count) {
  const auto *const at = static_cast<const std::uint32_t *>(words);
  std::uint64_t hash = kHashSeed;
  for (std::size_t i = 0; i < count; ++i) {
    hash = (hash ^ at[i]) * 0xff51afd7ed558ccd;
    hash ^= hash >> 32;
  }
  return hash;
}

}  // namespace encapd

#endif
