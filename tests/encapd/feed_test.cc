// What a router's messages make of the database: paths, objects, refusals, refreshes.
#include <unistd.h>

#include "feed_fixture.h"

namespace encapd_tests {
namespace {

using router::object, router::prefix_number;

TEST_F(FeedTest, PathsOfEveryKindAreHeldOnceEach) {
  start();
  feed_->connected();
  send(frame({route("2001:db8::/32", {{{30, 20, 10}}}), route("10.2.0.0/16", {{{7001}, 7}, {{7002, 16}, 8}, {{}, 9}}),
              route("1000", {{{2000}, 6}, {{0}, 7}}), route("1001", {{{3}}})}));
  const References all{
      {{10, 20, 30, 6}, 1}, {{7001, 0, 0, 7}, 1}, {{16, 7002, 0, 8}, 1}, {{2000, 0, 0, 6}, 1}, {{0, 0, 0, 7}, 1}};
  EXPECT_EQ(references(), all);
  send(frame({route("2001:db8::/32", {{{30, 20, 10}}})}));
  EXPECT_EQ(references(), all) << "the same route again";
  send(frame({withdrawal("2001:db8::/32"), withdrawal("10.2.0.0/16"), withdrawal("1000"), withdrawal("1001")}));
  EXPECT_EQ(references(), References{});
  EXPECT_EQ(feed_->holder().encapsulations(), 0U);
  expect_sound();
}

TEST_F(FeedTest, WhatIsNoEncapsulationIsCountedAndNeverFatal) {
  start();
  feed_->connected();
  Buffer torn = route("10.7.0.0/16", {{{16}}});
  torn.resize(torn.size() - 4);
  const Buffer no_bottom =
      router::route_message(RTM_NEWROUTE, "10.8.0.0/16",
                            router::attribute(RTA_ENCAP_TYPE, {1, 0}) +
                                router::attribute(RTA_ENCAP, router::attribute(MPLS_IPTUNNEL_DST, {0, 1, 0, 0})) +
                                router::number(RTA_OIF, 6));
  Buffer endless = router::message(RTM_NEWLINK, {});
  endless[3] = 0xff;  // its length is negative, if it is read so
  EXPECT_TRUE(
      send(frame({route("10.1.0.0/16", {{{4, 16, 17, 18}}}), route("10.2.0.0/16", {{{16, 3}}}),
                  route("10.3.0.0/16", {{{0, 16}}}), route("10.4.0.0/16", {{{16}, 0}}), no_bottom,
                  route("10.5.0.0/16", {{{}}}), router::route_message(RTM_NEWROUTE, "10.6.0.0/16", {}, RTN_BLACKHOLE),
                  router::message(RTM_NEWLINK, {}), router::message(RTM_NEWROUTE, {2}), route("10.9.0.0/16", {{{16}}}),
                  torn}) +
           Buffer{1, 9, 0, 6, 77, 77} + frame({endless})));
  EXPECT_EQ(references(), (References{{{16, 0, 0, 6}, 1}}));
  const encapd::Routes &routes = feed_->routes();
  EXPECT_EQ(routes.refused(encapd::PathKind::kTooDeep), 1U);
  EXPECT_EQ(routes.refused(encapd::PathKind::kReservedLabel), 2U);
  EXPECT_EQ(routes.refused(encapd::PathKind::kNoInterface), 1U);
  EXPECT_EQ(routes.refused(encapd::PathKind::kMalformed), 1U);
  EXPECT_EQ(routes.refused(encapd::PathKind::kBlackhole), 1U);
  EXPECT_EQ(feed_->counters().other_messages, 2U);
  EXPECT_EQ(feed_->counters().malformed_messages, 3U);
  send(frame({route("10.1.0.0/16", {{{4, 16, 17, 18}}}), route("10.2.0.0/16", {{{16, 4}}})}));
  EXPECT_EQ(routes.refused(encapd::PathKind::kTooDeep), 1U);
  EXPECT_EQ(feed_->counters().paths[static_cast<std::size_t>(encapd::PathKind::kTooDeep)], 1U) << "counted once";
  EXPECT_EQ(routes.refused(encapd::PathKind::kReservedLabel), 1U);
  EXPECT_FALSE(send({2, 1, 0, 8, 0, 0, 0, 0})) << "another version";
  feed_->connected();
  EXPECT_FALSE(send({1, 1, 0, 3})) << "shorter than its header";
}

TEST_F(FeedTest, WhatStaysNeverLeavesTheHardware) {
  char path[] = "/tmp/encapd-events.XXXXXX";
  const int fd = mkstemp(path);
  events_ = encapd::Events(fd);
  const auto lines = [&] {
    const std::string text = content_of(path);
    EXPECT_EQ(ftruncate(fd, 0), 0);
    lseek(fd, 0, SEEK_SET);
    return text;
  };
  const auto count = [](const std::string &text, const char *what) {
    std::size_t found = 0;
    for (std::size_t at = text.find(what); at != text.npos; at = text.find(what, at + 1)) {
      ++found;
    }
    return found;
  };
  start();
  feed_->connected();
  send(frame({route("10.1.0.0/16", {{{100, 200}}})}));
  std::string text = lines();
  EXPECT_NE(text.find(R"("kind":"tunnel","tunnel":10,"event":"entered")"), text.npos) << text;
  EXPECT_NE(text.find(R"("label1":200,"label2":100,"label3":0,"ifh":6,"prefix":"10.1.0.0/16")"), text.npos) << text;
  EXPECT_EQ(count(text, "\n"), 2U);
  send(frame({withdrawal("10.1.0.0/16"), route("10.1.0.0/16", {{{100, 200}}})}));
  send(frame({withdrawal("10.1.0.0/16"), route("10.1.0.0/16", {{{100, 200}, 6}, {{100, 201}, 6}})}));
  text = lines();
  EXPECT_EQ(count(text, "\n"), 1U) << text;
  send(frame({route("10.1.0.0/16", {{{100, 202}}})}));
  text = lines();
  EXPECT_EQ(count(text, "entered"), 1U) << text;
  EXPECT_EQ(count(text, "\"kind\":\"nh\""), 3U) << text;
  EXPECT_EQ(count(text, "\n"), 3U) << "the tunnel stays: " << text;
  EXPECT_LT(text.find("entered"), text.find("left"));

  // A new connection on which the route does not come again, and the same after a restart.
  feed_->connected();
  send(frame({route("10.2.0.0/16", {{{100, 203}}})}));
  pass(30s);
  text = lines();
  EXPECT_EQ(count(text, "\n"), 2U) << text;
  EXPECT_NE(text.find(R"("event":"left")"), text.npos) << text;
  EXPECT_NE(text.find(R"("label1":202,"label2":100,"label3":0,"ifh":6,"prefix":"10.1.0.0/16")"), text.npos) << text;
  restart();
  feed_->connected();
  send(frame({route("10.3.0.0/16", {{{16}}})}));
  lines();
  pass(30s);
  text = lines();
  EXPECT_EQ(count(text, "\n"), 2U) << text;
  EXPECT_NE(text.find(R"("label1":203,"label2":100,"label3":0,"ifh":6,"prefix":null)"), text.npos) << text;
  ::close(fd);
  unlink(path);
}

TEST_F(FeedTest, StaleReferencesGoWhenTheRouterIsComplete) {
  start();
  const Buffer first = frame({object(8, {{100}}), named("10.1.0.0/16", 8), route("10.2.0.0/16", {{{200}}})});
  const References both{{{100, 0, 0, 6}, 1}, {{200, 0, 0, 6}, 1}};
  feed_->connected();
  send(first);
  pass(30s);
  EXPECT_TRUE(feed_->holder().is_settled());
  feed_->disconnected();
  pass(1h);
  EXPECT_EQ(references(), both) << "a lost connection changes nothing";
  EXPECT_EQ(stale(), 0U);

  // The connection is lost before the router is complete, again and again, and encapd dies as well.
  for (int i = 0; i < 3; ++i) {
    feed_->connected();
    pass(1h);
    EXPECT_FALSE(feed_->holder().is_settled()) << "a router that has sent nothing is not complete";
    send(frame({route("10.2.0.0/16", {{{200}}})}));
    EXPECT_EQ(stale(), 1U);
    feed_->disconnected();
    pass(1h);
    EXPECT_FALSE(feed_->settle());
    EXPECT_EQ(references(), both);
    restart();
    EXPECT_EQ(stale(), 2U);
  }
  // Each message puts the end off.
  feed_->connected();
  send(frame({route("10.2.0.0/16", {{{200}}}), route("10.3.0.0/16", {{{200}}})}));
  pass(29s);
  send(frame({withdrawal("10.3.0.0/16")}));
  pass(29s);
  EXPECT_EQ(references(), both);
  pass(1s);
  EXPECT_EQ(references(), (References{{{200, 0, 0, 6}, 1}}));
  expect_sound();

  feed_.reset();
  close(client_);
  start(std::nullopt);
  feed_->connected();
  send(frame({route("10.9.0.0/16", {{{900}}})}));
  pass(24h);
  EXPECT_EQ(stale(), 1U) << "never, until it is said";
  EXPECT_TRUE(feed_->settle());
  EXPECT_EQ(references(), (References{{{900, 0, 0, 6}, 1}}));
}

TEST_F(FeedTest, WhatFindsNoRoomIsEnteredWhenThereIsRoom) {
  config_.nh_size = 2;
  start();
  feed_->connected();
  send(frame({route("10.1.0.0/16", {{{100}}}), route("10.2.0.0/16", {{{200}}}), route("10.3.0.0/16", {{{300}}}),
              route("10.4.0.0/16", {{{300}}}), route("10.5.0.0/16", {{{100}}})}));
  EXPECT_EQ(references(), (References{{{100, 0, 0, 6}, 2}, {{200, 0, 0, 6}, 1}}));
  EXPECT_EQ(feed_->counters().no_room, 2U);
  pass(1s);
  EXPECT_EQ(feed_->counters().no_room, 2U) << "counted once";
  EXPECT_EQ(feed_->holder().wanted() - feed_->holder().held(), 2U);
  send(frame({withdrawal("10.4.0.0/16"), route("10.2.0.0/16", {{{300}}})}));
  EXPECT_EQ(references(), (References{{{100, 0, 0, 6}, 2}, {{300, 0, 0, 6}, 2}})) << "in the place of what it replaces";
  // What another client gives back is room, too.
  encap_client_t *const other = client("other");
  send(frame({withdrawal("10.1.0.0/16"), withdrawal("10.5.0.0/16")}));
  const std::uint32_t nh = enter(other, test_support::key(999)).nh;
  send(frame({route("10.6.0.0/16", {{{600}}})}));
  EXPECT_EQ(references(), (References{{{300, 0, 0, 6}, 2}}));
  release(other, nh);
  pass(1s);
  EXPECT_EQ(references(), (References{{{300, 0, 0, 6}, 2}, {{600, 0, 0, 6}, 1}}));
  // What is stale has the room until the router is complete.
  feed_->connected();
  send(frame({route("10.8.0.0/16", {{{800}}}), route("10.3.0.0/16", {{{300}}})}));
  EXPECT_EQ(feed_->holder().held(), 1U);
  pass(30s);
  EXPECT_EQ(references(), (References{{{300, 0, 0, 6}, 1}, {{800, 0, 0, 6}, 1}}));
  expect_sound();
}

TEST_F(FeedTest, ThoseThatWaitTakeTurnsAndNoTickTriesAll) {
  constexpr std::uint32_t kWaiting = 5000;
  constexpr std::uint32_t kTriesAtTick = 4096;
  config_.nh_size = 1;
  start();
  encap_client_t *const other = client("other");
  const std::uint32_t only = enter(other, test_support::key(999)).nh;
  feed_->connected();
  for (std::uint32_t i = 0; i < kWaiting; ++i) {
    send(frame({route(prefix_number(i), {{{1000 + i}}})}));
  }
  EXPECT_EQ(info_of_encapd(client_).refused, kWaiting);
  feed_->tick(now_);
  EXPECT_EQ(info_of_encapd(client_).refused, kWaiting + kTriesAtTick);
  EXPECT_EQ(feed_->counters().no_room, kWaiting);
  release(other, only);
  feed_->tick(now_);
  EXPECT_EQ(references(), (References{{{1000 + kTriesAtTick, 0, 0, 6}, 1}})) << "the first one that had no turn";
  EXPECT_EQ(feed_->holder().wanted() - feed_->holder().held(), kWaiting - 1U);
  expect_sound();
}

TEST_F(FeedTest, WhatFindsNoMemoryIsEnteredWhenThereIsSome) {
  config_.nh_size = 2000;
  config_.tun_size = 2000;
  config_.size = 72 * 4096;  // less than the nodes, the slots and the ledger need
  start();
  feed_->connected();
  References all;
  for (std::uint32_t i = 0; i < 2000; ++i) {
    send(frame({route(prefix_number(i), {{{1000 + i, 16 + i}}})}));
    all[{16 + i, 1000 + i, 0, 6}] = 1;
  }
  const std::uint64_t waiting = feed_->holder().wanted() - feed_->holder().held();
  EXPECT_GT(waiting, 10U);
  EXPECT_EQ(feed_->counters().no_memory, waiting);
  EXPECT_EQ(references().size(), 2000 - waiting);
  expect_sound();
  for (std::uint32_t i = 0; i < 1500; ++i) {
    send(frame({withdrawal(prefix_number(i))}));
    all.erase({16 + i, 1000 + i, 0, 6});
  }
  pass(1s);
  EXPECT_EQ(references(), all);
  expect_sound();
}

}  // namespace
}  // namespace encapd_tests
