#include "encapctl_fixture.h"

#include <fcntl.h>
#include <pty.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

#include "child.h"
#include "encap_db_owner.h"

namespace encapctl_test {
namespace {

// Made at first use, removed when the test process ends.
struct Directory {
  std::string path;
  pid_t owner = getpid();

  Directory() {
    char name[] = "/dev/shm/encapctl-test-XXXXXX";
    path = mkdtemp(name);
    setenv("LTRACE_DIR", (path + "/trace").c_str(), 1);
    for (const char *inherited : {"LTRACE", "ED_DEBUG", "ENCAPCTL_DIR", "ENCAPCTL_NAME", "NO_COLOR"}) {
      unsetenv(inherited);
    }
  }
  ~Directory() {
    if (getpid() == owner) {
      std::filesystem::remove_all(path);
    }
  }
};

Directory &the_directory() {
  static Directory directory;
  return directory;
}

std::string content_of(const std::string &path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

[[noreturn]] void execute(std::vector<std::string> &words, const std::string &in, const std::string &out,
                          const std::string &err) {
  dup2(open(in.c_str(), O_RDONLY), STDIN_FILENO);
  int pipe_fds[2];
  if (out == kNoReader && pipe(pipe_fds) == 0) {
    close(pipe_fds[0]);
    dup2(pipe_fds[1], STDOUT_FILENO);
  } else if (!out.empty()) {
    dup2(open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDOUT_FILENO);
  }
  dup2(open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDERR_FILENO);
  std::vector<char *> arguments;
  for (std::string &word : words) {
    arguments.push_back(word.data());
  }
  arguments.push_back(nullptr);
  execv(ENCAPCTL_BINARY, arguments.data());
  _exit(127);
}

// What arrives from a terminal until its other end is closed.
std::string drain(int terminal) {
  std::string text;
  char buffer[4096];
  for (ssize_t got = read(terminal, buffer, sizeof buffer); got > 0; got = read(terminal, buffer, sizeof buffer)) {
    text.append(buffer, static_cast<std::size_t>(got));
  }
  close(terminal);
  return text;
}

std::vector<Json> lines_of(const std::string &text) {
  std::vector<Json> all;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    all.push_back(Json::parse(line));
    EXPECT_EQ(all.back().at("schema"), "encapctl/1");
  }
  return all;
}

bool closes_listing(const Json &object) {
  const std::string kind = object.at("kind");
  return kind == "show" || kind == "find" || kind == "trace" || kind == "clients";
}

}  // namespace

std::vector<Json> Outcome::objects() const {
  std::vector<Json> all = lines_of(out);
  std::erase_if(all, closes_listing);
  return all;
}

Json Outcome::closing() const {
  const std::vector<Json> all = lines_of(out);
  return all.empty() || !closes_listing(all.back()) ? Json::object() : all.back();
}

Json Outcome::object() const {
  const std::vector<Json> all = objects();
  EXPECT_EQ(all.size(), 1u) << out << err;
  return all.empty() ? Json::object() : all[0];
}

void Child::kill() {
  if (alive_) {
    test_support::kill_hard(pid_);
    alive_ = false;
  }
}

Child fork_child(const std::function<void(const Ready &ready)> &body, int stderr_fd) {
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

void EncapctlTest::SetUpTestSuite() {
  the_directory();
}

const std::string &EncapctlTest::directory() {
  return the_directory().path;
}

void EncapctlTest::SetUp() {
  name_ = testing::UnitTest::GetInstance()->current_test_info()->name();
}

void EncapctlTest::TearDown() {
  encap_db_close();
  for (const auto &entry : std::filesystem::directory_iterator(directory())) {
    if (entry.path().filename().string().starts_with(name_)) {
      std::filesystem::remove(entry.path());
    }
  }
}

encap_db_config_t EncapctlTest::config() const {
  encap_db_config_t config{};
  config.directory = directory().c_str();
  config.name = name_.c_str();
  config.shm_id = 1;
  config.nh_start = kNhStart, config.nh_size = kNhSize;
  config.tun_start = kTunStart, config.tun_size = kTunSize;
  return config;
}

void EncapctlTest::open_database() const {
  const encap_db_config_t config = this->config();
  shmwin_error_t error{};
  ASSERT_EQ(encap_db_open(&config, nullptr, &error), 0) << error.text;
}

encap_client_t *EncapctlTest::open_client(const char *name) const {
  encap_client_config_t config{};
  config.database = this->config();
  config.name = name;
  encap_client_t *client = nullptr;
  shmwin_error_t error{};
  EXPECT_EQ(encap_client_open(&config, &client, &error), 0) << error.text;
  return client;
}

void EncapctlTest::close_database() const {
  ASSERT_EQ(encap_db_close(), 0);
}

egress_encap_key_t EncapctlTest::key_of(std::uint32_t ifh, std::uint32_t label1, std::uint32_t label2,
                                        std::uint32_t label3) {
  egress_encap_key_t key{};
  key.ifh = ifh;
  key.out_label1 = label1 & 0x1fffff;
  key.out_label2 = label2 & 0x1fffff;
  key.out_label3 = label3 & 0x1fffff;
  return key;
}

void EncapctlTest::enter(std::uint32_t nh, std::uint32_t tunnel, egress_encap_key_t key, std::uint32_t references) {
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

void EncapctlTest::make_database() const {
  const Child maker = fork_child([&](const Ready &) {
    open_database();
    enter(1001, 101, key_of(0x10, 16001, 200, 0), 2);
    enter(1002, 101, key_of(0x10, 16002, 200, 0), 5);
    enter(1003, 102, key_of(0x11, 16001, 200, 300), 1);
    enter(1004, 0, key_of(0x12, 16004, 0, 0), 7);
    close_database();
  });
}

Outcome EncapctlTest::encapctl(std::vector<std::string> words, const Surroundings &surroundings) {
  words.insert(words.begin(), "encapctl");
  const std::string out = surroundings.out.empty() ? directory() + "/stdout" : surroundings.out;
  const std::string err = directory() + "/stderr";
  const winsize size = {50, surroundings.columns, 0, 0};
  int terminal = -1;
  const pid_t pid = surroundings.columns != 0 ? forkpty(&terminal, nullptr, nullptr, &size) : fork();
  if (pid == 0) {
    execute(words, surroundings.in, surroundings.columns != 0 ? "" : out, err);
  }
  const std::string shown = surroundings.columns != 0 ? drain(terminal) : "";
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(surroundings.seconds);
  int status = 0;
  while (waitpid(pid, &status, WNOHANG) == 0) {
    usleep(1000);
    std::error_code none_yet;
    if (std::chrono::steady_clock::now() > deadline ||
        (surroundings.enough != 0 && std::filesystem::file_size(out, none_yet) >= surroundings.enough && !none_yet)) {
      ::kill(pid, SIGTERM);
    }
  }
  const std::string printed = surroundings.columns != 0 ? shown : surroundings.out.empty() ? content_of(out) : "";
  return {WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status), printed, content_of(err)};
}

Outcome EncapctlTest::on_window(std::vector<std::string> words, const Surroundings &surroundings) const {
  words.insert(words.end(), {"--dir", directory(), "--name", name_});
  return encapctl(words, surroundings);
}

std::string EncapctlTest::listing(const std::string &routes) const {
  const std::string file = path() + ".routes";
  std::ofstream(file) << routes;
  return file;
}

Json EncapctlTest::json_of(std::vector<std::string> words) const {
  words.push_back("--json");
  return on_window(words).object();
}

Json EncapctlTest::await_a_waiter() const {
  Json waits;
  for (int tries = 0; tries < 3000 && waits.empty(); ++tries) {
    waits = json_of({"status"}).at("waits");
  }
  return waits;
}

std::vector<char> EncapctlTest::bytes() const {
  const std::string all = content_of(path());
  return {all.begin(), all.end()};
}

void EncapctlTest::put_bytes(const std::vector<char> &bytes) const {
  std::ofstream file(path(), std::ios::binary | std::ios::trunc);
  file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

}  // namespace encapctl_test
