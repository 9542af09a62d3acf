// Clients in the command: who holds what, listings entered as a client, and what dead clients held given back.
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <map>
#include <regex>

#include "encap_client.h"
#include "encapctl_fixture.h"

namespace encapctl_test {
namespace {

class EncapctlClientsTest : public EncapctlTest {
 protected:
  // A process that is a client of this name, with one reference on 16001 and two on 16002.
  Child daemon(const char *name) const {
    return fork_child([this, name](const Ready &) {
      encap_client_t *const client = open_client(name);
      for (const std::uint32_t label : {16001U, 16002U, 16002U}) {
        ASSERT_EQ(encap_client_enter(client, key_of(0x1000000, label, 200, 0), nullptr, nullptr), 0);
      }
    });
  }

  Json client(const std::string &name) const {
    for (const Json &object : on_window("clients --json").objects()) {
      if (object.at("name") == name) {
        return object;
      }
    }
    return {};
  }

  Json load_as_lab(const std::string &routes) const { return json_of("load " + listing(routes) + " --client lab"); }

  // The count and the holders of the NH with this bottom label.
  std::string held(const std::string &label) const {
    const Json object = on_window("find label1=" + label + " --json").objects().at(0);
    return object.at("ref_count").dump() + object.at("holders").dump();
  }
};

TEST_F(EncapctlClientsTest, AnNhTellsWhoHoldsIt) {
  make_database();
  Child child = daemon("bgpd");
  open_database();
  ASSERT_EQ(vrl_find_and_share_egress_nh(on_window("find label1=16002 --json").objects().at(0).at("nh")), 0);
  close_database();
  EXPECT_EQ(held("16002"), R"(3[{"held":2,"name":"bgpd","stale":0}])");
  EXPECT_TRUE(has(on_window("find label1=16002").out, "bgpd 2, no client 1"));
  EXPECT_TRUE(has(on_window("show nhs --index 1002").out, "no client 5"));
  EXPECT_TRUE(says(client("bgpd"), {{"state", "alive"}, {"pid", Json::parse(child.pid())}, {"held", 3}}));
  EXPECT_EQ(client("bgpd").at("calls").at("entered"), 3);
  child.kill();
  EXPECT_EQ(client("bgpd").at("state"), "dead");
  EXPECT_TRUE(has(on_window("clients").out, "bgpd"));
  EXPECT_EQ(on_window("check").status, 0);
}

TEST_F(EncapctlClientsTest, OnlyALiveDaemonIsTold) {
  make_database();
  int told[2];
  ASSERT_EQ(pipe(told), 0);
  static int tell;
  tell = told[1];
  Child child = fork_child([this](const Ready &) {
    std::signal(SIGUSR1, [](int) { static_cast<void>(!write(tell, "x", 1)); });
    open_client("fpm");
  });
  close(told[1]);
  EXPECT_EQ(json_of("settle fpm").at("pid").dump(), child.pid());
  char byte = 0;
  EXPECT_EQ(read(told[0], &byte, 1), 1);
  child.kill();
  close(told[0]);
  EXPECT_TRUE(has(on_window("settle fpm").err, "no process that is alive"));
  EXPECT_EQ(on_window("settle bgpd").status, 2);
  const Child plain = daemon("bgpd");
  EXPECT_TRUE(has(on_window("settle bgpd").err, "does not expect SIGUSR1"));
  EXPECT_EQ(client("bgpd").at("state"), "alive");
}

// The file lies where others may write: it counts only when it is a plain file that names the client's process.
TEST_F(EncapctlClientsTest, ADaemonsOwnStatusIsShown) {
  make_database();
  const Child child = daemon("fpm");
  const std::string file = path() + ".fpm.status";
  const auto write_status = [&](const std::string &at, const std::string &pid) {
    std::ofstream(at) << R"({"schema":"encapd/1","kind":"status","pid":)" << pid
                      << R"(,"connected":true,"settled":false,"routes":5000,"messages":10002,"lag_us":310,)"
                      << R"("refusals":{"too_deep":3,"no_room":0},"refused_now":{"too_deep":1}})";
  };
  EXPECT_TRUE(client("fpm").at("daemon").is_null());
  write_status(file, child.pid());
  EXPECT_EQ(client("fpm").at("daemon").at("routes"), 5000);
  EXPECT_TRUE(
      has(on_window("clients").out,
          "fpm: a router is connected, not settled; 5000 routes, 10002 messages, lag 310 us; refused: too_deep 3"));
  const std::string metrics = on_window("metrics").out;
  EXPECT_TRUE(has(metrics, "encapd_messages_total{client=\"fpm\"} 10002\n"));
  EXPECT_TRUE(has(metrics, "encapd_refusals_total{client=\"fpm\",reason=\"too_deep\"} 3\n"));
  EXPECT_TRUE(has(metrics, "encapd_refused_paths{client=\"fpm\",reason=\"too_deep\"} 1\n"));
  write_status(file, "1");
  EXPECT_TRUE(client("fpm").at("daemon").is_null());
  std::ofstream(file) << "{";
  EXPECT_TRUE(client("fpm").at("daemon").is_null());
  unlink(file.c_str());
  write_status(file + ".elsewhere", child.pid());
  ASSERT_EQ(symlink((file + ".elsewhere").c_str(), file.c_str()), 0);
  EXPECT_TRUE(client("fpm").at("daemon").is_null());
  unlink(file.c_str());
  unlink((file + ".elsewhere").c_str());
}

// Each sample belongs to the family that was announced last, and the text ends as it must.
TEST_F(EncapctlClientsTest, MetricsAreOpenMetricsText) {
  make_database();
  const Child child = daemon("bgpd");
  const Outcome run = on_window("metrics");
  ASSERT_EQ(run.status, 0);
  std::istringstream lines(run.out);
  std::map<std::string, std::string> samples;
  std::string family, type, line;
  while (std::getline(lines, line) && line != "# EOF") {
    const std::regex announced("# (TYPE|HELP) ([a-z_]+) (.+)");
    const std::regex sample(R"re(([a-z_]+)(\{[a-z]+="[^"]*"(,[a-z]+="[^"]*")*\})? ([0-9.e+-]+))re");
    std::smatch match;
    if (std::regex_match(line, match, announced)) {
      type = match[1] == "TYPE" ? match[3].str() : type;
      EXPECT_TRUE(match[1] == "TYPE" || family == match[2]) << line;
      family = match[2];
    } else {
      ASSERT_TRUE(std::regex_match(line, match, sample)) << line;
      EXPECT_EQ(match[1], family + (type == "counter" ? "_total" : ""));
      EXPECT_TRUE(samples.emplace(match[1].str() + match[2].str(), match[4]).second) << line;
    }
  }
  EXPECT_EQ(line, "# EOF");
  EXPECT_FALSE(std::getline(lines, line));
  EXPECT_EQ(samples["encap_nhs"], "6");
  EXPECT_EQ(samples["encap_references"], "18");
  EXPECT_EQ(samples["encap_client_up{client=\"bgpd\"}"], "1");
  EXPECT_EQ(samples["encap_client_references{client=\"bgpd\"}"], "3");
  EXPECT_EQ(samples["encap_client_calls_total{client=\"bgpd\",call=\"entered\"}"], "3");
}

TEST_F(EncapctlClientsTest, AListingIsEnteredAnewAndTakenBack) {
  const std::string first = "10.0.0.0/24 encap mpls 200/16001 dev eth1\n10.0.1.0/24 encap mpls 200/16002 dev eth1\n";
  EXPECT_EQ(load_as_lab(first).at("new_nhs"), 2);
  EXPECT_TRUE(says(load_as_lab(first), {{"renewed", 2}, {"given_back", 0}}));
  const Json changed =
      load_as_lab("10.0.0.0/24 encap mpls 200/16001 dev eth1\n10.0.2.0/24 encap mpls 200/16003 dev eth1\n");
  EXPECT_TRUE(says(changed, {{"renewed", 1}, {"new_nhs", 1}, {"given_back", 1}}));
  EXPECT_EQ(on_window("find label1=16002").status, 1);
  EXPECT_EQ(client("lab").at("state"), "closed");
  EXPECT_EQ(on_window("unload --client nobody").status, 1);
  EXPECT_TRUE(says(json_of("unload --client lab"), {{"references", 2}, {"tunnels_left", 1}}));
  EXPECT_EQ(client("lab"), Json{});
  EXPECT_EQ(json_of("summary").at("nhs").at("used"), 0);
}

TEST_F(EncapctlClientsTest, WhatTheDeadHeldIsReclaimed) {
  EXPECT_EQ(on_window("reclaim bgpd").status, 2) << "there is no database, and none is made";
  EXPECT_NE(access(path().c_str(), F_OK), 0);
  make_database();
  Child first = daemon("bgpd"), second = daemon("ospfd");
  EXPECT_TRUE(ended(on_window("reclaim bgpd"), 2, "the process of client 'bgpd' lives"));
  EXPECT_EQ(on_window("reclaim --dead").status, 1);
  first.kill();
  EXPECT_EQ(on_window("reclaim --dead --older-than 1h").status, 1) << "it died just now";
  EXPECT_TRUE(
      says(json_of("reclaim --dead --older-than 0s"), {{"client", "bgpd"}, {"references", 3}, {"nhs_left", 0}}));
  second.kill();
  EXPECT_EQ(json_of("reclaim ospfd").at("nhs_left"), 2);
  EXPECT_EQ(on_window("reclaim ospfd").status, 2);
  for (const std::string words : {"-1s", "5", "99999999999999999999s", "5parsecs"}) {
    EXPECT_EQ(on_window("reclaim --dead --older-than=" + words).status, 2) << words;
  }
  EXPECT_EQ(on_window("reclaim").status, 2);
  EXPECT_EQ(on_window("clients --json").closing().at("shown"), 0);
  EXPECT_EQ(on_window("check").status, 0);
}

}  // namespace
}  // namespace encapctl_test
