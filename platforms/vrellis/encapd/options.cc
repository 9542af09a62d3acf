#include "options.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <CLI/CLI.hpp>
#include <cstring>

#include "database_options.h"

namespace encapd {
namespace {

constexpr char kDescription[] =
    "Listens for a router that sends its routes as a forwarding plane manager gets them (FPM), and keeps the MPLS\n"
    "encapsulations of these routes in an encapsulation database, as a client of it.";

constexpr char kFooter[] =
    "Signals: TERM and INT close, and keep what is held for the next encapd; USR1 says that the router is complete.\n"
    "Environment: ENCAPCTL_DIR and ENCAPCTL_NAME stand for --dir and --name.\n"
    "Exit status: 0 after a signal, 1 when the database or the address cannot be used, 2 for a wrong command line.";

const std::map<std::string, Level> kLevels{
    {"error", Level::kError}, {"warning", Level::kWarning}, {"info", Level::kInfo}, {"debug", Level::kDebug}};

bool is_loopback(const sockaddr_storage &address) {
  if (address.ss_family == AF_INET) {
    return ntohl(reinterpret_cast<const sockaddr_in &>(address).sin_addr.s_addr) >> 24 == 127;
  }
  return IN6_IS_ADDR_LOOPBACK(&reinterpret_cast<const sockaddr_in6 &>(address).sin6_addr);
}

// Splits "ADDRESS:PORT" or "[ADDRESS]:PORT". Throws CLI::ValidationError.
void read_address(Options &options) {
  const std::size_t colon = options.fpm.rfind(':');
  std::string host = options.fpm.substr(0, colon);
  if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
    host = host.substr(1, host.size() - 2);
  }
  addrinfo hints{};
  hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo *found = nullptr;
  if (colon == std::string::npos || host.empty() || colon + 1 == options.fpm.size() ||
      getaddrinfo(host.c_str(), options.fpm.c_str() + colon + 1, &hints, &found) != 0) {
    throw CLI::ValidationError("--fpm", "'" + options.fpm + "' is no ADDRESS:PORT");
  }
  std::memcpy(&options.address, found->ai_addr, found->ai_addrlen);
  options.address_bytes = found->ai_addrlen;
  freeaddrinfo(found);
  if (!options.allow_remote && !is_loopback(options.address)) {
    throw CLI::ValidationError("--fpm", "'" + options.fpm +
                                            "' can be reached from other machines, and the protocol has no "
                                            "authentication: it needs --allow-remote");
  }
}

// "30", "0.5" or "never". Throws CLI::ValidationError.
void read_settle(Options &options) {
  if (options.settle == "never") {
    return;
  }
  constexpr double kMost = 1e9;
  double seconds = -1;
  if (!CLI::detail::lexical_cast(options.settle, seconds) || !(seconds >= 0 && seconds <= kMost)) {
    throw CLI::ValidationError("--settle", "'" + options.settle + "' is neither a number of seconds nor 'never'");
  }
  options.settle_after = std::chrono::milliseconds(static_cast<std::int64_t>(seconds * 1000));
}

void add_window_options(CLI::App &app, Options &options) {
  app.add_option("--dir", options.directory, "Directory of the window")
      ->type_name("DIR")
      ->envname("ENCAPCTL_DIR")
      ->capture_default_str();
  app.add_option("--name", options.name, "File name of the window")
      ->type_name("NAME")
      ->envname("ENCAPCTL_NAME")
      ->capture_default_str();
  vrellis_tools::add_range_options(app, options.ranges);
  vrellis_tools::add_owner_options(app, options.owner);
}

}  // namespace

std::optional<int> read_options(int argc, char **argv, Options &options) {
  CLI::App app(kDescription, "encapd");
  app.footer(kFooter);
  app.set_version_flag("-V,--version", "encapd " ENCAPD_VERSION);
  app.add_option("--fpm", options.fpm, "Where to listen")->type_name("ADDRESS:PORT")->capture_default_str();
  app.add_flag("--allow-remote", options.allow_remote, "Listen where other machines can connect, too");
  app.add_option("--client", options.client, "Name in the database")->type_name("NAME")->capture_default_str();
  app.add_option(
         "--settle", options.settle,
         "How long after its last message a router counts as complete, so that what it has not sent is released")
      ->type_name("SECONDS|never")
      ->capture_default_str();
  app.add_flag("--events", options.events, "Print a JSON line for each NH and tunnel that enters or leaves");
  app.add_flag("--leave", options.leave, "Give everything up at the end, instead of keeping it");
  app.add_option("--status-file", options.status_file, "Where the counters stand (default: DIR/NAME.CLIENT.status)")
      ->type_name("FILE");
  app.add_option("--log-level", options.level, "error, warning, info or debug (default: info)")
      ->type_name("LEVEL")
      ->transform(CLI::CheckedTransformer(kLevels).description(""));
  add_window_options(app, options);
  try {
    app.parse(argc, argv);
    read_address(options);
    read_settle(options);
  } catch (const CLI::ParseError &error) {
    if (error.get_exit_code() == 0) {
      return app.exit(error);
    }
    log(Level::kError, "{}; `encapd --help` tells more", error.what());
    return 2;
  }
  if (options.status_file.empty()) {
    options.status_file = options.directory + "/" + options.name + "." + options.client + ".status";
  }
  return std::nullopt;
}

}  // namespace encapd
