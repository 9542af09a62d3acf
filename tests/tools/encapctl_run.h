// The built command, run as a process: what it printed and how it ended.
#ifndef ENCAPCTL_RUN_H
#define ENCAPCTL_RUN_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "directory.h"

namespace encapctl_test {

using Json = nlohmann::json;
using test_support::content_of;

// One a test process, which its trace files are in too: made at first use, removed when that process ends.
struct TestDirectory : test_support::Directory {
  TestDirectory() {
    setenv("LTRACE_DIR", (path() + "/trace").c_str(), 1);
    for (const char *inherited : {"LTRACE", "ED_DEBUG", "ENCAPCTL_DIR", "ENCAPCTL_NAME", "NO_COLOR"}) {
      unsetenv(inherited);
    }
  }
};

inline const std::string &directory() {
  static const TestDirectory made;
  return made.path();
}

inline std::vector<Json> lines_of(const std::string &text) {
  std::vector<Json> all;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    all.push_back(Json::parse(line));
    EXPECT_EQ(all.back().at("schema"), "encapctl/1");
  }
  return all;
}

inline bool closes_listing(const Json &object) {
  const std::string kind = object.at("kind");
  return kind == "show" || kind == "find" || kind == "trace" || kind == "clients";
}

// What one run of the command gave.
struct Outcome {
  int status = -1;  // exit status; 128 + signal when one killed it
  std::string out;
  std::string err;

  // The object of each line, without the one that closes a listing (of show, find, trace, clients).
  std::vector<Json> objects() const {
    std::vector<Json> all = lines_of(out);
    std::erase_if(all, closes_listing);
    return all;
  }

  // The only one.
  Json object() const {
    const std::vector<Json> all = objects();
    EXPECT_EQ(all.size(), 1u) << out << err;
    return all.empty() ? Json::object() : all[0];
  }

  // The one that closes a listing.
  Json closing() const {
    const std::vector<Json> all = lines_of(out);
    return all.empty() || !closes_listing(all.back()) ? Json::object() : all.back();
  }
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

// Whether a run ended with this status and printed this, of a failure (2) to its stderr.
inline testing::AssertionResult ended(const Outcome &run, int status, const std::string &part) {
  return run.status == status ? has(status == 2 ? run.err : run.out, part)
                              : testing::AssertionFailure() << "status " << run.status << "\n"
                                                            << run.out << run.err;
}

// Whether an object has all these fields, among others.
inline testing::AssertionResult says(const Json &object, const Json &fields) {
  for (const auto &[name, value] : fields.items()) {
    if (!object.contains(name) || object.at(name) != value) {
      return testing::AssertionFailure() << name << " is not " << value << " in " << object;
    }
  }
  return testing::AssertionSuccess();
}

inline std::vector<std::string> split(const std::string &text) {
  std::istringstream words(text);
  return {std::istream_iterator<std::string>(words), {}};
}

[[noreturn]] inline void execute(std::vector<std::string> &words, const std::string &in, const std::string &out,
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
inline std::string drain(int terminal) {
  std::string text;
  char buffer[4096];
  for (ssize_t got = read(terminal, buffer, sizeof buffer); got > 0; got = read(terminal, buffer, sizeof buffer)) {
    text.append(buffer, static_cast<std::size_t>(got));
  }
  close(terminal);
  return text;
}

// Runs the command with these words.
inline Outcome encapctl(std::vector<std::string> words, const Surroundings &surroundings = {}) {
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

}  // namespace encapctl_test

#endif
