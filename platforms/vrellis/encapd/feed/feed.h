// From the bytes of one router at a time to the database.
#ifndef VRELLIS_ENCAPD_FEED_H
#define VRELLIS_ENCAPD_FEED_H

#include <chrono>
#include <optional>

#include "fpm/frames.h"
#include "holder.h"
#include "routes.h"

namespace encapd {

using Clock = std::chrono::steady_clock;

class Feed {
 public:
  // `settle`: how long after its last message a router counts as complete; none: until settle() is called.
  Feed(encap_client_t *client, Events &events, std::optional<std::chrono::milliseconds> settle);

  // A router has connected: everything is refreshed.
  void connected();
  // The connection was lost: nothing changes.
  void disconnected();

  // Where the router's next bytes are to be put, and then how many there are. They are one step: an encapsulation that
  // is needed before and after them never leaves the database. Returns: false when the bytes are no frames, so that the
  // connection is of no use.
  std::span<std::uint8_t> room() { return frames_.room(); }
  bool take(std::size_t count, Clock::time_point now);

  // To be called about once a second: settles when it is time, and tries again what the database refused.
  void tick(Clock::time_point now);

  // Releases what the router has not sent again. Returns: false when no router is connected, or nothing is stale.
  bool settle();

  // Gives up everything and the client's name. Nothing may be called after it.
  void leave() { holder_.leave(); }

  bool is_connected() const { return connected_; }
  const Counters &counters() const { return counters_; }
  const Holder &holder() const { return holder_; }
  const Routes &routes() const { return routes_; }

 private:
  void read_frame(Bytes messages);

  Counters counters_;
  Holder holder_;
  Routes routes_;
  Frames frames_;
  Message message_{};
  std::optional<std::chrono::milliseconds> settle_;
  bool connected_ = false;
  std::optional<Clock::time_point> last_message_;  // of this connection
};

}  // namespace encapd

#endif
