#include "status.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace encapd {

std::string status_line(const Feed &feed, const std::string &client, const std::string &listening, const Lag &lag) {
  const Counters &counters = feed.counters();
  const Holder &holder = feed.holder();
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  std::string line = fmt::format(R"({{"schema":"encapd/1","kind":"status","client":"{}","pid":{},"time_ns":{},)",
                                 client, getpid(), std::chrono::nanoseconds(now).count());
  line += fmt::format(R"("listening":"{}","connected":{},"settled":{},)", listening, feed.is_connected(),
                      holder.is_settled());
  const std::pair<const char *, std::uint64_t> numbers[] = {
      {"routes", feed.routes().routes()},
      {"nexthop_objects", feed.routes().objects()},
      {"encapsulations", holder.encapsulations()},
      {"references", holder.held()},
      {"waiting", holder.wanted() - holder.held()},
      {"connections", counters.connections},
      {"bytes", counters.bytes},
      {"frames", counters.frames},
      {"messages", counters.messages},
      {"other_messages", counters.other_messages},
      {"malformed_messages", counters.malformed_messages},
      {"entered", counters.entered},
      {"renewed", counters.renewed},
      {"released", counters.released},
      {"swept", counters.swept},
      {"nhs_entered", counters.nhs_entered},
      {"nhs_left", counters.nhs_left},
      {"tunnels_entered", counters.tunnels_entered},
      {"tunnels_left", counters.tunnels_left},
      {"lag_us", static_cast<std::uint64_t>(lag.longest.count())},
      {"unread_bytes", lag.unread},
  };
  for (const auto &[name, number] : numbers) {
    line += fmt::format("\"{}\":{},", name, number);
  }
  line += fmt::format(R"("refusals":{{"no_room":{},"no_memory":{},"database":{})", counters.no_room, counters.no_memory,
                      counters.database);
  std::string now_refused;
  for (std::size_t kind = 1; kind < kPathKinds; ++kind) {
    line += fmt::format(",\"{}\":{}", kPathKindNames[kind], counters.paths[kind]);
    if (static_cast<PathKind>(kind) != PathKind::kPlain) {
      now_refused += fmt::format("{}\"{}\":{}", now_refused.empty() ? "" : ",", kPathKindNames[kind],
                                 feed.routes().refused(static_cast<PathKind>(kind)));
    }
  }
  return line + "},\"refused_now\":{" + now_refused + "}}";
}

std::string status_sentence(const Feed &feed) {
  const Holder &holder = feed.holder();
  return fmt::format("{}, {}: {} routes, {} references on {} encapsulations, {} waiting",
                     feed.is_connected() ? "a router is connected" : "no router is connected",
                     holder.is_settled() ? "settled" : "not settled", feed.routes().routes(), holder.held(),
                     holder.encapsulations(), holder.wanted() - holder.held());
}

bool replace_file(const std::string &path, const std::string &line) {
  std::string temporary = path + ".XXXXXX";
  const int fd = mkostemp(temporary.data(), O_CLOEXEC);
  if (fd < 0) {
    return false;
  }
  const std::string text = line + "\n";
  const bool written =
      write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()) && fchmod(fd, 0644) == 0;
  const bool closed = close(fd) == 0;
  if (!written || !closed || std::rename(temporary.c_str(), path.c_str()) != 0) {
    const int error = errno;
    unlink(temporary.c_str());
    errno = error;
    return false;
  }
  return true;
}

}  // namespace encapd
