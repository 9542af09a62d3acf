// The verbs that read: what they print of a sound database, and their exit statuses.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "encapctl_fixture.h"

namespace encapctl_test {
namespace {

using Numbers = std::vector<int>;

Numbers column(const Outcome &run, const char *field) {
  Numbers all;
  for (const Json &object : run.objects()) {
    all.push_back(object.at(field).get<int>());
  }
  return all;
}

TEST_F(EncapctlTest, ShowNhsFiltersAndSorts) {
  make_database();
  const auto nhs = [&](std::vector<std::string> words) {
    words.insert(words.begin(), {"show", "nhs", "--json"});
    return column(on_window(words), "nh");
  };
  EXPECT_EQ(nhs({}), (Numbers{1001, 1002, 1003, 1004}));
  EXPECT_EQ(nhs({"--tunnel", "101"}), (Numbers{1001, 1002}));
  EXPECT_EQ(nhs({"--tunnel", "0"}), (Numbers{1004}));
  EXPECT_EQ(nhs({"--ifh", "0x11"}), (Numbers{1003}));
  EXPECT_EQ(nhs({"--label", "16001"}), (Numbers{1001, 1003}));
  EXPECT_EQ(nhs({"--label", "200"}), (Numbers{1001, 1002, 1003}));
  EXPECT_EQ(nhs({"--label", "300"}), (Numbers{1003}));
  EXPECT_EQ(nhs({"--index", "1002"}), (Numbers{1002}));
  EXPECT_EQ(nhs({"--min-ref", "2", "--max-ref", "5"}), (Numbers{1001, 1002}));
  const Outcome cut = on_window({"show", "nhs", "--json", "--sort", "ref", "--reverse", "--limit", "3"});
  EXPECT_EQ(column(cut, "nh"), (Numbers{1004, 1002, 1001}));
  EXPECT_EQ(cut.closing().at("matched"), 4);
  EXPECT_EQ(cut.closing().at("stillness"), "still");
  EXPECT_EQ(nhs({"--sort", "tunnel"}), (Numbers{1004, 1001, 1002, 1003}));
  EXPECT_EQ(nhs({"--valid", "no"}).size(), kNhSize - 4);
  EXPECT_EQ(nhs({"--valid", "all"}).size(), kNhSize);
  EXPECT_EQ(on_window({"show", "nhs", "--index", "1005"}).status, 1);

  const Json nh = json_of({"show", "nhs", "--index", "1003"});
  const Json wanted = {{"nh", 1003},     {"valid", true},    {"in_tree", true}, {"tunnel", 102},
                       {"ref_count", 1}, {"ifh", 0x11},      {"label1", 16001}, {"label2", 200},
                       {"label3", 300},  {"seed_nh", 11003}, {"kind", "nh"}};
  for (const auto &[field, value] : wanted.items()) {
    EXPECT_EQ(nh.at(field), value) << field;
  }
}

TEST_F(EncapctlTest, ShowTunnelsCountsTheirNhs) {
  make_database();
  const Outcome run = on_window({"show", "tunnels", "--json", "--sort", "nhs", "--reverse"});
  EXPECT_EQ(column(run, "tunnel"), (Numbers{101, 0, 102})) << "in key order where counts are equal";
  EXPECT_EQ(column(run, "nhs"), (Numbers{2, 1, 1}));
  EXPECT_EQ(column(run, "ref_count"), (Numbers{2, 1, 1}));
}

TEST_F(EncapctlTest, SummaryCounts) {
  make_database();
  const Json sum = json_of({"summary"});
  EXPECT_EQ(sum.at("nhs"), (Json{{"used", 4}, {"free", kNhSize - 4}, {"references", 15}}));
  EXPECT_EQ(sum.at("tunnels"), (Json{{"used", 2}, {"free", kTunSize - 2}}));
  EXPECT_EQ(sum.at("null_tunnel"), (Json{{"entries", 1}, {"nhs", 1}, {"ref_count", 1}}));
  EXPECT_EQ(sum.at("reference_counts"),
            Json::parse(R"([{"low":0,"high":0,"count":0},{"low":1,"high":1,"count":1},{"low":2,"high":3,"count":1},
                            {"low":4,"high":7,"count":2}])"));
  EXPECT_EQ(sum.at("heap").at("nodes40"), 4);
  EXPECT_EQ(sum.at("heap").at("nodes56"), 3);
  EXPECT_EQ(sum.at("heap").at("arrays"), 2);
  EXPECT_TRUE(has(on_window({"summary"}).out, "4 in use, 60 free of 64; 15 references"));
}

TEST_F(EncapctlTest, FindTellsOfAnEncapsulationAndItsRecords) {
  make_database();
  const Json nh =
      on_window({"find", "label1=16001", "label2=200", "label3=300", "ifh=0x11", "--json", "--all-traces"}).object();
  EXPECT_EQ(nh.at("nh"), 1003);
  EXPECT_EQ(nh.at("egress").at("tunnel"), 102);
  ASSERT_FALSE(nh.at("records").empty());
  for (const Json &record : nh.at("records")) {
    EXPECT_EQ(record.at("nh"), 1003);
  }
  EXPECT_EQ(on_window({"find", "label1=16001", "--json"}).objects().size(), 2u) << "what is not named may be anything";
  const Outcome by_index = on_window({"find", "nh=1002", "--all-traces"});
  EXPECT_EQ(by_index.status, 0);
  EXPECT_TRUE(has(by_index.out, "vrl_mem_increment_egr_nh_ref_count validNH index 1002 refcount 5"));
  const Json tunnel = json_of({"find", "tun=101"});
  EXPECT_EQ(tunnel.at("nh_indexes"), Json({1001, 1002}));
}

TEST_F(EncapctlTest, FindTellsWhatIsNotThereFromWhatIsNoKey) {
  make_database();
  EXPECT_EQ(on_window({"find", "label1=99"}).status, 1);
  const Outcome free = on_window({"find", "nh=1040"});
  EXPECT_EQ(free.status, 1);
  EXPECT_TRUE(has(free.out, "NH 1040: free"));
  const Outcome outside = on_window({"find", "nh=5"});
  EXPECT_EQ(outside.status, 2);
  EXPECT_TRUE(has(outside.err, "out of the range 1000 to 1063"));
  for (const char *term : {"label9=1", "nh", "nh=", "nh=x", "nh=0x", "nh=1x", "nh=99999999999", "=1", ""}) {
    const Outcome run = on_window({"find", term});
    EXPECT_EQ(run.status, 2) << term;
    EXPECT_TRUE(has(run.err, "is no KEY")) << term;
  }
}

TEST_F(EncapctlTest, SnapshotHoldsWhatTheWindowHolds) {
  make_database();
  const std::string file = path() + ".snap";
  ASSERT_EQ(on_window({"snapshot", file}).status, 0);
  struct stat status {};
  ASSERT_EQ(stat(file.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777u, 0600u);
  EXPECT_LT(status.st_blocks * 512, status.st_size) << "what the window does not use takes no space";
  for (const std::vector<std::string> &words :
       {std::vector<std::string>{"show", "nhs", "--json"}, {"show", "tunnels", "--json"}}) {
    std::vector<std::string> from_file = words;
    from_file.insert(from_file.end(), {"--file", file});
    EXPECT_EQ(encapctl(from_file).objects(), on_window(words).objects());
  }
  EXPECT_TRUE(has(on_window({"snapshot", file}).err, "is there already"));
  EXPECT_EQ(on_window({"snapshot", file, "--force"}).status, 0);
  EXPECT_EQ(encapctl({"status", "--file", file}).status, 0);
  EXPECT_EQ(encapctl({"check", "--file", file}).status, 0);
  EXPECT_EQ(encapctl({"summary", "--file", file + ".none"}).status, 2);
}

// A snapshot takes the place of an ordinary file alone, and copies nothing but windows.
TEST_F(EncapctlTest, SnapshotReplacesNeitherTheWindowNorWhatIsNoFile) {
  make_database();
  const std::vector<char> before = bytes();
  const std::string link = path() + ".link";
  const std::string device = path() + ".device";
  ASSERT_EQ(symlink(path().c_str(), link.c_str()), 0);
  ASSERT_EQ(mkfifo(device.c_str(), 0600), 0);
  struct stat window {};
  ASSERT_EQ(stat(path().c_str(), &window), 0);
  EXPECT_TRUE(has(on_window({"snapshot", path(), "--force"}).err, "is the window itself"));
  EXPECT_TRUE(has(on_window({"snapshot", directory() + "/./" + name_, "--force"}).err, "is the window itself"));
  EXPECT_TRUE(has(on_window({"snapshot", link, "--force"}).err, "is no regular file"));
  EXPECT_EQ(encapctl({"status", "--dir", directory(), "--name", name_ + ".link"}).status, 2) << "another user can link";
  EXPECT_EQ(encapctl({"status", "--file", link}).status, 0);
  EXPECT_TRUE(has(encapctl({"status", "--file", device}).err, "is no regular file"));
  EXPECT_TRUE(has(on_window({"snapshot", device, "--force"}).err, "is no regular file"));
  struct stat now {};
  ASSERT_EQ(stat(path().c_str(), &now), 0);
  EXPECT_EQ(now.st_ino, window.st_ino) << "its processes and the next one use the same window";
  EXPECT_EQ(bytes(), before);
  put_bytes(std::vector<char>(20000, 'x'));
  const Outcome text = on_window({"snapshot", path() + ".snap"});
  EXPECT_EQ(text.status, 2);
  EXPECT_TRUE(has(text.err, "is no window"));
}

TEST_F(EncapctlTest, ReadingWritesNothing) {
  make_database();
  const std::vector<char> before = bytes();
  chmod(path().c_str(), 0400);
  for (const char *verb : {"status", "summary", "check"}) {
    EXPECT_EQ(on_window({verb}).status, 0) << verb;
  }
  EXPECT_EQ(bytes(), before);
}

}  // namespace
}  // namespace encapctl_test
