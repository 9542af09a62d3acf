// A database in a directory of its own, and clients of it in this process.
#ifndef TESTS_CLIENT_FIXTURE_H
#define TESTS_CLIENT_FIXTURE_H

#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include "child.h"
#include "database.h"
#include "encap_client.h"
#include "records/layout.h"

namespace test_support {

inline constexpr std::uint32_t kNhStart = 1000;
inline constexpr std::uint32_t kTunStart = 10;

inline egress_encap_key_t key(std::uint32_t label1, std::uint32_t label2 = 0, std::uint32_t ifh = 7) {
  egress_encap_key_t key{};
  key.out_label1 = label1 & 0x1fffff;
  key.out_label2 = label2 & 0x1fffff;
  key.ifh = ifh;
  return key;
}

// Runs `work` in a child that has its parent's clients: no handler of fork() runs. Returns: as end_of().
template <typename Work>
int in_copy(Work work) {
  const pid_t child = _Fork();
  if (child == 0) {
    alarm(60);
    work();
    _exit(0);
  }
  return end_of(child);
}

// References by NH, and of these the stale ones.
using Holdings = std::map<std::uint32_t, std::pair<std::uint32_t, std::uint32_t>>;

class ClientTest : public ::testing::Test {
 protected:
  void TearDown() override {
    for (encap_client_t *client : open_) {
      encap_client_close(client);
    }
  }

  int open(const char *name, encap_client_t **client) {
    const encap_client_config_t config{config_, name};
    const int status = encap_client_open(&config, client, &error_);
    if (status == 0) {
      open_.insert(*client);
    }
    return status;
  }

  encap_client_t *client(const char *name) {
    encap_client_t *client = nullptr;
    EXPECT_EQ(open(name, &client), 0) << error_.text;
    return client;
  }

  int close(encap_client_t *client) {
    open_.erase(client);
    return encap_client_close(client);
  }

  int leave(encap_client_t *client) {
    open_.erase(client);
    return encap_client_leave(client, nullptr, nullptr);
  }

  static encap_entry_t enter(encap_client_t *client, const egress_encap_key_t &key) {
    encap_entry_t entry{};
    EXPECT_EQ(encap_client_enter(client, key, nullptr, &entry), 0);
    return entry;
  }

  static encap_left_t release(encap_client_t *client, std::uint32_t nh) {
    encap_left_t left{};
    EXPECT_EQ(encap_client_release(client, nh, &left), 0);
    return left;
  }

  static Holdings holdings(encap_client_t *client) {
    Holdings held;
    const auto add = [](const encap_holding_t *holding, void *arg) {
      auto &map = *static_cast<Holdings *>(arg);
      EXPECT_TRUE(map.emplace(holding->nh, std::pair{holding->held, holding->stale}).second) << "told of twice";
    };
    EXPECT_EQ(encap_client_each(client, add, &held), 0);
    return held;
  }

  template <typename Record>
  static Record *at(std::uint64_t address) {
    return reinterpret_cast<Record *>(address);
  }
  static clients::ClientRoot &root() {
    return *at<clients::ClientRoot>(reinterpret_cast<std::uintptr_t>(egress_encap_db) + clients::kRootOffset);
  }

  static std::uint32_t count_of(std::uint32_t nh) { return egress_encap_db->nh_info_array[nh - kNhStart].ref_count; }

  const Directory home_;
  const std::string &directory_ = home_.path();
  encap_db_config_t config_ = database_in(directory_, "encaps", 3, {kNhStart, 400}, {kTunStart, 100});
  shmwin_error_t error_{};
  std::set<encap_client_t *> open_;
};

}  // namespace test_support

#endif
