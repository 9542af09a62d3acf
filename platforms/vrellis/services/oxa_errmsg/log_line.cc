#include "oxa_errmsg/log_line.h"

#include <unistd.h>

#include <charconv>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "oxa_errmsg/local_time.h"

namespace vrellis {

LogLine::LogLine() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  const LocalTime local = local_time(now.tv_sec);
  length_ = static_cast<size_t>(std::snprintf(line_.data(), line_.size(), "%04u-%02u-%02u %02u:%02u:%02u.%06ld %d/%d ",
                                              local.year, local.month, local.day, local.hour, local.minute,
                                              local.second, now.tv_nsec / 1000, getpid(), gettid()));
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
  const std::span<char> free = room();
  if (free.empty()) {
    return;
  }
  const bool whole = wanted < free.size();
  const size_t kept = whole ? wanted : free.size() - 1;
  if (!whole && kept >= 3) {
    std::fill_n(&free[kept - 3], 3, '.');
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

}  // namespace vrellis
