#include "oxa_errmsg/outlet.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <span>

#include "oxa_errmsg/local_time.h"

namespace vrellis {
namespace {

// Blocks the signals that a write can raise in the calling thread. SIGTTOU, which would stop a background process at
// its terminal, is not raised while it is blocked. SIGPIPE and SIGXFSZ are: one that was not pending before is taken
// back, and one that was pending stays.
class SignalShield {
 public:
  SignalShield() {
    sigset_t shielded;
    sigemptyset(&shielded);
    for (const int signal : {SIGPIPE, SIGXFSZ, SIGTTOU}) {
      sigaddset(&shielded, signal);
    }
    pthread_sigmask(SIG_BLOCK, &shielded, &mask_);
    sigpending(&pending_);
  }
  ~SignalShield() { pthread_sigmask(SIG_SETMASK, &mask_, nullptr); }
  SignalShield(const SignalShield &) = delete;
  SignalShield &operator=(const SignalShield &) = delete;

  // Call with the errno of a write that failed.
  void take_back(int error) const {
    const int signal = error == EPIPE ? SIGPIPE : error == EFBIG ? SIGXFSZ : 0;
    if (signal != 0 && sigismember(&pending_, signal) == 0) {
      const timespec at_once{};
      sigset_t raised;
      sigemptyset(&raised);
      sigaddset(&raised, signal);
      sigtimedwait(&raised, nullptr, &at_once);
    }
  }

 private:
  sigset_t mask_;
  sigset_t pending_;
};

// Opens the device or pipe behind `fd` once more, with an open file description of our own: O_NONBLOCK on the one that
// `fd` has would change it for every process that shares it. A terminal of another user is reached by /dev/tty when it
// is the controlling one. Returns: -1 when it cannot be opened.
int open_anew(int fd) {
  constexpr int kFlags = O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
  char path[32];
  std::snprintf(path, sizeof path, "/proc/self/fd/%d", fd);
  const int again = open(path, kFlags);
  unsigned wanted = 0;
  if (again >= 0 || ioctl(fd, TIOCGDEV, &wanted) != 0) {
    return again;
  }
  const int terminal = open("/dev/tty", kFlags);
  unsigned device = 0;
  if (terminal >= 0 && (ioctl(terminal, TIOCGDEV, &device) != 0 || device != wanted)) {
    close(terminal);
    return -1;
  }
  return terminal;
}

// As writev(), but fails where that would wait. Pipes take a request for one write that does not wait; terminals and
// older kernels do not know it.
ssize_t write_at_once(int fd, std::span<iovec> pieces) {
  const auto count = static_cast<int>(pieces.size());
  struct stat status {};
  if (fstat(fd, &status) != 0) {
    return -1;
  }
  if (S_ISSOCK(status.st_mode)) {
    msghdr message{};
    message.msg_iov = pieces.data();
    message.msg_iovlen = pieces.size();
    return sendmsg(fd, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
  }
  if (!S_ISFIFO(status.st_mode) && !S_ISCHR(status.st_mode)) {
    return writev(fd, pieces.data(), count);
  }
  ssize_t written = pwritev2(fd, pieces.data(), count, -1, RWF_NOWAIT);
  if (written >= 0 || (errno != EOPNOTSUPP && errno != ENOSYS && errno != EINVAL)) {
    return written;
  }
  const int own = open_anew(fd);
  if (own >= 0) {
    written = writev(own, pieces.data(), count);
    const int error = errno;
    close(own);
    errno = error;
  }
  return written;
}

// What did not get out, one way.
class Losses {
 public:
  // Takes the count and fills `note` with what to say of it: an empty text when nothing was dropped.
  uint32_t take(std::span<char> note) {
    const uint32_t dropped = dropped_.exchange(0, std::memory_order_relaxed);
    note[0] = '\0';
    if (dropped != 0) {
      std::snprintf(note.data(), note.size(), " (%u message%s dropped before this one)", dropped,
                    dropped == 1 ? "" : "s");
    }
    return dropped;
  }
  void add(uint32_t dropped) { dropped_.fetch_add(dropped, std::memory_order_relaxed); }

 private:
  std::atomic<uint32_t> dropped_{0};
};
using Note = std::array<char, 64>;

constinit Losses stderr_losses;
constinit Losses syslog_losses;
constinit std::atomic<bool> stderr_line_is_cut{false};  // the last line got out in part

iovec piece_of(std::string_view text) {
  return {const_cast<char *>(text.data()), text.size()};
}

}  // namespace

void write_to_stderr(std::string_view line) {
  const CallerState caller;
  const SignalShield shield;
  Note note;
  const uint32_t dropped = stderr_losses.take(note);
  const bool was_cut = stderr_line_is_cut.exchange(false, std::memory_order_relaxed);
  std::array<iovec, 4> pieces = {piece_of(was_cut ? "\n" : ""), piece_of(line), piece_of(note.data()), piece_of("\n")};
  ssize_t wanted = 0;
  for (const iovec &piece : pieces) {
    wanted += static_cast<ssize_t>(piece.iov_len);
  }
  const ssize_t written = write_at_once(STDERR_FILENO, pieces);
  if (written < 0) {
    shield.take_back(errno);
  }
  if (written != wanted) {
    stderr_line_is_cut.store(written > 0 || was_cut, std::memory_order_relaxed);
  }
  if (written < wanted - 1) {  // a line without its newline got out whole: the next one ends it
    stderr_losses.add(dropped + 1);
  }
}

void send_to_syslog(int priority, std::string_view message) {
  constexpr const char *kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                     "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  constexpr sockaddr_un kDaemon = {AF_UNIX, "/dev/log"};
  const CallerState caller;
  Note note;
  const uint32_t dropped = syslog_losses.take(note);
  const LocalTime now = local_time(time(nullptr));
  char text[1400];
  const int length =
      std::snprintf(text, sizeof text, "<%d>%s %2u %02u:%02u:%02u %.64s[%d]: %.*s%s", priority | LOG_USER,
                    kMonths[now.month - 1], now.day, now.hour, now.minute, now.second, program_invocation_short_name,
                    getpid(), static_cast<int>(message.size()), message.data(), note.data());
  const size_t bytes = std::min(static_cast<size_t>(length), sizeof text - 1);
  const int own = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const ssize_t sent = own < 0 ? -1
                               : sendto(own, text, bytes, MSG_DONTWAIT | MSG_NOSIGNAL,
                                        reinterpret_cast<const sockaddr *>(&kDaemon), sizeof kDaemon);
  if (own >= 0) {
    close(own);
  }
  if (sent < 0) {
    syslog_losses.add(dropped + 1);
  }
}

}  // namespace vrellis
