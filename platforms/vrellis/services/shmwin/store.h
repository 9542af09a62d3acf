// Words of a window, read and written. For the window service alone; a test puts stores of its own in their place.
#ifndef VRELLIS_SHMWIN_STORE_H
#define VRELLIS_SHMWIN_STORE_H

#include <atomic>
#include <cstdint>

#include "between_services.h"

namespace vrellis {

inline std::uint64_t load_word(const std::uint64_t &word) {
  return std::atomic_ref(const_cast<std::uint64_t &>(word)).load(std::memory_order_relaxed);
}

// A process can die between any two stores, and others go on from what it left: stores happen in the program's order.
// While a change of the whole window is open, the word is noted first.
inline void store_word(std::uint64_t &word, std::uint64_t value) {
  if (open_change.map != nullptr) [[unlikely]] {
    note_word(&word);
  }
  std::atomic_ref(word).store(value, std::memory_order_release);
}

}  // namespace vrellis

#endif
