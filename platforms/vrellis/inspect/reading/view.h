// A window as bytes that can be looked at without risk: no address, index or length that comes out of it is believed.
//
// A live window is read with pread() into memory of this process's own and never mapped: a file that shrinks gives a
// short read where a mapping would give SIGBUS, nothing changes while it is looked at, the window may lie at an address
// that is taken here, and no writer waits. Its addresses are translated by what the window records of itself.
#ifndef ENCAP_INSPECT_VIEW_H
#define ENCAP_INSPECT_VIEW_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

namespace encap_inspect {

using Address = std::uint64_t;  // as the processes that have the window attached know it

inline constexpr std::uint64_t kMaxViewBytes = std::uint64_t{16} << 30;  // more of a file is not copied

// How far the copy of a live window can be trusted to show one moment.
enum class Stillness {
  kStill,   // two readings agreed, and no live process held the lock: one moment, between operations
  kHeld,    // two readings agreed while a live process held the lock: it may stand in the middle of an operation
  kMoving,  // it would not hold still within the readings allowed: parts of different moments
};

class View {
 public:
  static constexpr unsigned kReadings = 12;  // about 10 ms each for a window of 80 MiB

  // Copies the live window `name` in `directory` (nullptr: /dev/shm), reading on until two readings agree.
  // Returns: nothing, with `error` one sentence, when there is no such file, it cannot be read or is no window at all.
  static std::optional<View> open_live(const char *directory, const char *name, std::string *error,
                                       unsigned readings = kReadings);

  // The same, again and again until the copy is still or `patience` ends.
  static std::optional<View> open_patiently(const char *directory, const char *name, std::chrono::milliseconds patience,
                                            std::string *error);

  // Reads a snapshot: a plain copy of a window's file.
  static std::optional<View> open_file(const char *path, std::string *error);

  // Reads the header of the live window at `path` alone, once.
  static std::optional<View> open_head(const char *path, std::string *error);

  // Of memory that holds a window: copied; or used as it lies there for the view's life (the lock keeps it still).
  // copy_of() and settled() throw std::bad_alloc when this process has no memory for the copy.
  static View copy_of(const void *window, std::size_t bytes);
  static View over(const void *window, std::size_t bytes);

  std::uint64_t size() const { return size_; }  // of the bytes; the window may record another size
  Address base() const { return base_; }        // the recorded address of the window's first byte
  std::span<const std::uint8_t> bytes() const { return {data_, size_}; }
  Stillness stillness() const { return stillness_; }
  bool is_live() const { return live_; }                  // whether process and thread ids mean something here and now
  const std::string &path() const { return path_; }       // empty for memory
  std::uint64_t file_size() const { return file_size_; }  // as the system tells it; size() for memory

  // The `length` bytes at an address of the window, or nullptr when they are not all inside or not aligned to
  // `alignment`, a power of two.
  const void *translate(Address address, std::uint64_t length, std::uint64_t alignment = 1) const {
    return at(address - base_, length, alignment);
  }

  // The same by distance from the window's first byte.
  const void *at(std::uint64_t offset, std::uint64_t length, std::uint64_t alignment = 1) const {
    const bool inside = offset <= size_ && length <= size_ - offset;
    return inside && offset % alignment == 0 ? data_ + offset : nullptr;
  }

  template <typename Record>
  const Record *record(Address address) const {
    return static_cast<const Record *>(translate(address, sizeof(Record), alignof(Record)));
  }

  // The window as the next process will find it: a change of a tree that was cut off is rolled back, in a copy.
  // `log_sound` (may be nullptr): whether the undo log was fit for that; if not, the copy is as the window is.
  View settled(bool *log_sound) const;

 private:
  static std::optional<View> open_path(const char *path, unsigned readings, std::uint64_t most, std::string *error);
  void hold_still(int fd, unsigned readings);
  void set_base();

  std::shared_ptr<std::uint8_t[]> copy_;  // empty: the caller owns data_
  const std::uint8_t *data_ = nullptr;
  std::uint64_t size_ = 0;
  std::uint64_t file_size_ = 0;
  Address base_ = 0;
  Stillness stillness_ = Stillness::kStill;
  bool live_ = false;
  std::string path_;
};

}  // namespace encap_inspect

#endif
