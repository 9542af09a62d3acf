// Words of the window, changed inside the open change, and pages of its allocator.
#ifndef VRELLIS_CLIENT_WINDOW_H
#define VRELLIS_CLIENT_WINDOW_H

#include <bit>
#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "avl/avl_change.h"
#include "avl/undo/notes.h"
#include "mpls_egress_encap_db.h"
#include "shmwin.h"

namespace clients {

// Opens a change of the database's window.
inline void begin_change() {
  avl_change_begin(&egress_encap_db->tun_root);
}

// The database of this process and its window's heap, from when a client of this process opened it. None of it changes
// while it is open. A look reads it here, since the lock shares a cache line with what the database says of it.
struct Extent {
  std::uint64_t begin;
  std::uint64_t bytes;
  std::uint64_t window;  // where the window itself begins
  std::uint64_t nh_slots, tunnel_slots;
  std::uint32_t nh_start, nh_end, tunnel_start, tunnel_end;

  bool has_nh(std::uint32_t nh) const { return nh >= nh_start && nh < nh_end; }
  bool has_tunnel(std::uint32_t tunnel) const { return tunnel == 0 || (tunnel >= tunnel_start && tunnel < tunnel_end); }
};
inline constinit Extent extent{0, ~std::uint64_t{0}, 0, 0, 0, 0, 0, 0, 0};

// The window's undo log. Notes go to it between begin_change() and the commit.
inline vrellis::avl::UndoLog &undo_log() {
  constexpr std::uint64_t kLogOffset = 4096;
  return *reinterpret_cast<vrellis::avl::UndoLog *>(extent.window + kLogOffset);  // NOLINT(performance-no-int-to-ptr)
}

// Notes words before they are changed by plain stores. Requires an open change.
template <typename... Words>
[[gnu::always_inline]] inline void note(const Words &...words) {
  vrellis::avl::note_words(undo_log(), words...);
}

template <typename Record>
void note_record(const Record &record) {
  static_assert(sizeof(Record) % sizeof(std::uint32_t) == 0);
  vrellis::avl::note_halves<sizeof(Record) / sizeof(std::uint32_t)>(undo_log(),
                                                                    reinterpret_cast<const std::uint32_t *>(&record));
}

// Changes a word of the window: its old value goes to the undo log first. Requires an open change.
template <typename Word>
void put(Word &word, std::type_identity_t<Word> value) {
  note(word);
  __atomic_store_n(&word, value, __ATOMIC_RELEASE);
}

// Whether a whole record lies at an address that the window holds. Every process can write there. The rotation makes an
// address that is not aligned a very large one.
template <typename Record>
bool is_record(const Extent &heap, std::uint64_t address) {
  constexpr int kShift = std::countr_zero(alignof(Record));
  return address != 0 && std::rotr(address - heap.begin, kShift) <= (heap.bytes - sizeof(Record)) >> kShift;
}

// Returns: nullptr when no such record lies in the heap.
template <typename Record>
Record *at(std::uint64_t address) {
  // NOLINTNEXTLINE(performance-no-int-to-ptr): the window holds plain addresses
  return is_record<Record>(extent, address) ? reinterpret_cast<Record *>(address) : nullptr;
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
  __builtin_memset(block, 0, sizeof(Record));  // not in use before the change is committed
  return static_cast<Record *>(block);
}

struct Page {
  std::uint64_t word[512];
};

}  // namespace clients

#endif
