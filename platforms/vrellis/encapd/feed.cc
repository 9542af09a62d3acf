#include "feed.h"

#include <libmnl/libmnl.h>

namespace encapd {

Feed::Feed(encap_client_t *client, Events &events, std::optional<std::chrono::milliseconds> settle)
    : holder_(client, counters_, events), routes_(holder_, counters_), settle_(settle) {
  holder_.begin_refresh();  // what an earlier process of this client's name left is stale until a router sends it again
}

void Feed::connected() {
  ++counters_.connections;
  connected_ = true;
  last_message_.reset();
  frames_.clear();
  routes_.clear();
  holder_.begin_refresh();
}

void Feed::disconnected() {
  connected_ = false;
}

bool Feed::take(std::size_t count, Clock::time_point now) {
  frames_.add(count);
  counters_.bytes += count;
  Frames::Next next = Frames::Next::kNone;
  Bytes messages;
  while ((next = frames_.next(&messages)) == Frames::Next::kFrame || next == Frames::Next::kForeign) {
    ++counters_.frames;
    last_message_ = now;
    if (next == Frames::Next::kFrame) {
      read_frame(messages);
    } else {
      ++counters_.other_messages;
    }
  }
  holder_.apply();
  return next != Frames::Next::kBroken;
}

void Feed::read_frame(Bytes messages) {
  const auto *header = reinterpret_cast<const nlmsghdr *>(messages.data());
  int left = static_cast<int>(messages.size());
  for (; mnl_nlmsg_ok(header, left); header = mnl_nlmsg_next(header, &left)) {
    read_message(header, message_);
    routes_.take(message_);
  }
  counters_.malformed_messages += left > 0 ? 1 : 0;
}

void Feed::tick(Clock::time_point now) {
  if (!holder_.is_settled() && connected_ && settle_ && last_message_ && now - *last_message_ >= *settle_) {
    settle();
  }
  holder_.retry();
}

bool Feed::settle() {
  if (holder_.is_settled() || !connected_) {
    return false;
  }
  const std::uint64_t before = counters_.swept;
  holder_.end_refresh();
  log(Level::kInfo, "settled: {} routes need {} references; {} stale ones were released", routes_.routes(),
      holder_.wanted(), counters_.swept - before);
  return true;
}

}  // namespace encapd
