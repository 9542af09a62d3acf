#include "messages.h"

#include <unistd.h>

#include <cerrno>
#include <cstddef>

namespace demo {

bool read_all(int fd, void *record, std::size_t size) {
  auto *at = static_cast<std::byte *>(record);
  while (size > 0) {
    const ssize_t got = read(fd, at, size);
    if (got == 0 || (got < 0 && errno != EINTR)) {
      return false;
    }
    at += got > 0 ? got : 0;
    size -= got > 0 ? static_cast<std::size_t>(got) : 0;
  }
  return true;
}

bool write_all(int fd, const void *record, std::size_t size) {
  auto *at = static_cast<const std::byte *>(record);
  while (size > 0) {
    const ssize_t put = write(fd, at, size);
    if (put < 0 && errno != EINTR) {
      return false;
    }
    at += put > 0 ? put : 0;
    size -= put > 0 ? static_cast<std::size_t>(put) : 0;
  }
  return true;
}

}  // namespace demo
