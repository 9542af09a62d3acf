// Windows to look at, and the built command run as a process against them.
#ifndef ENCAPCTL_FIXTURE_H
#define ENCAPCTL_FIXTURE_H

#include <gtest/gtest.h>
#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "encap_client.h"
#include "encap_db_owner.h"
#include "mpls_egress_encap_db.h"

namespace encapctl_test {

using Json = nlohmann::json;

// What one run of the command gave.
struct Outcome {
  int status = -1;  // exit status; 128 + signal when one killed it
  std::string out;
  std::string err;

  // The object of each line, without the one that closes a listing (of show, find, trace, clients); the only one; that
  // one.
  std::vector<Json> objects() const;
  Json object() const;
  Json closing() const;
};

inline constexpr char kNoReader[] = "|";  // as stdout: a pipe whose reader has gone away

// Where a run reads and writes, and when it is terminated: after a time, or when it has printed so many bytes, if they
// are not 0. Columns make its stdout a terminal of that width.
struct Surroundings {
  unsigned seconds = 60;
  std::size_t enough = 0;
  std::string in = "/dev/null";
  std::string out = {};
  unsigned short columns = 0;
};

inline testing::AssertionResult has(const std::string &text, const std::string &part) {
  return text.find(part) != std::string::npos ? testing::AssertionSuccess()
                                              : testing::AssertionFailure() << "no '" << part << "' in:\n"
                                                                            << text;
}

// A process of the test's own, killed at the end of its life.
class Child {
 public:
  explicit Child(pid_t pid) : pid_(pid) {}
  ~Child() { kill(); }
  Child(const Child &) = delete;
  Child &operator=(const Child &) = delete;
  Child(Child &&other) noexcept : pid_(other.pid_), alive_(std::exchange(other.alive_, false)) {}

  std::string pid() const { return std::to_string(pid_); }
  void kill();

 private:
  pid_t pid_;
  bool alive_ = true;
};

// Forks a process that runs `body`, and returns when it has; it sleeps then until it is killed. `body` may call `ready`
// sooner and go on. Its stderr goes to `stderr_fd`, when that is given.
using Ready = std::function<void()>;
Child fork_child(const std::function<void(const Ready &ready)> &body, int stderr_fd = -1);

inline constexpr std::uint32_t kNhStart = 1000, kNhSize = 64, kTunStart = 100, kTunSize = 32;

// One directory a test process, which its trace file is in too; one window a test.
class EncapctlTest : public testing::Test {
 protected:
  static void SetUpTestSuite();
  void SetUp() override;
  void TearDown() override;

  // Opens the test's database in this process, or attaches it.
  void open_database() const;
  void close_database() const;

  encap_db_config_t config() const;

  // Opens the test's database as a client.
  encap_client_t *open_client(const char *name) const;

  // Enters an encapsulation with so many references. `tunnel` 0: on the null tunnel.
  static void enter(std::uint32_t nh, std::uint32_t tunnel, egress_encap_key_t key, std::uint32_t references);
  static egress_encap_key_t key_of(std::uint32_t ifh, std::uint32_t label1, std::uint32_t label2, std::uint32_t label3);

  // NH 1001 on tunnel 101 (2 references), 1002 on 101 (5), 1003 on 102 (1), 1004 on the null tunnel (7);
  // by a process that is gone.
  void make_database() const;

  // Runs the command with these words; on_window() appends --dir and --name.
  static Outcome encapctl(std::vector<std::string> words, const Surroundings &surroundings = {});
  Outcome on_window(std::vector<std::string> words, const Surroundings &surroundings = {}) const;

  // The one object that the command prints of the window.
  Json json_of(std::vector<std::string> words) const;
  // The processes that wait for the lock, once there is one.
  Json await_a_waiter() const;
  // Writes a file of routes. Returns its path.
  std::string listing(const std::string &routes) const;

  std::string path() const { return directory() + "/" + name_; }
  static const std::string &directory();

  std::vector<char> bytes() const;  // of the window's file
  void put_bytes(const std::vector<char> &bytes) const;

  std::string name_;
};

}  // namespace encapctl_test

#endif
