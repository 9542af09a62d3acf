// Windows under a directory of the test's own, and child processes that use them.
#ifndef SHMWIN_FIXTURE_H
#define SHMWIN_FIXTURE_H

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>

#include "child.h"
#include "directory.h"
#include "shmwin.h"
#include "shmwin/layout.h"

namespace window_tests {

using vrellis::WindowHeader;

inline constexpr std::uint32_t kId = 3;
inline constexpr std::uint64_t kBytes = 256 * 1024;

using namespace test_support;

class WindowTest : public ::testing::Test {
 protected:
  void TearDown() override {
    for (std::uint32_t id = 0; id < 32; ++id) {
      shmwin_detach(id);
    }
  }

  shmwin_config_t config(std::uint32_t id = kId, const char *name = "window") const {
    shmwin_config_t made{};
    made.directory = directory_.c_str();
    made.name = name;
    made.shm_id = id;
    made.size = kBytes;
    return made;
  }

  // Makes the window, or attaches the one that is there unless it goes `over` that. Returns: the status; created_ tells
  // which it was.
  int open(const shmwin_config_t &made, bool over = false) {
    shmwin_claim_t *claim = nullptr;
    int present = 0;
    int status = shmwin_claim(&made, &claim, &present, &error_);
    if (status == 0) {
      created_ = present == 0 || over;
      status = created_ ? shmwin_format(claim, &made, &error_) : shmwin_attach(claim, made.shm_id, &error_);
      shmwin_release(claim);
    }
    return status;
  }

  // As another process, which has none of this one's windows.
  int open_anew(const shmwin_config_t &made, bool over = false) {
    return in_child([&] { return reopen(made, over); });
  }
  int reopen(const shmwin_config_t &made, bool over = false) {
    shmwin_detach(made.shm_id);
    return open(made, over);
  }

  static shmwin_stat_t stat_of(std::uint32_t id) {
    shmwin_stat_t stat{};
    EXPECT_EQ(shmwin_stat(id, &stat), 0);
    return stat;
  }

  // Leaves the window and removes its file.
  void remove_window() {
    EXPECT_EQ(shmwin_detach(kId), 0);
    EXPECT_EQ(unlink(0), 0) << error_.text;
    EXPECT_FALSE(exists());
  }

  int unlink(int force, const char *name = "window") { return shmwin_unlink(directory_.c_str(), name, force, &error_); }

  std::string path(const char *name = "window") const { return directory_ + "/" + name; }
  bool exists(const char *name = "window") const { return access(path(name).c_str(), F_OK) == 0; }

  // Refused with this status, and a sentence that has all these parts and ends without a newline.
  void expect_refusal(int status, int expected, std::initializer_list<const char *> parts) const {
    EXPECT_EQ(status, expected) << error_.text;
    for (const char *const part : parts) {
      EXPECT_NE(std::strstr(error_.text, part), nullptr) << "'" << part << "' in: " << error_.text;
    }
    EXPECT_EQ(std::strchr(error_.text, '\n'), nullptr);
  }

  const Directory home_;
  const std::string &directory_ = home_.path();
  shmwin_error_t error_{};
  bool created_ = false;
};

inline WindowHeader &header_of(std::uint32_t id) {
  void *begin = nullptr;
  std::size_t bytes = 0;
  EXPECT_EQ(shmwin_bounds(id, &begin, &bytes), 0);
  return *static_cast<WindowHeader *>(begin);
}

inline std::size_t attached(const WindowHeader &header) {
  return static_cast<std::size_t>(
      std::count_if(std::begin(header.process), std::end(header.process), [](auto entry) { return entry != 0; }));
}

}  // namespace window_tests

#endif
