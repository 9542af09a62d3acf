#include "view.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <new>
#include <vector>

#include "avl/undo/undo_log.h"
#include "lock_word.h"
#include "shmwin/layout.h"

namespace encap_inspect {
namespace {

constexpr std::size_t kChunk = std::size_t{1} << 20;
constexpr std::uint64_t kLogOffset = offsetof(vrellis::WindowHeader, tree_area);

struct FreePages {
  void operator()(std::uint8_t *pages) const { operator delete[](pages, std::align_val_t{vrellis::kPageBytes}); }
};

// Throws std::bad_alloc when there is no memory.
std::shared_ptr<std::uint8_t[]> allocate(std::uint64_t bytes) {
  const std::uint64_t room = std::max<std::uint64_t>(bytes, 1);
  return {new (std::align_val_t{vrellis::kPageBytes}) std::uint8_t[room], FreePages{}};
}

std::shared_ptr<std::uint8_t[]> try_to_allocate(std::uint64_t bytes) {
  try {
    return allocate(bytes);
  } catch (const std::bad_alloc &) {
    return nullptr;
  }
}

// Reads up to `bytes`; fewer when the file ends before.
std::uint64_t read_at(int fd, std::uint8_t *to, std::uint64_t bytes, std::uint64_t offset) {
  std::uint64_t done = 0;
  while (done < bytes) {
    const ssize_t got = pread(fd, to + done, bytes - done, static_cast<off_t>(offset + done));
    if (got > 0) {
      done += static_cast<std::uint64_t>(got);
    } else if (got == 0 || errno != EINTR) {
      break;
    }
  }
  return done;
}

// Brings the copy up to date. Returns: whether anything in it changed.
bool read_again(int fd, std::uint8_t *copy, std::uint64_t bytes, std::vector<std::uint8_t> &chunk) {
  bool changed = false;
  for (std::uint64_t offset = 0; offset < bytes; offset += kChunk) {
    const std::uint64_t length = std::min<std::uint64_t>(kChunk, bytes - offset);
    if (read_at(fd, chunk.data(), length, offset) != length) {
      return true;
    }
    if (std::memcmp(copy + offset, chunk.data(), length) != 0) {
      std::memcpy(copy + offset, chunk.data(), length);
      changed = true;
    }
  }
  return changed;
}

bool fail(std::string *error, const std::string &sentence) {
  if (error != nullptr) {
    *error = sentence;
  }
  return false;
}

// How much of the file to read: a window that is whole says so itself, of anything else all there is.
std::uint64_t bytes_to_read(int fd, std::uint64_t file_size) {
  vrellis::WindowHeader header{};
  read_at(fd, reinterpret_cast<std::uint8_t *>(&header), 64, 0);
  const bool whole = header.magic == vrellis::kWindowMagic && header.size >= sizeof header && header.size <= file_size;
  return whole ? header.size : file_size;
}

class File {
 public:
  File(const char *path, int flags) : fd_(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | flags)) {}
  ~File() {
    if (fd_ >= 0) {
      close(fd_);
    }
  }
  File(const File &) = delete;
  File &operator=(const File &) = delete;
  int fd() const { return fd_; }

 private:
  int fd_;
};

void pause_a_moment() {
  const timespec moment{0, 500'000};
  nanosleep(&moment, nullptr);
}

// Takes a change that was cut off back, as the next process would. Returns: false when the log is damaged.
bool roll_back(std::uint8_t *data, std::uint64_t size, Address base) {
  using vrellis::WindowHeader;
  const vrellis::avl::LogWindow window{base, base + size, base + offsetof(WindowHeader, user_area), base + kLogOffset,
                                       static_cast<std::ptrdiff_t>(reinterpret_cast<Address>(data) - base)};
  return vrellis::avl::restore_log(*reinterpret_cast<vrellis::avl::UndoLog *>(data + kLogOffset), window, 0);
}

}  // namespace

void View::set_base() {
  const auto *header = static_cast<const vrellis::WindowHeader *>(at(0, 64));
  base_ = header != nullptr ? header->address : 0;
}

std::optional<View> View::open_file(const char *path, std::string *error) {
  std::optional<View> view = open_path(path, 1, kMaxViewBytes, error);
  if (view) {
    view->live_ = false;
  }
  return view;
}

std::optional<View> View::open_live(const char *directory, const char *name, std::string *error, unsigned readings) {
  const std::string path = std::string(directory != nullptr ? directory : "/dev/shm") + "/" + name;
  return open_path(path.c_str(), std::max(readings, 2U), kMaxViewBytes, error);
}

std::optional<View> View::open_patiently(const char *directory, const char *name, std::chrono::milliseconds patience,
                                         std::string *error) {
  const auto end = std::chrono::steady_clock::now() + patience;
  std::optional<View> view = open_live(directory, name, error);
  while (view && view->stillness() != Stillness::kStill && std::chrono::steady_clock::now() < end) {
    pause_a_moment();
    view = open_live(directory, name, error);
  }
  return view;
}

std::optional<View> View::open_head(const char *path, std::string *error) {
  return open_path(path, 1, sizeof(vrellis::WindowHeader), error);
}

std::optional<View> View::open_path(const char *path, unsigned readings, std::uint64_t most, std::string *error) {
  // Other users can make a link in the directory of a window; the path of a snapshot is the caller's own.
  const bool follows_links = readings < 2;
  struct stat status {};
  if ((follows_links ? stat(path, &status) : lstat(path, &status)) == 0 && !S_ISREG(status.st_mode)) {
    fail(error, "'" + std::string(path) + "' is no regular file, a window is");  // opening a device may act on it
    return std::nullopt;
  }
  const File file(path, follows_links ? 0 : O_NOFOLLOW);
  if (file.fd() < 0 || fstat(file.fd(), &status) != 0) {
    fail(error, "cannot open '" + std::string(path) + "': " + std::strerror(errno));
    return std::nullopt;
  }
  View view;
  view.path_ = path;
  view.live_ = true;
  view.file_size_ = static_cast<std::uint64_t>(status.st_size);
  const std::uint64_t bytes = std::min(bytes_to_read(file.fd(), view.file_size_), most);
  view.copy_ = try_to_allocate(bytes);
  if (view.copy_ == nullptr) {
    fail(error, "cannot copy the " + std::to_string(bytes) + " bytes of '" + path + "': there is no memory for them");
    return std::nullopt;
  }
  view.data_ = view.copy_.get();
  view.size_ = read_at(file.fd(), view.copy_.get(), bytes, 0);
  view.set_base();
  view.hold_still(file.fd(), readings);
  view.set_base();
  return view;
}

// Two equal readings show the window as it was between them. A holder of the lock is waited for as long as readings
// are left, as it may stand in the middle of an operation.
void View::hold_still(int fd, unsigned readings) {
  if (readings < 2) {
    return;
  }
  std::vector<std::uint8_t> chunk(kChunk);
  stillness_ = Stillness::kMoving;
  for (unsigned reading = 1; reading < readings && stillness_ != Stillness::kStill; ++reading) {
    if (read_again(fd, copy_.get(), size_, chunk)) {
      stillness_ = Stillness::kMoving;
      continue;
    }
    stillness_ = lock_is_held_by_the_living(*this) ? Stillness::kHeld : Stillness::kStill;
    if (stillness_ == Stillness::kHeld) {
      pause_a_moment();
    }
  }
}

View View::copy_of(const void *window, std::size_t bytes) {
  View view;
  view.copy_ = allocate(bytes);
  std::memcpy(view.copy_.get(), window, bytes);
  view.data_ = view.copy_.get();
  view.size_ = view.file_size_ = bytes;
  view.set_base();
  return view;
}

View View::over(const void *window, std::size_t bytes) {
  View view;
  view.data_ = static_cast<const std::uint8_t *>(window);
  view.size_ = view.file_size_ = bytes;
  view.live_ = true;
  view.set_base();
  return view;
}

View View::settled(bool *log_sound) const {
  bool sound = true;
  View settled = *this;
  const auto *count = static_cast<const std::uint64_t *>(at(kLogOffset, sizeof(vrellis::avl::UndoLog), 8));
  if (count != nullptr && *count != 0) {
    settled = copy_of(data_, size_);
    settled.live_ = live_;
    settled.path_ = path_;
    settled.file_size_ = file_size_;
    settled.stillness_ = stillness_;
    sound = roll_back(settled.copy_.get(), size_, base_);
  }
  if (log_sound != nullptr) {
    *log_sound = sound;
  }
  return settled;
}

}  // namespace encap_inspect
