// A sink of log lines, and what every line begins with.
#ifndef TESTS_SERVICES_KEPT_LINES_H
#define TESTS_SERVICES_KEPT_LINES_H

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

using Strings = std::vector<std::string>;

// The line behind "date time process/thread ", which must be of this process.
inline std::string without_prefix(const std::string &line) {
  int date[3], time[3], microseconds = 0, process = 0, thread = 0, end = 0;
  const int fields = std::sscanf(line.c_str(), "%4d-%2d-%2d %2d:%2d:%2d.%6d %d/%d%n", &date[0], &date[1], &date[2],
                                 &time[0], &time[1], &time[2], &microseconds, &process, &thread, &end);
  const auto length = static_cast<size_t>(end);
  const bool whole = fields == 9 && process == getpid() && thread > 0 && line.find('.') == 19 && line[length] == ' ';
  return whole ? line.substr(length + 1) : "no line of the log: " + line;
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
