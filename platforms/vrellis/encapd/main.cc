// encapd: keeps the encapsulations of a router's routes in an encapsulation database.
#include <unistd.h>

#include <exception>

#include "server.h"

namespace {

int run(const encapd::Options &options) {
  encap_client_config_t config{};
  config.database =
      encap_inspect::config_of(options.directory.c_str(), options.name.c_str(), options.ranges, options.owner);
  config.name = options.client.c_str();
  encap_client_t *client = nullptr;
  shmwin_error_t error{};
  if (encap_client_open(&config, &client, &error) != 0) {
    encapd::log(encapd::Level::kError, "{}", error.text);
    return 1;
  }
  encapd::Events events(options.events ? STDOUT_FILENO : -1);
  encapd::Feed feed(client, events, options.settle_after);
  encapd::Server server(options, feed, events);
  const bool listens = server.listen();
  if (listens) {
    server.serve();
  }
  if (listens && options.leave) {
    feed.leave();
    unlink(options.status_file.c_str());
  } else {
    encap_client_close(client);
  }
  return listens ? 0 : 1;
}

}  // namespace

int main(int argc, char **argv) {
  try {
    encapd::Options options;
    if (const std::optional<int> status = encapd::read_options(argc, argv, options)) {
      return *status;
    }
    encapd::set_level(options.level);
    return run(options);
  } catch (const std::exception &error) {
    encapd::log(encapd::Level::kError, "{}", error.what());
    return 1;
  }
}
