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
#include <cerrno>
#include <cstring>
#include <functional>
#include <regex>
#include <thread>

#include "child.h"
#include "ed.h"
#include "oxa_errmsg.h"

namespace {

using namespace test_support;

constexpr oxa_msg_rec_t kRecord = {0, "%s: nh_idx %d", nullptr, "MPLS_ENCAP_DB", "PLATFORM", "NH_NOTVALID_ERROR", 0, 0,
                                   0};
constexpr char kLine[] = "[-0-9]{10} [0-9:.]{15} [0-9]+/[0-9]+ PLATFORM-MPLS_ENCAP_DB-2-NH_NOTVALID_ERROR: a: nh_idx 7";

int raise_one() {
  return oxa_errmsg(&kRecord, OXA_SEVERITY_ERROR, "a", 7);
}

void send_to(const char *sink) {
  alarm(30);
  setenv("OXA_ERRMSG", sink, 1);
  oxa_set_sink(nullptr, nullptr);
}

// Runs `body` in a child process whose messages go to `fd`.
void expect_with_stderr(int fd, const std::function<void()> &body) {
  expect_in_child([&] {
    send_to("stderr");
    dup2(fd, STDERR_FILENO);
    body();
  });
}

void fill(int fd) {
  const int flags = fcntl(fd, F_GETFL);
  fcntl(fd, F_SETFL, flags | O_NONBLOCK);
  while (write(fd, ".", 1) > 0) {
  }
  fcntl(fd, F_SETFL, flags);
}

std::string drain(int fd) {
  std::string all;
  char bytes[4096];
  pollfd reader = {fd, POLLIN, 0};
  ssize_t got = 0;
  while (poll(&reader, 1, 20) > 0 && (got = read(fd, bytes, sizeof bytes)) > 0) {  // a terminal hands over later
    all.append(bytes, static_cast<size_t>(got));
  }
  return all;
}

// How many messages a reader of stderr got whole, and how many it was told were dropped.
std::array<int, 2> told_by(const std::string &text) {
  static const std::regex line(std::string(kLine) + "(?: \\(([0-9]+) messages? dropped before this one\\))?\r?\n");
  std::array<int, 2> told = {0, 0};
  for (std::sregex_iterator match(text.begin(), text.end(), line), end; match != end; ++match) {
    ++told[0];
    told[1] += (*match)[1].matched ? std::stoi((*match)[1]) : 0;
  }
  return told;
}

// A terminal takes bytes over to its reader some time after they were written, so that a full one may take a message
// now and then: more messages are raised there than it has room for.
TEST(MessageExits, AStuckReaderOfStderrHoldsNobodyUpAndLearnsWhatWasDropped) {
  const struct {
    const char *name;
    int (*make)(int *ends);  // to read from, and to write to
    int raised, dropped_at_least;
  } kinds[] = {{"pipe", [](int *ends) { return pipe(ends); }, 3, 3},
               {"stream", [](int *ends) { return socketpair(AF_UNIX, SOCK_STREAM, 0, ends); }, 3, 3},
               {"terminal", [](int *ends) { return openpty(ends, ends + 1, nullptr, nullptr, nullptr); }, 300, 1}};
  for (const auto &kind : kinds) {
    SCOPED_TRACE(kind.name);
    int ends[2];
    ASSERT_EQ(kind.make(ends), 0);
    expect_with_stderr(ends[1], [&] {
      fill(STDERR_FILENO);
      const int flags = fcntl(STDERR_FILENO, F_GETFL);
      std::string got;
      std::array<int, 2> told;
      int raised = 0;
      do {
        raise_one();
        got += ++raised < kind.raised ? "" : drain(ends[0]);
        told = told_by(got);
      } while (told[0] + told[1] < raised && raised < kind.raised + 100);
      EXPECT_EQ(told[0] + told[1], raised) << got;
      EXPECT_GE(told[1], kind.dropped_at_least) << got;
      EXPECT_EQ(fcntl(STDERR_FILENO, F_GETFL), flags);
    });
  }
}

TEST(MessageExits, NoSignalIsRaisedLostOrInvented) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  close(ends[0]);
  const int file = open("/tmp", O_TMPFILE | O_RDWR, 0600);
  expect_with_stderr(file, [&] {
    const rlimit none = {0, 0};
    setrlimit(RLIMIT_FSIZE, &none);
    const auto pending_after_both = [&] {
      for (const int fd : {ends[1], file}) {
        dup2(fd, STDERR_FILENO);
        raise_one();
      }
      sigset_t pending;
      sigpending(&pending);
      return std::array{sigismember(&pending, SIGPIPE), sigismember(&pending, SIGXFSZ)};
    };
    pending_after_both();  // the signals would end the process
    sigset_t both;
    sigemptyset(&both);
    sigaddset(&both, SIGPIPE);
    sigaddset(&both, SIGXFSZ);
    sigprocmask(SIG_BLOCK, &both, nullptr);
    EXPECT_EQ(pending_after_both(), (std::array{0, 0}));
    raise(SIGPIPE);
    raise(SIGXFSZ);
    EXPECT_EQ(pending_after_both(), (std::array{1, 1}));
  });
}

TEST(MessageExits, ChildrenOfAProcessWithBusyThreadsNeverHang) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  const std::jthread times([](const std::stop_token &stop) {
    tm local;
    for (time_t now = 0; !stop.stop_requested(); ++now) {
      localtime_r(&now, &local);
    }
  });
  const std::jthread queries([](const std::stop_token &stop) {
    while (!stop.stop_requested()) {
      ed_query("component no_such_component +p", nullptr);
    }
  });
  for (int i = 0; i < 200 && !HasFailure(); ++i) {
    expect_with_stderr(ends[1], [] {
      raise_one();
      EXPECT_EQ(ed_query("component no_such_component +p", nullptr), EINVAL);
    });
  }
  EXPECT_EQ(told_by(drain(ends[0])), (std::array{200, 0}));
}

TEST(MessageExits, AMessageOfASignalHandlerMayInterruptAnotherAndEachLineIsWhole) {
  const int file = open("/tmp", O_TMPFILE | O_RDWR, 0600);
  expect_with_stderr(file, [file] {
    static volatile sig_atomic_t handled = 0;
    signal(SIGVTALRM, [](int) { handled = handled + (raise_one() == 0); });
    const itimerval often = {{0, 1000}, {0, 1000}}, never = {};
    setitimer(ITIMER_VIRTUAL, &often, nullptr);
    int raised = 0;
    for (; handled < 50; ++raised) {
      raise_one();
    }
    setitimer(ITIMER_VIRTUAL, &never, nullptr);
    std::string all(static_cast<size_t>(lseek(file, 0, SEEK_END)), '\0');
    EXPECT_EQ(pread(file, all.data(), all.size(), 0), static_cast<ssize_t>(all.size()));
    const size_t length = all.find('\n') + 1;  // of each line
    EXPECT_EQ(all.size(), length * static_cast<size_t>(raised + handled));
    for (size_t begin = 0; begin < all.size() && !HasFailure(); begin += length) {
      EXPECT_EQ(all.find('\n', begin), begin + length - 1);
    }
  });
}

int log_daemon[2];  // where it reads, and what stands for its address

TEST(MessageExits, ALogDaemonThatIsStuckOrMissingHoldsNobodyUp) {
  expect_in_child([] {
    send_to("syslog");
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, log_daemon), 0);
    for (int i = 0; i < 2000; ++i) {
      raise_one();
    }
    const std::string first = drain(log_daemon[0]).substr(0, 200);
    raise_one();
    const std::string next = drain(log_daemon[0]);
    close(log_daemon[0]);
    raise_one();
    const std::string head = "<11>[A-Z][a-z]{2} [ 1-3][0-9] [0-9:]{8} .*\\[[0-9]+\\]: [0-9]+/[0-9]+ PLATFORM-.*7";
    EXPECT_TRUE(std::regex_search(first, std::regex(head))) << first;
    EXPECT_TRUE(std::regex_match(next, std::regex(head + " \\([0-9]+ messages dropped before this one\\)"))) << next;
  });
}

}  // namespace

// Takes the place of the C library's: sends to the test's own daemon what is for the machine's.
extern "C" __attribute__((visibility("default"))) ssize_t sendto(int fd, const void *data, size_t bytes, int flags,
                                                                 const sockaddr *to, socklen_t size) {
  const bool to_daemon = std::strcmp(reinterpret_cast<const sockaddr_un *>(to)->sun_path, "/dev/log") == 0;
  return to_daemon ? send(log_daemon[1], data, bytes, flags) : syscall(SYS_sendto, fd, data, bytes, flags, to, size);
}
