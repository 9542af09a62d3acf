// A database, a client of it, and the feed of a router that keeps the client's references.
#ifndef TESTS_ENCAPD_FEED_FIXTURE_H
#define TESTS_ENCAPD_FEED_FIXTURE_H

#include <memory>
#include <tuple>

#include "../client/client_fixture.h"
#include "check/check.h"
#include "feed/feed.h"
#include "router.h"

namespace encapd_tests {

using namespace std::chrono_literals;
using router::Buffer, router::frame, router::named, router::route, router::withdrawal, router::operator+;
using test_support::content_of;

// Labels 1 to 3 and interface.
using Key = std::tuple<std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t>;
using References = std::map<Key, std::uint32_t>;

class EncapdTest : public test_support::ClientTest {
 protected:
  void expect_sound() {
    std::string error;
    const auto view = encap_inspect::View::open_live(directory_.c_str(), "encaps", &error);
    ASSERT_TRUE(view) << error;
    EXPECT_TRUE(encap_inspect::check(*view).sound());
  }

  // What the database says of the client that encapd is, told to another one; zeroes when it has left.
  static encap_client_info_t info_of_encapd(encap_client_t *teller) {
    encap_client_info_t info[4]{};
    std::uint32_t count = 0;
    EXPECT_EQ(encap_client_list(teller, info, 4, &count), 0);
    for (const encap_client_info_t &each : info) {
      if (std::string_view(each.name) == "fpm") {
        return each;
      }
    }
    return {};
  }
};

class FeedTest : public EncapdTest {
 protected:
  void SetUp() override { encapd::set_level(encapd::Level::kError); }

  void TearDown() override {
    feed_.reset();
    EncapdTest::TearDown();
  }

  void start(std::optional<std::chrono::milliseconds> settle = 30s) {
    client_ = client("fpm");
    feed_ = std::make_unique<encapd::Feed>(client_, events_, settle);
  }

  // As after the daemon's death: the process is the same, so the client is closed.
  void restart() {
    feed_.reset();
    close(client_);
    start();
  }

  // Sends the bytes in pieces, each of which is one step.
  bool send(const Buffer &bytes, std::size_t piece = encapd::Frames::kRoom) {
    for (std::size_t at = 0; at < bytes.size();) {
      const std::span<std::uint8_t> room = feed_->room();
      const std::size_t count = std::min({room.size(), piece, bytes.size() - at});
      std::memcpy(room.data(), &bytes[at], count);
      at += count;
      if (!feed_->take(count, now_)) {
        return false;
      }
    }
    return true;
  }

  void pass(std::chrono::milliseconds time) {
    now_ += time;
    feed_->tick(now_);
  }

  // What the ledger has, stale references included. It must agree with the holder's count, and the database must be
  // sound.
  References references() {
    References result;
    std::uint64_t fresh = 0;
    using Pair = std::pair<References *, std::uint64_t *>;
    std::pair both{&result, &fresh};
    const auto add = [](const encap_holding_t *holding, void *arg) {
      const auto &[map, sum] = *static_cast<Pair *>(arg);
      const egress_encap_key_t &key = holding->key;
      (*map)[{key.out_label1, key.out_label2, key.out_label3, key.ifh}] = holding->held;
      *sum += holding->held - holding->stale;
    };
    EXPECT_EQ(encap_client_each(client_, add, &both), 0);
    EXPECT_EQ(fresh, feed_->holder().held());
    return result;
  }

  std::uint64_t stale() { return info_of_encapd(client_).stale; }

  encap_client_t *client_ = nullptr;
  encapd::Events events_{-1};
  std::unique_ptr<encapd::Feed> feed_;
  encapd::Clock::time_point now_ = encapd::Clock::now();
};

}  // namespace encapd_tests

#endif
