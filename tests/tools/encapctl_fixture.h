// Windows to look at with the command, one a test, and processes that use them.
#ifndef ENCAPCTL_FIXTURE_H
#define ENCAPCTL_FIXTURE_H

#include <sys/prctl.h>

#include <functional>
#include <utility>

#include "child.h"
#include "database.h"
#include "encap_client.h"
#include "encapctl_run.h"
#include "mpls_egress_encap_db.h"

namespace encapctl_test {

// A process of the test's own, killed at the end of its life.
class Child {
 public:
  explicit Child(pid_t pid) : pid_(pid) {}
  ~Child() { kill(); }
  Child(const Child &) = delete;
  Child &operator=(const Child &) = delete;
  Child(Child &&other) noexcept : pid_(other.pid_), alive_(std::exchange(other.alive_, false)) {}

  std::string pid() const { return std::to_string(pid_); }
  void kill() {
    if (std::exchange(alive_, false)) {
      test_support::kill_hard(pid_);
    }
  }

 private:
  pid_t pid_;
  bool alive_ = true;
};

// Forks a process that runs `body`, and returns when it has; it sleeps then until it is killed. `body` may call `ready`
// sooner and go on. Its stderr goes to `stderr_fd`, when that is given.
using Ready = std::function<void()>;
inline Child fork_child(const std::function<void(const Ready &ready)> &body, int stderr_fd = -1) {
  test_support::Signal at_work;
  const pid_t pid = test_support::spawn([&] {
    prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY);
    if (stderr_fd >= 0) {
      dup2(stderr_fd, STDERR_FILENO);
    }
    const Ready ready = [&] { at_work.give(); };
    body(ready);
    ready();
    while (true) {
      pause();
    }
    return 0;
  });
  EXPECT_TRUE(at_work.await());
  return Child(pid);
}

inline constexpr std::uint32_t kNhStart = 1000, kNhSize = 64, kTunStart = 100, kTunSize = 32;

class EncapctlTest : public testing::Test {
 protected:
  void SetUp() override {
    directory();  // made before any process is forked
    name_ = testing::UnitTest::GetInstance()->current_test_info()->name();
  }

  void TearDown() override {
    encap_db_close();
    for (const auto &entry : std::filesystem::directory_iterator(directory())) {
      if (entry.path().filename().string().starts_with(name_)) {
        std::filesystem::remove(entry.path());
      }
    }
  }

  encap_db_config_t config() const {
    return test_support::database_in(directory(), name_.c_str(), 1, {kNhStart, kNhSize}, {kTunStart, kTunSize});
  }

  // Opens the test's database in this process, or attaches it.
  void open_database() const {
    const encap_db_config_t config = this->config();
    shmwin_error_t error{};
    ASSERT_EQ(encap_db_open(&config, nullptr, &error), 0) << error.text;
  }

  // Processes that have the database open: one that does nothing, one that holds the lock, one that asks for it.
  Child attach() const {
    return fork_child([this](const Ready &) { open_database(); });
  }
  Child hold_lock() const {
    return fork_child([this](const Ready &) {
      open_database();
      vrl_find_and_share_egress_nh(1001);
      vrl_egress_encap_db_lock(&egress_encap_db->lock.mutex);
    });
  }
  Child want_lock() const {
    return fork_child([this](const Ready &ready) {
      open_database();
      ready();
      vrl_find_and_share_egress_nh(1001);
    });
  }

  // Opens the test's database as a client.
  encap_client_t *open_client(const char *name) const {
    encap_client_config_t config{};
    config.database = this->config();
    config.name = name;
    encap_client_t *client = nullptr;
    shmwin_error_t error{};
    EXPECT_EQ(encap_client_open(&config, &client, &error), 0) << error.text;
    return client;
  }

  void close_database() const { ASSERT_EQ(encap_db_close(), 0); }

  static egress_encap_key_t key_of(std::uint32_t ifh, std::uint32_t label1, std::uint32_t label2,
                                   std::uint32_t label3) {
    egress_encap_key_t key{};
    key.ifh = ifh;
    key.out_label1 = label1 & 0x1fffff;
    key.out_label2 = label2 & 0x1fffff;
    key.out_label3 = label3 & 0x1fffff;
    return key;
  }

  // Enters an encapsulation with so many references. `tunnel` 0: on the null tunnel.
  static void enter(std::uint32_t nh, std::uint32_t tunnel, egress_encap_key_t key, std::uint32_t references) {
    egress_encap_info_t info{};
    ASSERT_EQ(vrl_find_egress_encap(&info, key), 0);
    info.egr_nh = nh;
    info.egr_tun = tunnel;
    info.seed_nh = nh + 10000;
    ASSERT_EQ(vrl_insert_egress_encap(&info, key), 0);
    for (std::uint32_t i = 1; i < references; ++i) {
      ASSERT_EQ(vrl_find_and_share_egress_nh(nh), 0);
    }
  }

  // NH 1001 on tunnel 101 (2 references), 1002 on 101 (5), 1003 on 102 (1), 1004 on the null tunnel (7);
  // by a process that is gone.
  void make_database() const {
    const Child maker = fork_child([&](const Ready &) {
      open_database();
      enter(1001, 101, key_of(0x10, 16001, 200, 0), 2);
      enter(1002, 101, key_of(0x10, 16002, 200, 0), 5);
      enter(1003, 102, key_of(0x11, 16001, 200, 300), 1);
      enter(1004, 0, key_of(0x12, 16004, 0, 0), 7);
      close_database();
    });
  }

  // Runs the command on the test's window.
  Outcome on_window(const std::string &words, const Surroundings &surroundings = {}) const {
    return encapctl(split(words + " --dir " + directory() + " --name " + name_), surroundings);
  }

  // Writes a file of routes. Returns its path.
  std::string listing(const std::string &routes) const {
    const std::string file = path() + ".routes";
    std::ofstream(file) << routes;
    return file;
  }

  // The one object that the command prints of the window.
  Json json_of(const std::string &words) const { return on_window(words + " --json").object(); }

  // The processes that wait for the lock, once there is one.
  Json await_a_waiter() const {
    Json waits;
    for (int tries = 0; tries < 3000 && waits.empty(); ++tries) {
      waits = json_of({"status"}).at("waits");
    }
    return waits;
  }

  std::string path() const { return directory() + "/" + name_; }

  // Of the window's file.
  std::vector<char> bytes() const {
    const std::string all = content_of(path());
    return {all.begin(), all.end()};
  }

  void put_bytes(const std::vector<char> &bytes) const {
    std::ofstream file(path(), std::ios::binary | std::ios::trunc);
    file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  }

  std::string name_;
};

}  // namespace encapctl_test

#endif
