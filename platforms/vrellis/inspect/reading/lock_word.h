// The database's mutex as it lies in a window: read as bytes, never as a mutex. For the inspector alone.
#ifndef ENCAP_INSPECT_LOCK_WORD_H
#define ENCAP_INSPECT_LOCK_WORD_H

#include <sys/mman.h>

#include "database.h"

namespace encap_inspect {

// Of the database in the window's user area; nothing recognised when the view does not reach so far.
LockState decode_lock(const View &view);

bool lock_is_held_by_the_living(const View &view);

// Where this process has a window's file mapped, for as long as the object lives: /proc then tells whether another
// process has the same file mapped, or the one that it is a copy of.
class MappedFile {
 public:
  explicit MappedFile(const std::string &path);
  explicit MappedFile(const View &view);  // of a live view
  ~MappedFile();
  MappedFile(const MappedFile &) = delete;
  MappedFile &operator=(const MappedFile &) = delete;

  Address address() const { return address_; }  // 0: the file cannot be mapped

  // Whether the process or thread has the file mapped at `address`.
  vrellis::Mapped at(pid_t id, Address address) const;

 private:
  void *page_ = MAP_FAILED;
  Address address_ = 0;
};

// Who is attached, and whether ids mean something here: a live window of this PID namespace.
std::vector<AttachedProcess> decode_processes(const View &view);

// The word of a live view's file as it is now; `otherwise` when that cannot be told.
std::uint32_t word_now(const View &view, std::uint64_t offset, std::uint32_t otherwise);

}  // namespace encap_inspect

#endif
