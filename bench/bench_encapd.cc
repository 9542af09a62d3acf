// encapd's feed: a child process sends the routes of a router through a socket, and this process puts them into a
// database, as the daemon does.
//
// usage: encap_bench_encapd SIZE ROUNDS RESULTS DIRECTORY; size S feeds 50,000 routes, any other 1,000,000
#include <netinet/in.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <iostream>

#include "../tests/encapd/router.h"
#include "feed/feed.h"
#include "measuring/clock.h"
#include "report/results.h"

namespace {

using encapd::Clock;
using router::Buffer;

constexpr std::uint32_t kEncapsulations = 50'000;
constexpr std::uint32_t kOnOneTunnel = 10;

[[noreturn]] void fail(const std::string &what) {
  std::cerr << "encap_bench_encapd: " << what << '\n';
  std::exit(1);
}

router::Path path_of(std::uint32_t encapsulation) {
  return {{100 + encapsulation / kOnOneTunnel % 5000, 100'000 + encapsulation}, 6};
}

// One message a frame, as a router sends them. With objects, the routes name them; else each brings its labels.
Buffer stream_of(std::uint32_t routes, bool objects) {
  Buffer stream;
  const auto add = [&](const Buffer &message) {
    const Buffer frame = router::frame({message});
    stream.insert(stream.end(), frame.begin(), frame.end());
  };
  for (std::uint32_t i = 0; objects && i < kEncapsulations; ++i) {
    add(router::object(i + 1, path_of(i)));
  }
  for (std::uint32_t i = 0; i < routes; ++i) {
    char prefix[32];
    std::snprintf(prefix, sizeof prefix, "%u.%u.%u.0/24", 10 + (i >> 16), i >> 8 & 255, i & 255);
    const std::uint32_t encapsulation = i % kEncapsulations;
    add(objects ? router::named(prefix, encapsulation + 1) : router::route(prefix, {path_of(encapsulation)}));
  }
  return stream;
}

// In the child: builds the stream, says so with a byte, and sends it when the parent answers.
[[noreturn]] void send_stream(int fd, std::uint32_t routes, bool objects) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  const Buffer stream = stream_of(routes, objects);
  char byte = '!';
  if (write(fd, &byte, 1) != 1 || read(fd, &byte, 1) != 1) {
    _exit(1);
  }
  for (std::size_t at = 0; at < stream.size();) {
    const ssize_t count = write(fd, &stream[at], stream.size() - at);
    if (count <= 0) {
      _exit(1);
    }
    at += static_cast<std::size_t>(count);
  }
  _exit(0);
}

// A connected pair of TCP sockets.
std::pair<int, int> connection() {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t bytes = sizeof address;
  auto *const name = reinterpret_cast<sockaddr *>(&address);
  const int room = 1 << 22;
  const int listener = socket(AF_INET, SOCK_STREAM, 0);
  const int child = socket(AF_INET, SOCK_STREAM, 0);
  setsockopt(listener, SOL_SOCKET, SO_RCVBUF, &room, sizeof room);
  if (bind(listener, name, bytes) != 0 || listen(listener, 1) != 0 || getsockname(listener, name, &bytes) != 0 ||
      connect(child, name, bytes) != 0) {
    fail("no connection");
  }
  const int parent = accept(listener, nullptr, nullptr);
  close(listener);
  return {parent, child};
}

// Of this process alone, without what it shares: kB times 1024.
double anonymous_bytes() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("RssAnon:")) {
      return std::stod(line.substr(8)) * 1024;
    }
  }
  fail("/proc/self/status has no RssAnon");
}

struct Taken {
  double seconds;
  double processor;  // nanoseconds of this process on a processor, the reading of the socket included
};

// Feeds one stream.
Taken feed_stream(encapd::Feed &feed, std::uint32_t routes, bool objects) {
  const auto [fd, other] = connection();
  const pid_t child = fork();
  if (child == 0) {
    send_stream(other, routes, objects);
  }
  close(other);
  char byte = 0;
  if (read(fd, &byte, 1) != 1) {
    fail("the child has ended");
  }
  feed.connected();
  const Clock::time_point begin = Clock::now();
  const double processor = encap_bench::processor_ns();
  if (write(fd, "!", 1) != 1) {
    fail("the child has ended");
  }
  for (ssize_t count = 1; count > 0;) {
    const std::span<std::uint8_t> room = feed.room();
    count = read(fd, room.data(), room.size());
    if (count > 0 && !feed.take(static_cast<std::size_t>(count), begin)) {
      fail("the stream makes no sense");
    }
  }
  const Taken taken{std::chrono::duration<double>(Clock::now() - begin).count(),
                    encap_bench::processor_ns() - processor};
  waitpid(child, nullptr, 0);
  close(fd);
  if (feed.holder().held() != routes) {
    fail("the database has " + std::to_string(feed.holder().held()) + " references");
  }
  return taken;
}

void measure(const std::string &size, int round, const std::string &results, const std::string &directory) {
  const std::uint32_t routes = size == "S" ? 50'000 : 1'000'000;
  for (const bool objects : {false, true}) {
    encap_client_config_t config{};
    config.name = "fpm";
    config.database.directory = directory.c_str();
    config.database.name = "encapd";
    config.database.shm_id = 7;
    config.database.nh_start = 1;
    config.database.nh_size = 65536;
    config.database.tun_start = 1;
    config.database.tun_size = 16384;
    encap_client_t *client = nullptr;
    shmwin_error_t error{};
    if (encap_client_open(&config, &client, &error) != 0) {
      fail(error.text);
    }
    {
      encapd::Events events(-1);
      encapd::Feed feed(client, events, std::nullopt);
      const double before = anonymous_bytes();
      const Taken first = feed_stream(feed, routes, objects);
      const double bytes = (anonymous_bytes() - before) / routes;
      const Taken again = feed_stream(feed, routes, objects);
      const std::string who = objects ? "routes that name objects" : "routes with labels";
      const std::uint32_t messages = routes + (objects ? kEncapsulations : 0);
      encap_bench::append_sample(results, {"rate", size, "feed", who}, round, messages / first.seconds);
      encap_bench::append_sample(results, {"rate", size, "refresh", who}, round, messages / again.seconds);
      encap_bench::append_sample(results, {"bytes", size, "route", who}, round, bytes);
      std::fprintf(
          stderr,
          "encapd, %s: %.0f messages/s (%.0f ns of a processor each), refreshed %.0f messages/s, %.1f bytes a route\n",
          who.c_str(), messages / first.seconds, first.processor / messages, messages / again.seconds, bytes);
      feed.leave();
    }
    shmwin_error_t ignored{};
    encap_db_destroy(directory.c_str(), "encapd", 1, &ignored);
  }
}

}  // namespace

int main(int argc, char **argv) {
  if (argc < 5) {
    fail("usage: encap_bench_encapd SIZE ROUNDS RESULTS DIRECTORY");
  }
  encapd::set_level(encapd::Level::kError);
  for (int round = 0; round < std::stoi(argv[2]); ++round) {
    measure(argv[1], round, argv[3], argv[4]);
  }
  return 0;
}
