#include "support/window.h"

#include <linux/futex.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "check/check.h"
#include "shmwin/layout.h"

namespace crash {

void give_up(const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  std::vfprintf(stderr, format, arguments);
  va_end(arguments);
  std::fputc('\n', stderr);
  Directory::remove_newest();
  std::exit(1);
}

encap_db_config_t config_in(const Directory &directory, std::uint64_t size) {
  encap_db_config_t config =
      test_support::database_in(directory.path(), "window", kWindowId, {kNhStart, kNhSize}, {kTunStart, kTunSize});
  config.size = size;
  return config;
}

Window::Window(const Directory & /*outlives it*/, const encap_db_config_t &config) {
  shmwin_error_t error{};
  if (encap_db_open(&config, nullptr, &error) != 0) {
    give_up("the database cannot be opened: %s", error.text);
  }
  void *begin = nullptr;
  shmwin_bounds(config.shm_id, &begin, &size_);
  bytes_ = static_cast<std::uint8_t *>(begin);
}

void Window::forget_processes() const {
  std::memset(bytes_ + offsetof(vrellis::WindowHeader, process), 0, sizeof vrellis::WindowHeader::process);
}

Window::~Window() {
  encap_db_close();
}

void Window::put(const Image &image) const {
  std::memcpy(bytes_, image.data(), size_);
}

void Window::become_copy() const {
  const int fd = memfd_create("copy", MFD_CLOEXEC);
  if (fd < 0 || ftruncate(fd, static_cast<off_t>(size_)) != 0 ||
      mmap(bytes_, size_, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, fd, 0) == MAP_FAILED) {
    give_up("no copy of the window can be mapped");
  }
  close(fd);
}

pthread_mutex_t &Window::mutex_in(Image &image) const {
  const auto offset = reinterpret_cast<std::uint8_t *>(&egress_encap_db->lock.mutex) - bytes_;
  return *reinterpret_cast<pthread_mutex_t *>(image.data() + offset);
}

void Window::bury(Image &image, pid_t tid) const {
  constexpr int kNobody = 1 << 21;  // in no use as a thread id
  auto &mutex = mutex_in(image).__data;
  const auto word = static_cast<unsigned>(mutex.__lock);
  if ((word & FUTEX_TID_MASK) == static_cast<unsigned>(tid)) {
    mutex.__lock = static_cast<int>((word & FUTEX_WAITERS) | FUTEX_OWNER_DIED);
  }
  if (mutex.__owner == tid) {
    mutex.__owner = kNobody;
  }
  mutex.__list = {};  // the dead thread's own: its successor never follows it
}

std::uint64_t hash_of(const Image &image) {
  std::uint64_t hash = 0x9e3779b97f4a7c15;
  for (std::size_t i = 0; i + 8 <= image.size(); i += 8) {
    std::uint64_t word;
    std::memcpy(&word, image.data() + i, 8);
    hash = (hash ^ word) * 0xff51afd7ed558ccd;
    hash ^= hash >> 32;
  }
  return hash;
}

std::string text_of(const encap_inspect::Report &report, Findings which) {
  std::string text = report.looked ? "" : "the database could not be looked at\n";
  for (const encap_inspect::Finding &finding : report.findings) {
    const bool of_blocks = finding.kind == encap_inspect::FindingKind::kBlockUnreachable ||
                           finding.kind == encap_inspect::FindingKind::kBlockNotTaken;
    const bool beyond_notes = encap_inspect::severity_of(finding.kind) != encap_inspect::Severity::kNote;
    if (which == Findings::kAll || (which == Findings::kBlocks ? of_blocks : beyond_notes)) {
      text += std::string("  ") + encap_inspect::name_of(finding.kind) + ": " + finding.text + '\n';
    }
  }
  return text;
}

encap_inspect::Report look_at(const Window &window) {
  return encap_inspect::check(encap_inspect::View::over(window.bytes(), window.size()));
}

std::string findings_in(const Window &window, Findings which) {
  return text_of(look_at(window), which);
}

}  // namespace crash
