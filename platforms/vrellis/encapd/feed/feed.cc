#include "feed.h"

#include <linux/netlink.h>

#include <algorithm>

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

// The lengths are checked here: mnl_nlmsg_ok() takes one of 2^31 and more for negative, and so for small enough.
void Feed::read_frame(Bytes messages) {
  while (messages.size() >= sizeof(nlmsghdr)) {
    const auto *const header = reinterpret_cast<const nlmsghdr *>(messages.data());
    if (header->nlmsg_len < sizeof(nlmsghdr) || header->nlmsg_len > messages.size()) {
      break;
    }
    read_message(header, message_);
    routes_.take(message_);
    messages = messages.subspan(
        std::min<std::size_t>((header->nlmsg_len + std::size_t{3}) & ~std::size_t{3}, messages.size()));
  }
  counters_.malformed_messages += messages.empty() ? 0U : 1U;
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
