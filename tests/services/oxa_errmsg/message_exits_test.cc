// The ways out of the process: no message waits, raises a signal or is lost without being counted.
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/un.h>
#include <termios.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <regex>
#include <thread>

#include "child.h"
#include "ed.h"
#include "oxa_errmsg.h"

namespace {

using test_support::expect_in_child;

constexpr oxa_msg_rec_t kRecord = {0, "%s: nh_idx %d", nullptr, "MPLS_ENCAP_DB", "PLATFORM", "NH_NOTVALID_ERROR", 0, 0,
                                   0};
constexpr char kLine[] = "[-0-9]{10} [0-9:.]{15} [0-9]+/[0-9]+ PLATFORM-MPLS_ENCAP_DB-2-NH_NOTVALID_ERROR: a: nh_idx 7";

int raise_one() {
  return oxa_errmsg(&kRecord, OXA_SEVERITY_ERROR, "a", 7);
}

void send_to(const char *sink) {
  setenv("OXA_ERRMSG", sink, 1);
  oxa_set_sink(nullptr, nullptr);
}

void fill(int fd) {
  const int flags = fcntl(fd, F_GETFL);
  fcntl(fd, F_SETFL, flags | O_NONBLOCK);
  const std::string filler(256, '.');
  for (const size_t bytes : {filler.size(), size_t{1}}) {
    while (write(fd, filler.data(), bytes) > 0) {
    }
  }
  fcntl(fd, F_SETFL, flags);
}

std::string drain(int fd) {
  std::string all;
  char bytes[4096];
  pollfd reader = {fd, POLLIN, 0};
  ssize_t got = 1;
  while (got > 0 && poll(&reader, 1, 20) > 0) {  // a terminal hands bytes over a little later
    got = read(fd, bytes, sizeof bytes);
    all.append(bytes, got > 0 ? static_cast<size_t>(got) : 0);
  }
  return all;
}

// What stderr can be: both ends of it, the one to write to first.
using Ends = std::array<int, 2>;

Ends a_pipe() {
  Ends ends;
  EXPECT_EQ(pipe(ends.data()), 0);
  return {ends[1], ends[0]};
}
Ends a_stream() {
  Ends ends;
  EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()), 0);
  return ends;
}
Ends a_terminal() {
  Ends ends;
  EXPECT_EQ(openpty(&ends[1], ends.data(), nullptr, nullptr, nullptr), 0);
  return ends;
}

// Messages in what a reader of stderr got: those that came whole, and those that were said to be dropped.
struct Told {
  int whole = 0;
  int dropped = 0;
  int all() const { return whole + dropped; }
};

Told told_by(const std::string &text) {
  static const std::regex line(std::string(kLine) + "(?: \\(([0-9]+) messages? dropped before this one\\))?\r?\n");
  Told told;
  for (std::sregex_iterator match(text.begin(), text.end(), line), end; match != end; ++match) {
    ++told.whole;
    told.dropped += (*match)[1].matched ? std::stoi((*match)[1]) : 0;
  }
  return told;
}

// A terminal takes bytes over to its reader some time after they were written, so that a full one may take a message
// now and then: more messages are raised there than it has room for.
TEST(MessageExits, AStuckReaderOfStderrHoldsNobodyUpAndLearnsWhatWasDropped) {
  const struct {
    const char *name;
    Ends (*make)();
    int raised, dropped_at_least;
  } kinds[] = {{"pipe", a_pipe, 3, 3}, {"stream", a_stream, 3, 3}, {"terminal", a_terminal, 300, 1}};
  for (const auto &kind : kinds) {
    SCOPED_TRACE(kind.name);
    const auto [writer, reader] = kind.make();
    expect_in_child([writer = writer, reader = reader, &kind] {
      alarm(30);
      send_to("stderr");
      dup2(writer, STDERR_FILENO);
      fill(STDERR_FILENO);
      const int flags = fcntl(STDERR_FILENO, F_GETFL);
      int raised = 0;
      for (; raised < kind.raised; ++raised) {
        raise_one();
      }
      std::string got = drain(reader);
      Told told;
      do {
        raise_one();
        ++raised;
        got += drain(reader);
        told = told_by(got);
      } while (told.all() < raised && raised < kind.raised + 100);
      EXPECT_EQ(told.all(), raised) << got;
      EXPECT_GE(told.dropped, kind.dropped_at_least) << got;
      EXPECT_EQ(fcntl(STDERR_FILENO, F_GETFL), flags);
    });
    close(writer);
    close(reader);
  }
}

TEST(MessageExits, NoSignalIsRaisedLostOrInvented) {
  const auto [writer, reader] = a_pipe();
  close(reader);
  const int file = open("/tmp", O_TMPFILE | O_RDWR, 0600);
  expect_in_child([writer = writer, file] {
    const rlimit none = {0, 0};
    setrlimit(RLIMIT_FSIZE, &none);
    send_to("stderr");
    const auto raise_on_both = [&] {
      for (const int fd : {writer, file}) {
        dup2(fd, STDERR_FILENO);
        raise_one();
      }
    };
    raise_on_both();  // the signals would end the process
    sigset_t both, pending;
    sigemptyset(&both);
    for (const int signal : {SIGPIPE, SIGXFSZ}) {
      sigaddset(&both, signal);
    }
    sigprocmask(SIG_BLOCK, &both, nullptr);
    for (const int was_pending : {0, 1}) {
      if (was_pending != 0) {
        raise(SIGPIPE);
        raise(SIGXFSZ);
      }
      raise_on_both();
      sigpending(&pending);
      EXPECT_EQ((std::array{sigismember(&pending, SIGPIPE), sigismember(&pending, SIGXFSZ)}),
                (std::array{was_pending, was_pending}));
    }
  });
  close(writer);
  close(file);
}

TEST(MessageExits, ChildrenOfAProcessWithBusyThreadsNeverHang) {
  const auto [writer, reader] = a_pipe();
  std::atomic<bool> stop{false};
  std::jthread times([&stop] {
    tm local;
    for (time_t now = 0; !stop; ++now) {
      localtime_r(&now, &local);
    }
  });
  std::jthread queries([&stop] {
    while (!stop) {
      ed_query("component no_such_component +p", nullptr);
    }
  });
  for (int i = 0; i < 200 && !HasFailure(); ++i) {
    expect_in_child([writer = writer] {
      alarm(30);
      send_to("stderr");
      dup2(writer, STDERR_FILENO);
      raise_one();
      EXPECT_EQ(ed_query("component no_such_component +p", nullptr), EINVAL);
    });
    char line[200] = {};
    EXPECT_GT(read(reader, line, sizeof line - 1), 0);
    EXPECT_NE(std::strstr(line, "a: nh_idx 7\n"), nullptr) << line;
  }
  stop = true;
  close(writer);
  close(reader);
}

TEST(MessageExits, AMessageOfASignalHandlerMayInterruptAnother) {
  expect_in_child([] {
    alarm(30);
    send_to("stderr");
    dup2(open("/dev/null", O_WRONLY), STDERR_FILENO);
    static volatile sig_atomic_t handled = 0;
    signal(SIGVTALRM, [](int) { handled = handled + (raise_one() == 0); });
    const itimerval often = {{0, 1000}, {0, 1000}};
    setitimer(ITIMER_VIRTUAL, &often, nullptr);
    while (handled < 200) {
      raise_one();
    }
  });
}

std::string daemon_path;

TEST(MessageExits, ALogDaemonThatIsStuckOrMissingHoldsNobodyUp) {
  daemon_path = "/tmp/message-exits-log-" + std::to_string(getpid());
  const int daemon = socket(AF_UNIX, SOCK_DGRAM, 0);
  sockaddr_un address = {AF_UNIX, {}};
  std::strcpy(address.sun_path, daemon_path.c_str());
  ASSERT_EQ(bind(daemon, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
  expect_in_child([daemon] {
    alarm(30);
    send_to("syslog");
    for (int i = 0; i < 2000; ++i) {
      raise_one();
    }
    const std::string first = drain(daemon);
    raise_one();
    const std::string next = drain(daemon);
    unlink(daemon_path.c_str());
    raise_one();
    const std::string head = "<11>[A-Z][a-z]{2} [ 1-3][0-9] [0-9:]{8} .*\\[[0-9]+\\]: [0-9]+/[0-9]+ PLATFORM-.*7";
    EXPECT_TRUE(std::regex_search(first, std::regex(head))) << first;
    EXPECT_TRUE(std::regex_match(next, std::regex(head + " \\([0-9]+ messages dropped before this one\\)"))) << next;
  });
  close(daemon);
  unlink(daemon_path.c_str());
}

}  // namespace

// Takes the place of the C library's: sends to the test's own daemon what is for the machine's.
extern "C" __attribute__((visibility("default"))) ssize_t sendto(int fd, const void *data, size_t bytes, int flags,
                                                                 const sockaddr *to, socklen_t size) {
  sockaddr_un address;
  std::memcpy(&address, to, std::min<size_t>(size, sizeof address));
  if (std::strcmp(address.sun_path, "/dev/log") == 0) {
    std::strcpy(address.sun_path, daemon_path.c_str());
  }
  return syscall(SYS_sendto, fd, data, bytes, flags, &address, sizeof address);
}
