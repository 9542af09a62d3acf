#include "server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>

namespace encapd {
namespace {

constexpr std::chrono::milliseconds kTick{200};
constexpr std::chrono::seconds kTellEvery{1};
constexpr int kReceiveBuffer = 1 << 22;

std::string text_of(const sockaddr_storage &address, socklen_t bytes) {
  char host[NI_MAXHOST] = "?";
  char port[NI_MAXSERV] = "?";
  getnameinfo(reinterpret_cast<const sockaddr *>(&address), bytes, host, sizeof host, port, sizeof port,
              NI_NUMERICHOST | NI_NUMERICSERV);
  return address.ss_family == AF_INET6 ? fmt::format("[{}]:{}", host, port) : fmt::format("{}:{}", host, port);
}

}  // namespace

Server::~Server() {
  for (const int fd : {listener_, router_, signals_}) {
    if (fd >= 0) {
      close(fd);
    }
  }
}

bool Server::listen() {
  const int on = 1;
  listener_ = socket(options_.address.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (listener_ < 0 || setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
      setsockopt(listener_, SOL_SOCKET, SO_RCVBUF, &kReceiveBuffer, sizeof kReceiveBuffer) != 0 ||
      bind(listener_, reinterpret_cast<const sockaddr *>(&options_.address), options_.address_bytes) != 0 ||
      ::listen(listener_, 8) != 0) {
    log(Level::kError, "cannot listen on {}: {}", options_.fpm, std::strerror(errno));
    return false;
  }
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : {SIGTERM, SIGINT, SIGUSR1}) {
    sigaddset(&signals, signal);
  }
  sigprocmask(SIG_BLOCK, &signals, nullptr);
  std::signal(SIGPIPE, SIG_IGN);
  signals_ = signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
  if (signals_ < 0) {
    log(Level::kError, "cannot wait for signals: {}", std::strerror(errno));
    return false;
  }
  log(Level::kInfo, "listening on {} as client '{}' of {}/{}", listening(), options_.client, options_.directory,
      options_.name);
  return true;
}

std::string Server::listening() const {
  sockaddr_storage address{};
  socklen_t bytes = sizeof address;
  getsockname(listener_, reinterpret_cast<sockaddr *>(&address), &bytes);
  return text_of(address, bytes);
}

void Server::serve() {
  tell();
  sd_notify(0, "READY=1");
  Clock::time_point next_tick = Clock::now();
  Clock::time_point next_tell = next_tick + kTellEvery;
  for (;;) {
    pollfd waits[] = {{signals_, POLLIN, 0}, {listener_, POLLIN, 0}, {router_, POLLIN, 0}};
    poll(waits, std::size(waits), static_cast<int>(kTick.count()));
    woken_ = Clock::now();
    if (waits[0].revents != 0 && !read_signals()) {
      break;
    }
    if (waits[2].revents != 0) {
      read_router();
    }
    if (waits[1].revents != 0) {
      accept_router();
    }
    const Clock::time_point now = Clock::now();
    if (now >= next_tick) {
      feed_.tick(now);
      next_tick = now + kTick;
    }
    if (now >= next_tell) {
      tell();
      next_tell = now + kTellEvery;
    }
  }
  sd_notify(0, "STOPPING=1");
  drop_router("encapd ends");
  tell();
}

void Server::accept_router() {
  sockaddr_storage address{};
  socklen_t bytes = sizeof address;
  const int router = accept4(listener_, reinterpret_cast<sockaddr *>(&address), &bytes, SOCK_CLOEXEC | SOCK_NONBLOCK);
  if (router < 0) {
    return;
  }
  const int on = 1;
  setsockopt(router, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);  // a router's machine may end without a word
  drop_router("a new one replaces it");
  router_ = router;
  log(Level::kInfo, "a router has connected from {}", text_of(address, bytes));
  feed_.connected();
}

void Server::drop_router(const char *why) {
  if (router_ >= 0) {
    log(Level::kInfo, "the connection to the router is closed, and what it sent is kept: {}", why);
    close(router_);
    router_ = -1;
    feed_.disconnected();
  }
}

void Server::read_router() {
  const std::span<std::uint8_t> room = feed_.room();
  const ssize_t count = recv(router_, room.data(), room.size(), 0);
  if (count < 0 && (errno == EAGAIN || errno == EINTR)) {
    return;
  }
  if (count <= 0) {
    return drop_router(count == 0 ? "the router has closed it" : std::strerror(errno));
  }
  const bool sound = feed_.take(static_cast<std::size_t>(count), woken_);
  lag_.longest = std::max(lag_.longest, std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - woken_));
  if (!sound) {
    log(Level::kError, "the router sends bytes that are no frames of the protocol, version 1");
    drop_router("its bytes make no sense");
  }
}

bool Server::read_signals() {
  signalfd_siginfo info{};
  while (read(signals_, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
    if (info.ssi_signo != SIGUSR1) {
      log(Level::kInfo, "signal {} ends encapd, and what it holds is {}", info.ssi_signo,
          options_.leave ? "given up" : "kept");
      events_.end();
      return false;
    }
    if (!feed_.settle()) {
      log(Level::kWarning, "there is nothing to settle: {}",
          feed_.is_connected() ? "everything is settled" : "no router is connected");
    }
  }
  return true;
}

void Server::tell() {
  int unread = 0;
  if (router_ >= 0) {
    ioctl(router_, FIONREAD, &unread);
  }
  lag_.unread = static_cast<std::size_t>(unread);
  const bool written = replace_file(options_.status_file, status_line(feed_, options_.client, listening(), lag_));
  if (!written && !status_failed_) {
    log(Level::kWarning, "the status cannot be written to {}: {}", options_.status_file, std::strerror(errno));
  }
  status_failed_ = !written;
  lag_.longest = {};
  sd_notify(0, ("WATCHDOG=1\nSTATUS=" + status_sentence(feed_)).c_str());
}

}  // namespace encapd
