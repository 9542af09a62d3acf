#include "output/progress.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

namespace encapctl {
namespace {

constexpr auto kPatience = std::chrono::milliseconds(300);
constexpr auto kInterval = std::chrono::milliseconds(100);
constexpr std::uint64_t kWidth = 40;

}  // namespace

Progress::Progress(std::string what, std::uint64_t total)
    : what_(std::move(what)),
      total_(std::max<std::uint64_t>(total, 1)),
      terminal_(isatty(STDERR_FILENO) == 1),
      next_(std::chrono::steady_clock::now() + kPatience) {}

Progress::~Progress() {
  if (drawn_) {
    fmt::print(stderr, "\r\033[K");
  }
}

void Progress::draw() {
  const auto now = std::chrono::steady_clock::now();
  if (now < next_) {
    return;
  }
  const std::uint64_t done = std::min(done_, total_);
  fmt::print(stderr, "\r{} [{:#<{}}{:.<{}}] {:3} %", what_, "", done * kWidth / total_, "",
             kWidth - done * kWidth / total_, done * 100 / total_);
  std::fflush(stderr);
  next_ = now + kInterval;
  drawn_ = true;
}

}  // namespace encapctl
