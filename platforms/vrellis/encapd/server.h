// The sockets, the signals and the clock: one loop that serves one router at a time until a signal ends it.
#ifndef VRELLIS_ENCAPD_SERVER_H
#define VRELLIS_ENCAPD_SERVER_H

#include "feed/status.h"
#include "options.h"

namespace encapd {

class Server {
 public:
  Server(const Options &options, Feed &feed, Events &events) : options_(options), feed_(feed), events_(events) {}
  ~Server();
  Server(const Server &) = delete;
  Server &operator=(const Server &) = delete;

  // Listens. Returns: false, with a message written, when the address cannot be used.
  bool listen();

  // Returns after SIGTERM or SIGINT.
  void serve();

 private:
  void accept_router();
  void drop_router(const char *why);
  void read_router();
  bool read_signals();  // false: one of them ends the loop
  void tell();          // the file of the status, and the service manager
  std::string listening() const;

  const Options &options_;
  Feed &feed_;
  Events &events_;
  int listener_ = -1;
  int router_ = -1;
  int signals_ = -1;
  Lag lag_;
  Clock::time_point woken_{};
  bool status_failed_ = false;
};

}  // namespace encapd

#endif
