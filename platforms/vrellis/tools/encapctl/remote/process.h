// The memory of another process, without its help: what the permission to trace it allows. An address that leads
// nowhere ends in a refusal.
#ifndef ENCAPCTL_REMOTE_PROCESS_H
#define ENCAPCTL_REMOTE_PROCESS_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace encapctl {

struct Mapping {
  std::uint64_t begin = 0;
  std::uint64_t end = 0;
  std::uint64_t offset = 0;  // in its file
  bool writable = false;
  std::string path;
};

class RemoteProcess {
 public:
  explicit RemoteProcess(std::uint32_t pid) : pid_(pid) {}

  std::uint32_t pid() const { return pid_; }
  std::string comm() const;  // empty: it is gone

  // The mappings of files whose name begins with `file_name`. Throws Failure when the process is gone or may not be
  // looked into.
  std::vector<Mapping> mappings_of(std::string_view file_name) const;

  // Opens the file that a mapping shows, for reading. A file that was replaced since can be opened by root alone.
  // Throws Failure.
  int open_mapped(const Mapping &mapping) const;

  // Copies `size` bytes from `address`. Returns: false when they are not all there; throws Failure when the process is
  // gone or may not be looked into.
  bool read(std::uint64_t address, void *out, std::size_t size) const;

  template <typename Record>
  std::optional<Record> read_record(std::uint64_t address) const {
    static_assert(std::is_trivially_copyable_v<Record>);
    Record record;
    return read(address, &record, sizeof record) ? std::optional(record) : std::nullopt;
  }

  // Stores `size` bytes at `address`. Returns and throws as read().
  bool write(std::uint64_t address, const void *from, std::size_t size) const;

 private:
  std::uint32_t pid_;
};

// Address of the exported object `symbol` in the library whose file name begins with `file_name`, as the process has it
// loaded. Throws Failure when it has none.
std::uint64_t find_symbol(const RemoteProcess &process, std::string_view file_name, const std::string &symbol);

// The command name of a process; empty when there is none.
std::string comm_of(std::uint32_t pid);

}  // namespace encapctl

#endif
