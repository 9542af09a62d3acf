// What every line of the log begins with.
#ifndef TESTS_SERVICES_LOG_LINE_PREFIX_H
#define TESTS_SERVICES_LOG_LINE_PREFIX_H

#include <unistd.h>

#include <cstdio>
#include <string>

// The line behind "date time process/thread ", which must be of this process.
inline std::string without_prefix(const std::string &line) {
  int date[3], time[3], microseconds = 0, process = 0, thread = 0, end = 0;
  const int fields = std::sscanf(line.c_str(), "%4d-%2d-%2d %2d:%2d:%2d.%6d %d/%d%n", &date[0], &date[1], &date[2],
                                 &time[0], &time[1], &time[2], &microseconds, &process, &thread, &end);
  const auto length = static_cast<size_t>(end);
  const bool whole = fields == 9 && process == getpid() && thread > 0 && line.find('.') == 19 && line[length] == ' ';
  return whole ? line.substr(length + 1) : "no line of the log: " + line;
}

#endif
