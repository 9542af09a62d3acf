#include "oxa_errmsg/log_line.h"

#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace vrellis {

LogLine::LogLine() {
  timespec now{};
  tm local{};
  clock_gettime(CLOCK_REALTIME, &now);
  localtime_r(&now.tv_sec, &local);
  length_ = std::strftime(line_.data(), line_.size(), "%Y-%m-%d %H:%M:%S", &local);
  const int written =
      std::snprintf(&line_[length_], line_.size() - length_, ".%06ld %d/%d ", now.tv_nsec / 1000, getpid(), gettid());
  length_ += static_cast<size_t>(written);
}

LogLine &LogLine::text(const char *piece) {
  const std::string_view all = piece == nullptr ? "?" : piece;
  const size_t fits = std::min(all.size(), kEnd - length_);
  std::memcpy(&line_[length_], all.data(), fits);
  length_ += fits;
  return *this;
}

LogLine &LogLine::number(uint64_t value) {
  std::array<char, 24> digits{};
  std::to_chars(digits.begin(), digits.end() - 1, value);
  return text(digits.data());
}

void LogLine::used(size_t wanted) {
  const std::span<char> there = room();
  if (there.empty()) {
    return;
  }
  const bool whole = wanted < there.size();
  const size_t kept = whole ? wanted : there.size() - 1;
  if (!whole && kept >= 3) {
    std::fill_n(&there[kept - 3], 3, '.');
  }
  length_ += kept;
}

std::string_view LogLine::finish() {
  const auto is_control = [](char c) { return (c >= 0 && c < ' ') || c == 0x7f; };
  std::replace_if(line_.data(), &line_[length_], is_control, ' ');
  line_[length_] = '\n';
  line_[length_ + 1] = '\0';
  return {line_.data(), length_};
}

void write_to_stderr(const char *line, size_t length) {
  const int before = errno;
  while (write(STDERR_FILENO, line, length + 1) < 0 && errno == EINTR) {
  }
  errno = before;
}

}  // namespace vrellis
