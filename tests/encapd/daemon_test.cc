// The daemon in a process of its own: its sockets, its signals, its deaths.
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <thread>

#include "feed_fixture.h"

namespace encapd_tests {
namespace {

class DaemonTest : public EncapdTest {
 protected:
  void TearDown() override {
    end(SIGKILL);
    disconnect();
    EncapdTest::TearDown();
  }

  std::string path(const char *name) const { return directory_ + "/" + name; }

  void start(std::vector<std::string> options, const std::string &fpm = "127.0.0.1:0") {
    unlink(path("encaps.fpm.status").c_str());
    options.insert(options.begin(), {"encapd", "--dir", directory_, "--name", "encaps", "--fpm", fpm});
    process_ = fork();
    if (process_ == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      std::vector<char *> words;
      for (std::string &option : options) {
        words.push_back(option.data());
      }
      words.push_back(nullptr);
      dup2(open_file("events"), STDOUT_FILENO);
      dup2(open_file("log"), STDERR_FILENO);
      execv(ENCAPD_BINARY, words.data());
      _exit(127);
    }
  }

  int open_file(const char *name) const { return ::open(path(name).c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600); }

  // Returns: the exit status, or the negative number of the signal.
  int end(int signal) {
    if (process_ <= 0) {
      return 0;
    }
    int status = 0;
    if (signal != 0) {
      kill(process_, signal);
    }
    waitpid(std::exchange(process_, 0), &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }

  // Waits until the status says it.
  void await(const std::string &said) {
    for (int tries = 0; tries < 3000; ++tries) {
      if (content_of(path("encaps.fpm.status")).find(said) != std::string::npos) {
        return;
      }
      std::this_thread::sleep_for(10ms);
    }
    FAIL() << said << " is never said: " << content_of(path("encaps.fpm.status")) << content_of(path("log"));
  }

  void connect() {
    await("listening");
    const std::string status = content_of(path("encaps.fpm.status"));
    const std::string before = "\"listening\":\"127.0.0.1:";
    const int port = std::stoi(status.substr(status.find(before) + before.size()));
    disconnect();
    router_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    ASSERT_EQ(::connect(router_, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
  }

  void disconnect() {
    if (router_ >= 0) {
      ::close(std::exchange(router_, -1));
    }
  }

  void send(const Buffer &bytes, std::size_t most = SIZE_MAX) const {
    for (std::size_t at = 0; at < std::min(bytes.size(), most);) {
      const ssize_t count = ::send(router_, &bytes[at], std::min(bytes.size(), most) - at, MSG_NOSIGNAL);
      ASSERT_GT(count, 0);
      at += static_cast<std::size_t>(count);
    }
  }

  // What the database says of the daemon's client; the database must be sound.
  encap_client_info_t info() {
    config_ = test_support::database_in(directory_, "encaps", 1, {1000, 65536}, {1, 16384});
    encap_client_t *const watch = client("watch");
    const encap_client_info_t info = info_of_encapd(watch);
    expect_sound();
    leave(watch);
    return info;
  }

  static Buffer flood(std::uint32_t routes) {
    Buffer bytes;
    for (std::uint32_t i = 0; i < routes; ++i) {
      bytes = std::move(bytes) + frame({route(router::prefix_number(i), {{{100 + i % 50, 1000 + i % 700}}})});
    }
    return bytes;
  }

  pid_t process_ = 0;
  int router_ = -1;
};

TEST_F(DaemonTest, IsKilledInAFloodAndEndsAsIfItHadNotBeen) {
  constexpr std::uint32_t kRoutes = 7000;
  const Buffer all = flood(kRoutes);
  for (const std::size_t part : {all.size() / 3, all.size() / 2, all.size()}) {
    start({"--settle", "never"});
    connect();
    send(all, part);
    EXPECT_EQ(end(SIGKILL), -SIGKILL);
  }
  const Buffer fewer = flood(kRoutes - 2000);
  start({"--settle", "never", "--events"});
  connect();
  send(fewer);
  await("\"references\":5000,");
  EXPECT_EQ(info().held - info().stale, 5000U);
  kill(process_, SIGUSR1);
  await("\"settled\":true");
  EXPECT_EQ(info().held, 5000U);
  EXPECT_EQ(info().stale, 0U);
  EXPECT_EQ(info().nhs, 700U);
  EXPECT_EQ(end(SIGTERM), 0);
  EXPECT_EQ(info().held, 5000U) << "SIGTERM keeps what is held";
  start({"--leave"});
  await("listening");
  EXPECT_EQ(end(SIGTERM), 0);
  EXPECT_EQ(content_of(path("encaps.fpm.status")), "");
  start({});
  await("listening");
  EXPECT_EQ(info().held, 0U);
}

TEST_F(DaemonTest, ServesOneRouterAtATime) {
  start({"--settle", "0.2", "--events"});
  connect();
  send(frame({route("10.1.0.0/16", {{{100}}}), route("10.2.0.0/16", {{{200}}})}));
  await("\"settled\":true");
  const int first = std::exchange(router_, -1);
  connect();
  send(frame({route("10.1.0.0/16", {{{100}}})}));
  pollfd wait{first, POLLIN, 0};
  EXPECT_EQ(poll(&wait, 1, 30'000), 1) << "the old connection is closed";
  ::close(first);
  await("\"swept\":1,");
  EXPECT_EQ(info().held, 1U);
  send({7, 7, 7, 7});
  await("\"connected\":false");
  EXPECT_EQ(info().held, 1U);
  EXPECT_EQ(end(SIGINT), 0);
  const std::string events = content_of(path("events"));
  EXPECT_NE(events.find(R"("event":"left")"), events.npos) << events;
  EXPECT_NE(events.find(R"("prefix":"10.2.0.0/16")", events.find(R"("event":"left")")), events.npos) << events;
}

// Its router goes on sending, and leaving has events of its own.
TEST_F(DaemonTest, EndsAlthoughNoOneReadsItsEvents) {
  for (const std::vector<std::string> &options : {std::vector<std::string>{"--events", "--leave"}, {"--events"}}) {
    unlink(path("events").c_str());
    ASSERT_EQ(mkfifo(path("events").c_str(), 0600), 0);
    const int reader = ::open(path("events").c_str(), O_RDWR | O_CLOEXEC);
    start(options);
    connect();
    send(flood(7000));
    int queued = 0;
    for (int tries = 0; tries < 3000 && queued < 60'000; ++tries) {  // the pipe is full then
      std::this_thread::sleep_for(10ms);
      ASSERT_EQ(ioctl(reader, FIONREAD, &queued), 0);
    }
    EXPECT_GE(queued, 60'000);
    EXPECT_EQ(end(SIGTERM), 0);
    EXPECT_EQ(info().held >= 250U, options.size() == 1) << "what it had entered stays, unless it leaves";
    ::close(reader);
  }
}

TEST_F(DaemonTest, WorksAlthoughNoOneReadsItsMessages) {
  ASSERT_EQ(mkfifo(path("log").c_str(), 0600), 0);
  const int reader = ::open(path("log").c_str(), O_RDWR | O_CLOEXEC | O_NONBLOCK);
  std::string text(4096, 'x');
  while (write(reader, text.data(), text.size()) > 0) {
  }
  start({});
  await("listening");
  while (read(reader, text.data(), text.size()) > 0) {
  }
  connect();
  send(frame({route("10.1.0.0/16", {{{100}}})}));
  await("\"connected\":true");
  text.resize(static_cast<std::size_t>(std::max<ssize_t>(read(reader, text.data(), text.size()), 0)));
  EXPECT_NE(text.find("a router has connected"), text.npos) << text;
  EXPECT_NE(text.find("(1 message dropped before this one)\n"), text.npos) << text;
  ::close(reader);
  EXPECT_EQ(end(SIGTERM), 0);
}

TEST_F(DaemonTest, TellsTheServiceManagerHowItIs) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path("notify").copy(address.sun_path, sizeof address.sun_path - 1);
  const int manager = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ASSERT_EQ(bind(manager, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
  setenv("NOTIFY_SOCKET", address.sun_path, 1);
  start({});
  unsetenv("NOTIFY_SOCKET");
  std::string told;
  for (pollfd wait{manager, POLLIN, 0}; told.find("READY=1") == told.npos || told.find("WATCHDOG=1") == told.npos;) {
    ASSERT_EQ(poll(&wait, 1, 30'000), 1) << told;
    char text[500] = "";
    ASSERT_GT(recv(manager, text, sizeof text - 1, 0), 0);
    told += text;
  }
  EXPECT_NE(told.find("STATUS=no router is connected, not settled: 0 routes"), told.npos) << told;
  ::close(manager);
}

TEST_F(DaemonTest, RefusesWhatItCannotServe) {
  const auto refused = [&](const std::string &fpm, const std::vector<std::string> &options, const char *sentence) {
    unlink(path("log").c_str());
    start(options, fpm);
    const int status = end(0);
    EXPECT_NE(content_of(path("log")).find(sentence), std::string::npos) << content_of(path("log"));
    return status;
  };
  EXPECT_EQ(refused("0.0.0.0:0", {}, "it needs --allow-remote"), 2);
  EXPECT_EQ(refused("[::]:2620", {}, "it needs --allow-remote"), 2);
  EXPECT_EQ(refused("localhost", {}, "is no ADDRESS:PORT"), 2);
  EXPECT_EQ(refused("127.0.0.1:0", {"--settle", "soon"}, "neither a number of seconds nor 'never'"), 2);
  EXPECT_EQ(refused("192.0.2.1:0", {"--allow-remote"}, "cannot listen on 192.0.2.1:0"), 1);
  EXPECT_EQ(refused("127.0.0.1:0", {"--client", "a b"}, "needs a name"), 1);
  start({});
  await("listening");
  const pid_t first = std::exchange(process_, 0);
  EXPECT_EQ(refused("127.0.0.1:0", {}, "is alive"), 1);
  process_ = first;
}

}  // namespace
}  // namespace encapd_tests
