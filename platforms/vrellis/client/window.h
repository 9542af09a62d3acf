// Words of the window, changed inside the open change, and pages of its allocator.
#ifndef VRELLIS_CLIENT_WINDOW_H
#define VRELLIS_CLIENT_WINDOW_H

#include <cstddef>
#include <cstdint>

#include "avl/avl_change.h"
#include "mpls_egress_encap_db.h"
#include "shmwin.h"

namespace clients {

// Changes a word of the window: its old value goes to the undo log first. Requires an open change.
template <typename Word>
void put(Word &word, Word value) {
  static_assert(sizeof(Word) == 4 || sizeof(Word) == 8);
  avl_change_note(&word, sizeof word);
  __atomic_store_n(&word, value, __ATOMIC_RELEASE);
}

template <typename Record>
Record *at(std::uint64_t address) {
  return reinterpret_cast<Record *>(address);  // NOLINT(performance-no-int-to-ptr): the window holds plain addresses
}

inline std::uint64_t address_of(const void *record) {
  return reinterpret_cast<std::uint64_t>(record);
}

// Takes a zeroed block of the window inside the open change. Returns: nullptr when there is no memory.
template <typename Record>
Record *take() {
  void *block = nullptr;
  if (shmwin_malloc(egress_encap_db->shm_id, sizeof(Record), &block) != 0) {
    return nullptr;
  }
  __builtin_memset(block, 0, sizeof(Record));  // in use for nobody before the change is committed
  return static_cast<Record *>(block);
}

struct Page {
  std::uint64_t word[512];
};

}  // namespace clients

#endif
