// The reader of route files: the forms in which routes are printed, and each refusal.
#include "route_file.h"

#include <gtest/gtest.h>

#include <cstring>
#include <sstream>
#include <string>
#include <vector>

namespace route_file {
namespace {

RouteFile read(const std::string &text) {
  std::istringstream in(text);
  return read_routes(in);
}

std::vector<std::string> sentences(const RouteFile &file) {
  std::vector<std::string> all;
  for (const Fault &fault : file.faults) {
    all.push_back(sentence(fault));
  }
  return all;
}

using Sentences = std::vector<std::string>;

// One hop a line: its prefix, stack and interface.
std::vector<std::string> hops_of(const RouteFile &file) {
  std::vector<std::string> all;
  for (const Hop &hop : file.hops) {
    all.push_back(hop.prefix + " " + stack_text(hop) + " " + hop.dev);
  }
  return all;
}

TEST(RouteFileTest, StackIsReadFromTheTopIntoTheKeyFromTheBottom) {
  const struct {
    const char *line;
    bool on_null_tunnel;
    std::uint32_t key[5];  // out_label1, te_local_label..., out_label2, out_label3, ifh: every other bit is 0
  } cases[] = {
      {"10.1.0.0/24  encap mpls  100/200/16001 via 192.0.2.1 dev eth1 ", false, {16001, 0, 200, 100, 0x01000000}},
      {"198.51.100.1 encap mpls 1048575 via 192.0.2.1 dev eth0", true, {kMaxLabel, 0, 0, 0, 0x01000000}},
      {"198.51.100.2 encap mpls 24001/0 via 192.0.2.1 dev eth0", false, {0, 0, 24001, 0, 0x01000000}},
  };
  for (const auto &[line, null_tunnel, words] : cases) {
    const RouteFile file = read(line);
    ASSERT_EQ(sentences(file), Sentences{}) << line;
    ASSERT_EQ(file.hops.size(), 1u) << line;
    EXPECT_EQ(file.hops[0].via, "192.0.2.1");
    EXPECT_EQ(on_null_tunnel(file.hops[0]), null_tunnel) << line;
    const egress_encap_key_t key = key_of(file.hops[0]);
    EXPECT_EQ(std::memcmp(&key, words, sizeof words), 0) << line;
  }
}

TEST(RouteFileTest, EveryPrintedAttributeIsReadOver) {
  const char *const lines[] = {
      "10.0.0.1/32  encap mpls  16001 via 192.0.2.1 dev eth1 ",
      ("unicast 10.0.0.0/24 nhid 41  encap mpls  16001 ttl 64 via 192.0.2.1 dev eth1 table 100 proto bgp scope global "
       "src 198.51.100.9 metric 20 onlink rt_offload mtu lock 1400 advmss 1360 hoplimit 64 rtt 10ms initcwnd 10 "),
      "10.0.0.0/24  encap mpls  16001 via inet6 fe80::1 dev eth1 proto static dead linkdown \r",
      "2001:db8:1::1/128  encap mpls  16001 via fe80::1 dev eth1 proto bgp metric 1024 expires 86sec pref medium",
      "default  encap mpls  16001 via inet 192.0.2.1 dev eth1 ttl-propogate enabled",
      "\t 198.51.100.7 encap mpls 16001 dev eth1 realm 3 congctl lock cubic features ecn",
  };
  for (const char *line : lines) {
    const RouteFile file = read(line);
    EXPECT_EQ(sentences(file), Sentences{}) << line;
    ASSERT_EQ(file.hops.size(), 1u) << line;
    EXPECT_TRUE(hops_of(file)[0].ends_with(" 16001 eth1")) << line;
  }
}

TEST(RouteFileTest, EachLabelledNextHopOfAMultipathRouteIsAUser) {
  const std::string route =
      "10.2.0.0/24 proto bgp metric 20 \n"
      "\tnexthop  encap mpls  24001/16001 via 192.0.2.1 dev eth1 weight 1 \n"
      "\tnexthop via 192.0.2.5 dev eth9 weight 1 \n"
      "\tnexthop  encap mpls  24002/16001 via inet6 fe80::1 dev eth2 weight 2 onlink \n"
      "10.3.0.0/24 via 192.0.2.1 dev eth1 \n";
  std::string one_line = route;
  one_line.replace(one_line.find(" \n\tnext"), 2, " \\");
  for (const std::string &text : {route, one_line}) {
    const RouteFile file = read(text);
    EXPECT_EQ(sentences(file), Sentences{});
    ASSERT_EQ(hops_of(file), (Sentences{"10.2.0.0/24 24001/16001 eth1", "10.2.0.0/24 24002/16001 eth2"}));
    EXPECT_EQ(file.hops[1].via, "fe80::1");
    EXPECT_EQ(file.hops[1].route, file.hops[0].route);
    EXPECT_EQ(file.labelled_routes, 1u);
    EXPECT_EQ(file.plain_routes, 1u);
  }
}

TEST(RouteFileTest, RoutesWithoutMplsAreSkippedAndHandlesFollowTheFirstAcceptedHop) {
  const RouteFile file = read(
      "# the main table\n"
      "\n"
      "default via 192.0.2.1 dev eth0 proto static metric 100 \n"
      "blackhole 10.255.0.0/16 proto bgp metric 20 \n"
      "10.8.0.0/16  encap ip id 7 src 192.0.2.2 dst 192.0.2.1 ttl 0 tos 0 via 192.0.2.1 dev eth1 \n"
      "10.9.0.0/16 proto bgp \n"
      "\tnexthop via 192.0.2.1 dev eth1 weight 1 \n"
      "\tnexthop via 192.0.2.5 dev eth2 weight 1 \n"
      "10.0.1.0/24 encap mpls 1048576 dev eth8\n"
      "10.0.2.0/24 encap mpls 100 dev eth2\n"
      "10.0.3.0/24 encap mpls 100 dev eth1\n"
      "10.0.4.0/24 encap mpls 200 dev eth2\n");
  EXPECT_EQ(sentences(file), Sentences{"line 9: label 1048576 is past 20 bits"});
  EXPECT_EQ(file.plain_routes, 4u);
  EXPECT_EQ(file.labelled_routes, 3u);
  EXPECT_EQ(file.interfaces, (std::vector<std::string>{"eth2", "eth1"}));
  ASSERT_EQ(file.hops.size(), 3u);
  EXPECT_EQ(file.hops[0].ifh, kFirstIfh);
  EXPECT_EQ(file.hops[1].ifh, kFirstIfh + 1);
  EXPECT_EQ(file.hops[2].ifh, kFirstIfh);
}

TEST(RouteFileTest, EachBadLineGetsOneSentence) {
  const std::pair<const char *, const char *> cases[] = {
      {"10.0.0.0/24 encap mpls 1048576 dev eth1", "label 1048576 is past 20 bits"},
      {"10.0.0.0/24 encap mpls 99999999999/5 dev eth1", "label 99999999999 is past 20 bits"},
      {"10.0.0.0/24 encap mpls 100/x2 dev eth1", "label 'x2' is no number"},
      {"10.0.0.0/24 encap mpls -1 dev eth1", "label '-1' is no number"},
      {"10.0.0.0/24 encap mpls 100//200 dev eth1", "a label is missing between slashes"},
      {"10.0.0.0/24 encap mpls 100/ dev eth1", "a label is missing between slashes"},
      {"10.0.0.0/24 encap mpls 3 dev eth1", "label 3 is the implicit null, which never stands in a stack"},
      {"10.0.0.0/24 encap mpls 0/100 dev eth1",
       "label 0 is the explicit null, which stands at the bottom of a stack only"},
      {"10.0.0.0/24 encap mpls 1/2/4/5 dev eth1", "a stack of 4 labels is past the three that an encapsulation has"},
      {"10.0.0.0/24 encap mpls", "no labels behind 'encap mpls'"},
      {"10.0.0.0/24 encap mpls 100 via 192.0.2.1", "a labelled next hop needs an interface: 'dev' is missing"},
      {"10.0.0.0/24 encap mpls 100 dev", "no value behind 'dev'"},
      {"10.0.0.0/24 encap mpls 100 dev eth1 mtu lock", "no value behind 'mtu'"},
      {"10.0.0.0/24 encap mpls 100 via inet6 dev eth1", "gateway 'dev' is no address"},
      {"10.0.0.0/24 encap mpls 100 dev eth1 colour blue", "'colour' is no attribute of a route"},
      {"10.0.0.0/33 encap mpls 100 dev eth1",
       "'10.0.0.0/33' is no destination: neither an address, a prefix, a label nor 'default'"},
      {"2001:db8::/129 via fe80::1",
       "'2001:db8::/129' is no destination: neither an address, a prefix, a label nor 'default'"},
      {"nexthop encap mpls 100 dev eth1", "a next hop without a route above it"},
  };
  for (const auto &[line, reason] : cases) {
    EXPECT_EQ(sentences(read(std::string("\n") + line)), Sentences{std::string("line 2: ") + reason}) << line;
  }
}

// What `ip -f mpls route`, `ip nexthop` and `ip route` print of the same routes, and what each prints with -j.
TEST(RouteFileTest, MplsRoutesAndNextHopObjectsAreReadAsTextAndAsJson) {
  const char *const text =
      "10.0.0.0/24 nhid 42 proto static \n"
      "id 41  encap mpls  200/16001 via 192.0.2.1 dev eth1 scope link proto static \n"
      "id 42 group 41/43,2 proto static \n"
      "id 43  encap mpls  16003 via inet6 fe80::1 dev eth3 \n"
      "id 44 via 192.0.2.1 dev eth1 scope link \n"
      "10.1.0.0/24 nhid 41 proto static \n"
      "10.2.0.0/24 nhid 41  encap mpls  200/16001 via 192.0.2.1 dev eth1 proto static \n"
      "10.3.0.0/24 nhid 44 proto static \n"
      "1000 as to 200/16001 via inet 192.0.2.1 dev eth1 proto static \n"
      "1001 via inet 192.0.2.1 dev eth1 \n"
      "1002 proto static \n"
      "\tnexthop as to 16003 via inet6 fe80::1  dev eth3 weight 1\n"
      "\tnexthop via inet 192.0.2.1  dev eth1 weight 1\n";
  const char *const json =
      R"([{"dst":"10.0.0.0/24","nhid":42,"protocol":"static","flags":[]}]
[{"id":41,"encap":"mpls","dst":"200/16001","gateway":"192.0.2.1","dev":"eth1","scope":"link","flags":[]},
 {"id":42,"group":[{"id":41},{"id":43,"weight":2}],"protocol":"static","flags":[]},
 {"id":43,"encap":{"encap_type":"mpls","dst":"16003"},"via":{"family":"inet6","host":"fe80::1"},"dev":"eth3"},
 {"id":44,"gateway":"192.0.2.1","dev":"eth1","scope":"link","flags":[]}]
[{"dst":"10.1.0.0/24","nhid":41,"protocol":"static","flags":[]},
 {"type":"unicast","dst":"10.2.0.0/24","nhid":41,"encap":"mpls","dst":"200/16001","gateway":"192.0.2.1","dev":"eth1"},
 {"dst":"10.3.0.0/24","nhid":44,"metric":20,"flags":[]}]
[{"dst":1000,"to":"200/16001","via":{"family":"inet","host":"192.0.2.1"},"dev":"eth1","flags":[]},
 {"dst":"1001","via":{"family":"inet","host":"192.0.2.1"},"dev":"eth1","flags":["onlink"]},
 {"dst":"1002","nexthops":[{"to":"16003","via":{"family":"inet6","host":"fe80::1"},"dev":"eth3","weight":1},
                           {"via":{"family":"inet","host":"192.0.2.1"},"dev":"eth1","weight":1,"flags":[]}]}])";
  for (const char *listing : {text, json}) {
    const RouteFile file = read(listing);
    EXPECT_EQ(sentences(file), Sentences{}) << listing;
    EXPECT_EQ(hops_of(file),
              (Sentences{"10.1.0.0/24 200/16001 eth1", "10.2.0.0/24 200/16001 eth1", "1000 200/16001 eth1",
                         "1002 16003 eth3", "10.0.0.0/24 200/16001 eth1", "10.0.0.0/24 16003 eth3"}))
        << listing;
    EXPECT_EQ(file.hops[4].route, file.hops[5].route);
    EXPECT_EQ(file.labelled_routes, 5u);
    EXPECT_EQ(file.plain_routes, 2u);
  }
}

TEST(RouteFileTest, WhatIsNoListingIsRefusedWithinBounds) {
  const std::pair<std::string, const char *> cases[] = {
      {"10.0.0.0/24 nhid 7 proto static", "line 1: next-hop object '7' is listed nowhere: `ip nexthop` prints it"},
      {std::string(30u << 20, 'x'), "line 1: it is longer than 1048576 bytes"},
      {std::string(900, 'x'), "is no destination"},
      {"[{\"dst\":\"10.0.0.0/24\",", "JSON: it is cut off or no JSON at byte"},
      {std::string(1000, '['), "JSON: it nests deeper than `ip -j` does"},
      {"[{\"dst\":\"10.0.0.0/24\",\"encap\":\"mpls\",\"dst\":\"3\",\"dev\":\"eth1\"}]", "route 1: label 3 is"},
  };
  for (const auto &[text, sentence_part] : cases) {
    const RouteFile file = read(text);
    EXPECT_TRUE(file.hops.empty());
    ASSERT_EQ(file.faults.size(), 1u) << sentence_part;
    EXPECT_NE(sentence(file.faults[0]).find(sentence_part), std::string::npos) << sentence(file.faults[0]);
    EXPECT_LT(sentence(file.faults[0]).size(), 200u);
  }
  std::string many;
  for (std::size_t i = 0; i < 2 * kMaxFaults; ++i) {
    many += "rubbish\n";
  }
  EXPECT_EQ(read(many).faults.size(), kMaxFaults);
  EXPECT_EQ(read(many).refused, 2 * kMaxFaults);
}

TEST(RouteFileTest, ABadLineTakesNothingElseWithIt) {
  const RouteFile file = read(
      "10.0.0.0/24 encap mpls 100 dev eth1\n"
      "10.0.1.0/24 proto bgp\n"
      "\tnexthop encap mpls 1048576 dev eth1 weight 1\n"
      "\tnexthop encap mpls 101 dev eth1 weight 1\n"
      "rubbish proto bgp\n"
      "\tnexthop encap mpls 102 dev eth1 weight 1\n"
      "10.0.2.0/24 encap mpls nothing dev eth1\n"
      "10.0.3.0/24 encap mpls 103 dev eth1\n");
  EXPECT_EQ(sentences(file),
            (Sentences{"line 3: label 1048576 is past 20 bits",
                       "line 5: 'rubbish' is no destination: neither an address, a prefix, a label nor "
                       "'default'",
                       "line 7: label 'nothing' is no number"}));
  ASSERT_EQ(hops_of(file), (Sentences{"10.0.0.0/24 100 eth1", "10.0.1.0/24 101 eth1", "10.0.3.0/24 103 eth1"}));
  EXPECT_EQ(file.hops[2].route, 2u);
  EXPECT_EQ(file.labelled_routes, 3u);
  EXPECT_EQ(file.plain_routes, 0u);
}

}  // namespace
}  // namespace route_file
