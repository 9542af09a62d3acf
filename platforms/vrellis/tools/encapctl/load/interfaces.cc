#include "load/interfaces.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <sstream>

#include "output/failure.h"
#include "route_file.h"

namespace encapctl {
namespace {

constexpr int kLockTries = 50;
constexpr useconds_t kLockPause = 100'000;
constexpr std::size_t kMaxBytes = std::size_t{1} << 24;

// "0x1000000" or "16777216". Returns: false when the text is no number of 32 bits.
bool parse(std::string_view text, std::uint32_t &number) {
  const bool hexadecimal = text.starts_with("0x");
  text.remove_prefix(hexadecimal ? 2 : 0);
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, hexadecimal ? 16 : 10);
  return error == std::errc{} && end == text.data() + text.size();
}

}  // namespace

Interfaces::Interfaces(const std::string &window_path, const encap_inspect::Owner &owner)
    : path_(path_of(window_path)),
      fd_(open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600)) {
  try {
    check_file(owner);
    read();
  } catch (...) {
    close(fd_);
    throw;
  }
}

Interfaces::~Interfaces() {
  if (is_empty_) {
    unlink(path_.c_str());
  }
  close(fd_);
}

void Interfaces::fail(const std::string &reason) const {
  throw Failure(fmt::format("the interface numbers in '{}' cannot be used: {}", path_, reason));
}

void Interfaces::check_file(const encap_inspect::Owner &owner) {
  struct stat status {};
  if (fd_ < 0 || fstat(fd_, &status) != 0) {
    fail(std::strerror(errno));
  }
  if (!S_ISREG(status.st_mode)) {
    fail("it is no regular file");
  }
  // A new file belongs to the group that shares the window.
  if (status.st_size == 0 && status.st_uid == geteuid() && owner.group && fchown(fd_, -1U, *owner.group) == 0 &&
      fchmod(fd_, 0660) == 0) {
    fstat(fd_, &status);
  }
  const bool is_trusted =
      status.st_uid == 0 || status.st_uid == geteuid() || owner.user == status.st_uid || owner.group == status.st_gid;
  const bool others_write =
      (status.st_mode & S_IWOTH) != 0 || ((status.st_mode & S_IWGRP) != 0 && owner.group != status.st_gid);
  if (!is_trusted || others_write) {
    fail("another user may write to it");
  }
  for (int tries = 0; flock(fd_, LOCK_EX | LOCK_NB) != 0; ++tries) {
    if (tries == kLockTries) {
      fail("another process has it locked");
    }
    usleep(kLockPause);
  }
  if (fstat(fd_, &status) != 0 || status.st_nlink == 0) {
    fail("another process has removed it");
  }
}

void Interfaces::read() {
  std::string text;
  std::array<char, 4096> part{};
  for (ssize_t got = 0; (got = ::read(fd_, part.data(), part.size())) > 0 && text.size() < kMaxBytes;) {
    text.append(part.data(), static_cast<std::size_t>(got));
  }
  // A process that died while it appended has left a part of a line.
  text.resize(text.rfind('\n') + 1);
  is_empty_ = text.empty();
  if (ftruncate(fd_, static_cast<off_t>(text.size())) != 0) {
    fail(std::strerror(errno));
  }
  std::istringstream lines(text);
  for (std::string number_text, name; lines >> number_text >> name;) {
    std::uint32_t number = 0;
    if (!parse(number_text, number)) {
      fail(fmt::format("'{}' is no number", number_text));
    }
    add(name, number);
  }
}

void Interfaces::add(const std::string &name, std::uint32_t number) {
  const std::uint32_t known = number_.try_emplace(name, number).first->second;
  const std::string &holder = name_.try_emplace(number, name).first->second;
  if (known != number) {
    fail(fmt::format("interface '{}' has the number {:#x} and cannot have {:#x}, too", name, known, number));
  }
  if (holder != name) {
    fail(fmt::format("number {:#x} is that of interface '{}' and cannot be that of '{}', too", number, holder, name));
  }
}

void Interfaces::set(const std::string &pair) {
  const std::size_t equals = pair.rfind('=');
  std::uint32_t number = 0;
  if (equals == 0 || equals == pair.npos || pair.find_first_of(" \t\n") != pair.npos ||
      !parse(std::string_view(pair).substr(equals + 1), number)) {
    throw Failure(fmt::format("'{}' is no NAME=NUMBER", pair));
  }
  const std::string name = pair.substr(0, equals);
  const bool fresh = !number_.contains(name);
  add(name, number);
  fresh_ += fresh ? fmt::format("{:#x} {}\n", number, name) : "";
}

std::uint32_t Interfaces::number_of(const std::string &name) {
  if (const auto known = number_.find(name); known != number_.end()) {
    return known->second;
  }
  std::uint32_t number =
      name_.empty() ? route_file::kFirstIfh : std::max(name_.rbegin()->first + 1, route_file::kFirstIfh);
  for (; name_.contains(number) || number == 0; ++number) {
  }
  add(name, number);
  fresh_ += fmt::format("{:#x} {}\n", number, name);
  return number;
}

void Interfaces::save() {
  if (lseek(fd_, 0, SEEK_END) < 0 || write(fd_, fresh_.data(), fresh_.size()) != static_cast<ssize_t>(fresh_.size())) {
    fail(std::strerror(errno));
  }
  is_empty_ = is_empty_ && fresh_.empty();
  fresh_.clear();
}

}  // namespace encapctl
