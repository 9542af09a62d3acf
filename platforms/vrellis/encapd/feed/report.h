// What encapd tells: messages on stderr, events on stdout, counters for its status.
#ifndef VRELLIS_ENCAPD_REPORT_H
#define VRELLIS_ENCAPD_REPORT_H

#include <fmt/format.h>

#include <array>
#include <cstdint>
#include <string>

#include "fpm/netlink.h"
#include "mpls_egress_encap_db.h"

namespace encapd {

enum class Level : std::uint8_t { kError, kWarning, kInfo, kDebug };

void set_level(Level most_verbose);
// Waits for no reader: a message that stderr cannot take at once is dropped, and the next one tells how many were.
void log_text(Level level, const std::string &sentence);

template <typename... Values>
void log(Level level, fmt::format_string<Values...> format, Values &&...values) {
  log_text(level, fmt::format(format, std::forward<Values>(values)...));
}

struct Counters {
  std::uint64_t connections = 0;
  std::uint64_t bytes = 0;
  std::uint64_t frames = 0;
  std::uint64_t messages = 0;
  std::uint64_t other_messages = 0;      // of a type that tells nothing of routes, or of a foreign frame
  std::uint64_t malformed_messages = 0;  // skipped
  std::uint64_t entered = 0, renewed = 0, released = 0;
  std::uint64_t nhs_entered = 0, nhs_left = 0, tunnels_entered = 0, tunnels_left = 0;
  std::uint64_t swept = 0;                                 // stale references that were released
  std::uint64_t no_room = 0, no_memory = 0, database = 0;  // references that the database refused at first
  std::array<std::uint64_t, kPathKinds> paths{};           // refused or plain paths that were seen, by kind
};

// One JSON line for each NH and tunnel that enters or leaves the database. They are kept until flush().
class Events {
 public:
  explicit Events(int fd) : fd_(fd) {}  // -1: none
  bool wanted() const { return fd_ >= 0; }

  // `cause`: the route that was last seen to need or to leave the encapsulation; nullptr when none is known.
  void nh(bool entered, std::uint32_t nh, std::uint32_t tunnel, const egress_encap_key_t &key, const RouteKey *cause);
  void tunnel(bool entered, std::uint32_t tunnel, const egress_encap_key_t &key, const RouteKey *cause);

  // Writes the lines, and waits while their reader is slow, until SIGTERM or SIGINT is pending or end() was called. A
  // reader that has gone away gets no more events.
  void flush();

  // The signal that ends encapd has been read, so that it is not pending any more.
  void end() { ending_ = true; }

 private:
  void add(bool entered, const std::string &indexes, const std::string &labels, const egress_encap_key_t &key,
           const RouteKey *cause);

  int fd_;
  bool ending_ = false;
  std::string lines_;
};

}  // namespace encapd

#endif
