// A sink of log lines, and what every line begins with.
#ifndef TESTS_SERVICES_KEPT_LINES_H
#define TESTS_SERVICES_KEPT_LINES_H

#include <gtest/gtest.h>
#include <unistd.h>

#include <mutex>
#include <regex>
#include <string>
#include <utility>
#include <vector>

using Strings = std::vector<std::string>;

// The line behind "date time process/thread ", which must be of this process.
inline std::string without_prefix(const std::string &line) {
  static const std::regex prefix("[0-9]{4}(-[0-9]{2}){2} [0-9]{2}(:[0-9]{2}){2}\\.[0-9]{6} " +
                                 std::to_string(getpid()) + "/[0-9]+ ");
  std::smatch match;
  const bool whole = std::regex_search(line, match, prefix, std::regex_constants::match_continuous);
  return whole ? match.suffix().str() : "no line of the log: " + line;
}

inline std::mutex lines_mutex;
inline Strings lines;  // what reached the sink

inline void keep_line(void *, const char *line, size_t length) {
  const std::lock_guard lock(lines_mutex);
  EXPECT_EQ(line[length], '\n');
  lines.emplace_back(line, length);
}

// The lines since the last call, without their prefixes.
inline Strings taken_lines() {
  Strings taken;
  for (const std::string &line : std::exchange(lines, {})) {
    taken.push_back(without_prefix(line));
  }
  return taken;
}

#endif
