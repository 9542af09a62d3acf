#include "report.h"

#include <poll.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include "oxa_errmsg/outlet.h"

namespace encapd {
namespace {

Level most_verbose_level = Level::kInfo;

struct LevelText {
  const char *priority;  // as the journal reads it
  const char *name;
};
constexpr LevelText kLevels[] = {{SD_ERR, "error: "}, {SD_WARNING, "warning: "}, {SD_INFO, ""}, {SD_DEBUG, "debug: "}};

constexpr int kSignalCheckMs = 100;

// Whether a signal that ends encapd waits to be read.
bool is_ending() {
  sigset_t pending;
  sigemptyset(&pending);
  sigpending(&pending);
  return sigismember(&pending, SIGTERM) == 1 || sigismember(&pending, SIGINT) == 1;
}

}  // namespace

void set_level(Level most_verbose) {
  most_verbose_level = most_verbose;
}

void log_text(Level level, const std::string &sentence) {
  if (level <= most_verbose_level) {
    static const bool journal = std::getenv("JOURNAL_STREAM") != nullptr;
    const LevelText &text = kLevels[static_cast<std::size_t>(level)];
    vrellis::write_to_stderr(fmt::format("{}encapd: {}{}", journal ? text.priority : "", text.name, sentence));
  }
}

void Events::nh(bool entered, std::uint32_t nh, std::uint32_t tunnel, const egress_encap_key_t &key,
                const RouteKey *cause) {
  if (wanted()) {
    const std::uint32_t label1 = key.out_label1, label2 = key.out_label2, label3 = key.out_label3;
    add(entered, fmt::format(R"("kind":"nh","nh":{},"tunnel":{})", nh, tunnel),
        fmt::format(R"("label1":{},"label2":{},"label3":{})", label1, label2, label3), key, cause);
  }
}

void Events::tunnel(bool entered, std::uint32_t tunnel, const egress_encap_key_t &key, const RouteKey *cause) {
  if (wanted()) {
    const std::uint32_t label2 = key.out_label2, label3 = key.out_label3;
    add(entered, fmt::format(R"("kind":"tunnel","tunnel":{})", tunnel),
        fmt::format(R"("label2":{},"label3":{})", label2, label3), key, cause);
  }
}

void Events::add(bool entered, const std::string &indexes, const std::string &labels, const egress_encap_key_t &key,
                 const RouteKey *cause) {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  const bool known = cause != nullptr && cause->family != 0;
  lines_ += fmt::format("{{\"schema\":\"encapd/1\",{},\"event\":\"{}\",\"time_ns\":{},{},\"ifh\":{},\"prefix\":{}}}\n",
                        indexes, entered ? "entered" : "left", std::chrono::nanoseconds(now).count(), labels, key.ifh,
                        known ? "\"" + text_of(*cause) + "\"" : "null");
}

// Pieces of PIPE_BUF bytes never block once the system says that there is room, so that a signal is noticed meanwhile.
void Events::flush() {
  std::size_t written = 0;
  while (wanted() && written < lines_.size()) {
    pollfd room{fd_, POLLOUT, 0};
    if (poll(&room, 1, kSignalCheckMs) == 0) {
      if (ending_ || is_ending()) {
        log(Level::kError, "{} bytes of events are lost, since their reader does not take them",
            lines_.size() - written);
        break;
      }
      continue;
    }
    const ssize_t count = write(fd_, lines_.data() + written, std::min<std::size_t>(PIPE_BUF, lines_.size() - written));
    if (count < 0 && errno != EINTR && errno != EAGAIN) {
      log(Level::kError, "the events cannot be written, and no more are: {}", std::strerror(errno));
      fd_ = -1;
    }
    written += count > 0 ? static_cast<std::size_t>(count) : 0;
  }
  lines_.clear();
}

}  // namespace encapd
