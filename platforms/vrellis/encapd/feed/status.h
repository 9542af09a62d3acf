// The counters of encapd, as a line of JSON in a file.
#ifndef VRELLIS_ENCAPD_STATUS_H
#define VRELLIS_ENCAPD_STATUS_H

#include <string>

#include "feed.h"

namespace encapd {

struct Lag {
  std::chrono::microseconds longest{};  // from the arrival of bytes until the database had them, since the last status
  std::size_t unread = 0;               // bytes that wait in the socket
};

// One JSON object, without a line's end.
std::string status_line(const Feed &feed, const std::string &client, const std::string &listening, const Lag &lag);

// One sentence, for the service manager.
std::string status_sentence(const Feed &feed);

// Replaces the file in one step. Returns: false with errno set.
bool replace_file(const std::string &path, const std::string &line);

}  // namespace encapd

#endif
