// What a window's file holds, and everything that must agree before a process may map it.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstring>

#include "process/process.h"
#include "shmwin/file.h"

namespace vrellis {
namespace {

// What a window says, and what this process needs it to say.
struct Agreement {
  std::uint64_t found;
  std::uint64_t wanted;
  const char *found_text;   // "window 'x' <found_text> <found>,"
  const char *wanted_text;  // "<wanted_text> <wanted>"
  int status;
  bool hexadecimal;
};

int refuse_agreement(const Agreement &row, const char *name, shmwin_error_t *error) {
  if (row.hexadecimal) {
    return refuse(error, row.status, "window '%s' %s %#" PRIx64 ", %s %#" PRIx64, name, row.found_text, row.found,
                  row.wanted_text, row.wanted);
  }
  return refuse(error, row.status, "window '%s' %s %" PRIu64 ", %s %" PRIu64, name, row.found_text, row.found,
                row.wanted_text, row.wanted);
}

bool is_mappable(std::uint64_t address, std::uint64_t size) {
  return address % kPageBytes == 0 && address != 0 && address < (std::uint64_t{1} << 47) &&
         size <= (std::uint64_t{1} << 47) - address;
}

}  // namespace

int refuse_system(shmwin_error_t *error, int status, const char *action, const char *subject) {
  return refuse(error, status, "cannot %s '%s': %s", action, subject, std::strerror(status));
}

int read_content(const shmwin_claim_t &claim, FileContent *content, shmwin_error_t *error) {
  struct stat status;
  if (fstat(claim.fd, &status) != 0) {
    return refuse_system(error, errno, "look at", claim.path);
  }
  content->bytes = static_cast<std::uint64_t>(status.st_size);
  content->header = WindowHeader{};
  if (pread(claim.fd, &content->header, kPageBytes, 0) < 0) {
    return refuse_system(error, errno, "read", claim.path);
  }
  return 0;
}

// A creator dies with its file empty, reserved and still zero, or with the magic but not the last word written. What
// begins with anything else is not ours to overwrite.
bool is_absent(const FileContent &content) {
  const WindowHeader &header = content.header;
  const auto *const bytes = reinterpret_cast<const std::uint8_t *>(&header);
  const bool blank = std::all_of(bytes, bytes + kPageBytes, [](std::uint8_t byte) { return byte == 0; });
  return blank || (header.magic == kWindowMagic && header.complete == 0);
}

int preflight(const FileContent &content, const char *name, std::uint32_t shm_id, shmwin_error_t *error) {
  const WindowHeader &header = content.header;
  const std::uint64_t size = std::clamp(header.size, kMinWindowBytes, kMaxWindowBytes);
  const Agreement rows[] = {
      {header.magic, kWindowMagic, "is no window: it begins with", "a window with", EINVAL, true},
      {header.version, kLayoutVersion, "is of layout version", "this library reads version", EINVAL, false},
      {header.complete, kWindowComplete, "is not complete: its last word is", "that of a complete one", EINVAL, true},
      {header.word_bits, kWordBits, "has a word size in bits of", "this process has", EINVAL, false},
      {header.mutex_bytes, sizeof(pthread_mutex_t), "has mutexes whose size in bytes is", "those of this process have",
       EINVAL, false},
      {header.size, content.bytes, "records a size in bytes of", "its file has", EINVAL, false},
      {header.size, size, "is damaged: it records a size in bytes of", "the nearest possible one is", EINVAL, false},
      {header.heap_pages, shape_of_size(size).pages, "is damaged: its heap pages number", "its size has room for",
       EINVAL, false},
      {header.shm_id, shm_id, "has id", "asked for was id", EINVAL, false},
      {header.pid_namespace, own_pid_namespace(), "belongs to PID namespace", "this process runs in", EXDEV, false},
  };
  for (const Agreement &row : rows) {
    if (row.found != row.wanted) {
      return refuse_agreement(row, name, error);
    }
  }
  if (!is_mappable(header.address, header.size)) {
    return refuse(error, EINVAL,
                  "window '%s' is damaged: it records %#" PRIx64 ", where no process can map %" PRIu64 " bytes", name,
                  header.address, header.size);
  }
  return 0;
}

}  // namespace vrellis
