// The command line of encapd.
#ifndef VRELLIS_ENCAPD_OPTIONS_H
#define VRELLIS_ENCAPD_OPTIONS_H

#include <netdb.h>

#include <chrono>
#include <optional>
#include <string>

#include "feed/report.h"
#include "ranges.h"

namespace encapd {

struct Options {
  std::string directory = "/dev/shm";
  std::string name = "mpls-egress-encap";
  std::string client = "fpm";
  std::string fpm = "127.0.0.1:2620";
  std::string status_file;
  std::string settle = "30";
  Level level = Level::kInfo;
  bool allow_remote = false;
  bool events = false;
  bool leave = false;
  encap_inspect::Ranges ranges;
  encap_inspect::Owner owner;

  sockaddr_storage address{};  // of `fpm`
  socklen_t address_bytes = 0;
  std::optional<std::chrono::milliseconds> settle_after;  // none: never
};

// Returns: the exit status when the program has nothing more to do; none when it goes on, with `options` filled.
std::optional<int> read_options(int argc, char **argv, Options &options);

}  // namespace encapd

#endif
