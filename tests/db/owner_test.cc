// The owner: one process creates the database, the others find it, and what can never work is refused.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "child.h"
#include "database.h"

namespace {

constexpr std::uint32_t kId = 11;

using test_support::in_child;

class OwnerTest : public ::testing::Test {
 protected:
  void TearDown() override { encap_db_close(); }

  int open() { return encap_db_open(&config_, &created_, &error_); }

  // A database that is configured otherwise in this one thing.
  void refused(void (*change)(encap_db_config_t &), std::initializer_list<const char *> parts) {
    const encap_db_config_t good = config_;
    change(config_);
    EXPECT_EQ(open(), 22) << error_.text;
    for (const char *const part : parts) {
      EXPECT_NE(std::strstr(error_.text, part), nullptr) << "'" << part << "' in: " << error_.text;
    }
    EXPECT_EQ(shmwin_user_area(kId), nullptr) << "still attached";
    EXPECT_EQ(egress_encap_db, nullptr);
    config_ = good;
  }

  // Enters NH `nh` under a tunnel of its own.
  static int enter(std::uint32_t nh, std::uint32_t tunnel) {
    egress_encap_key_t key{};
    key.out_label1 = nh & 0xfffff;
    key.ifh = tunnel;
    egress_encap_info_t info{};
    info.egr_nh = nh;
    info.egr_tun = tunnel;
    return vrl_insert_egress_encap(&info, key);
  }

  const test_support::Directory home_;
  const std::string &directory_ = home_.path();
  encap_db_config_t config_ = test_support::database_in(directory_, "encaps", kId, {1000, 500}, {10, 50});
  shmwin_error_t error_{};
  int created_ = -1;
};

TEST_F(OwnerTest, ARestartedProcessFindsItsState) {
  ASSERT_EQ(open(), 0) << error_.text;
  EXPECT_EQ(created_, 1);
  EXPECT_EQ(egress_encap_db, shmwin_user_area(kId));
  EXPECT_EQ(egress_encap_db->is_initialized, 1u);
  ASSERT_EQ(enter(1003, 12), 0);
  EXPECT_EQ(encap_db_close(), 0);
  EXPECT_EQ(egress_encap_db, nullptr);
  EXPECT_EQ(encap_db_close(), 2);
  EXPECT_EQ(encap_db_open(&config_, nullptr, nullptr), 0);
  EXPECT_EQ(vrl_can_delete_egr_nh_data_from_encap_db(1003), 1);
  EXPECT_EQ(in_child([this] {
              if (encap_db_close() != 0 || open() != 0 || created_ != 0) {
                return 99;
              }
              return vrl_find_and_share_egress_nh(1003);
            }),
            0);
  EXPECT_EQ(vrl_can_delete_egr_nh_data_from_encap_db(1003), 0);
}

TEST_F(OwnerTest, OfManyAtOnceOneCreatesAndAllUseIt) {
  const auto count = test_support::at_once(
      16, [this](unsigned i) { return open() == 0 && enter(1000 + i, 10 + i) == 0 ? created_ : 2; });
  EXPECT_EQ(count, (std::array{15u, 1u, 0u}));
  ASSERT_EQ(open(), 0) << error_.text;
  for (std::uint32_t i = 0; i < 16; ++i) {
    EXPECT_EQ(vrl_can_delete_egr_nh_data_from_encap_db(1000 + i), 1);
  }
}

// A copy of a window whose lock is held; its name tells what is true of the holder.
TEST_F(OwnerTest, ALockThatNoThreadCanGiveBackIsRefused) {
  ASSERT_EQ(open(), 0) << error_.text;
  const pid_t holder = test_support::spawn_waiting([] { pthread_mutex_lock(&egress_encap_db->lock.mutex); });
  const auto lost = [&](const char *name) {
    return in_child([&] {
      encap_db_close();
      config_.name = name;
      const bool told = open() == ENOTRECOVERABLE && std::strstr(error_.text, name) != nullptr &&
                        std::strstr(error_.text, std::to_string(holder).c_str()) != nullptr;
      return told && egress_encap_db == nullptr ? 1 : error_.text[0] == '\0' ? 0 : 2;
    });
  };
  std::filesystem::copy_file(directory_ + "/encaps", directory_ + "/copy");
  EXPECT_EQ(lost("copy"), 1) << "the holder lives, and holds another window's lock";
  EXPECT_EQ(lost("encaps"), 0) << "a process that works with the database";
  test_support::kill_hard(holder);
  EXPECT_EQ(lost("copy"), 1) << "the holder is gone";
  EXPECT_EQ(lost("encaps"), 0) << "the next process takes the lock over";
  EXPECT_EQ(enter(1003, 12), 0);
}

TEST_F(OwnerTest, WhatCanNeverWorkIsRefused) {
  EXPECT_EQ(encap_db_open(nullptr, &created_, &error_), 22);
  refused([](auto &config) { config.name = nullptr; }, {"names its window"});
  refused([](auto &config) { config.tun_start = 65500, config.tun_size = 37; }, {"65536", "65535"});
  refused([](auto &config) { config.nh_start = UINT32_MAX - 499; }, {"NH", "4294966796", "500", "32 bits"});
  refused([](auto &config) { config.tun_start = UINT32_MAX; }, {"tunnel", "32 bits"});
  refused([](auto &config) { config.size = 64 * 1024, config.nh_size = 5000; }, {"65536", "5000", "arrays"});
  refused([](auto &config) { config.nh_size = UINT32_MAX - 1000; }, {"arrays"});
  EXPECT_TRUE(std::filesystem::is_empty(directory_));
}

TEST_F(OwnerTest, TheEdgesOfTheRangesWork) {
  config_.tun_start = 65500;
  config_.tun_size = 36;
  config_.nh_start = UINT32_MAX - 500;
  config_.mode = 0640;
  ASSERT_EQ(open(), 0) << error_.text;
  EXPECT_EQ(enter(UINT32_MAX - 1, 65535), 0);
  struct stat status;
  ASSERT_EQ(stat((directory_ + "/encaps").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0640u);
  ASSERT_EQ(encap_db_close(), 0);
  ASSERT_EQ(encap_db_destroy(config_.directory, config_.name, 0, &error_), 0) << error_.text;

  config_ = {config_.directory, config_.name, kId, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
  ASSERT_EQ(open(), 0) << error_.text;
  EXPECT_EQ(enter(0, 0), 22);
}

TEST_F(OwnerTest, AnotherDatabaseThanConfiguredIsRefused) {
  ASSERT_EQ(open(), 0);
  config_.name = "second";
  EXPECT_EQ(open(), EEXIST);
  config_.name = "encaps";
  ASSERT_EQ(encap_db_close(), 0);
  refused([](auto &config) { config.nh_size = 501; }, {"'encaps'", "below 1500", "1501"});
  refused([](auto &config) { config.tun_start = 11; }, {"from 10", "11"});
  refused([](auto &config) { config.shm_id = 12; }, {"id 11", "12"});
  ASSERT_EQ(open(), 0) << error_.text;
  egress_encap_db->nh_info_array = reinterpret_cast<egr_nh_info_t *>(8);
  ASSERT_EQ(encap_db_close(), 0);
  refused([](auto &) {}, {"damaged"});
}

// A window whose identity or whose database's header is damaged is refused, or the damage has no effect.
TEST_F(OwnerTest, ADamagedHeaderNeverHarmsAProcessThatOpensIt) {
  config_.size = 64 * 1024;
  ASSERT_EQ(open(), 0) << error_.text;
  ASSERT_EQ(enter(1003, 12), 0);
  ASSERT_EQ(encap_db_close(), 0);
  const std::string sound = test_support::content_of(directory_ + "/encaps");
  for (std::size_t offset = 0; offset <= 1024 + 48; offset += offset == 88 ? 936 : 8) {
    for (const char value : {'\x00', '\x01', '\x7f', '\xff'}) {
      std::string damaged = sound;
      if (offset < 1024 + 48) {  // at last it is sound again
        std::memset(damaged.data() + offset, value, 8);
      }
      std::ofstream(directory_ + "/encaps", std::ios::binary) << damaged;
      const int ended = in_child([this] { return open() == 0 ? 0 : error_.text[0] != '\0' ? 1 : 2; });
      EXPECT_TRUE(ended == 0 || ended == 1) << "offset " << offset << " value " << int{value} << " ended " << ended;
    }
  }
  ASSERT_EQ(open(), 0) << error_.text;
  EXPECT_EQ(vrl_can_delete_egr_nh_data_from_encap_db(1003), 1);
}

// The default size has room for a node for every index.
TEST_F(OwnerTest, TheDefaultSizeHoldsEveryIndex) {
  ASSERT_EQ(open(), 0);
  for (std::uint32_t nh = 1000; nh < 1500; ++nh) {
    ASSERT_EQ(enter(nh, nh < 1050 ? nh - 990 : 0x10000 + nh), nh < 1050 ? 0 : 22) << nh;
  }
  for (std::uint32_t nh = 1050; nh < 1500; ++nh) {
    egress_encap_key_t key{};
    key.ifh = nh;
    egress_encap_info_t info{};
    info.egr_nh = nh;
    ASSERT_EQ(vrl_insert_egress_encap(&info, key), 0) << "an interface of its own, on the null tunnel: " << nh;
  }
  EXPECT_EQ(encap_db_destroy(config_.directory, config_.name, 0, &error_), EBUSY);
}

}  // namespace
