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
  const auto nhs = [&](const std::string &words) { return column(on_window("show nhs --json " + words), "nh"); };
  const std::pair<const char *, Numbers> selections[] = {{"", {1001, 1002, 1003, 1004}},
                                                         {"--tunnel 101", {1001, 1002}},
                                                         {"--tunnel 0", {1004}},
                                                         {"--ifh 0x11", {1003}},
                                                         {"--label 16001", {1001, 1003}},
                                                         {"--label 200", {1001, 1002, 1003}},
                                                         {"--label 300", {1003}},
                                                         {"--index 1002", {1002}},
                                                         {"--min-ref 2 --max-ref 5", {1001, 1002}},
                                                         {"--sort tunnel", {1004, 1001, 1002, 1003}}};
  for (const auto &[words, wanted] : selections) {
    EXPECT_EQ(nhs(words), wanted) << words;
  }
  const Outcome cut = on_window("show nhs --json --sort ref --reverse --limit 3");
  EXPECT_EQ(column(cut, "nh"), (Numbers{1004, 1002, 1001}));
  EXPECT_TRUE(says(cut.closing(), {{"matched", 4}, {"stillness", "still"}}));
  EXPECT_EQ(nhs("--valid no").size(), kNhSize - 4);
  EXPECT_EQ(nhs("--valid all").size(), kNhSize);
  EXPECT_EQ(on_window("show nhs --index 1005").status, 1);
  EXPECT_TRUE(says(json_of("show nhs --index 1003"), Json::parse(R"({
    "kind": "nh", "nh": 1003, "valid": true, "in_tree": true, "tunnel": 102, "ref_count": 1, "ifh": 17,
    "label1": 16001, "label2": 200, "label3": 300, "seed_nh": 11003})")));
}

TEST_F(EncapctlTest, ShowTunnelsAndSummaryCount) {
  make_database();
  const Outcome run = on_window("show tunnels --json --sort nhs --reverse");
  EXPECT_EQ(column(run, "tunnel"), (Numbers{101, 0, 102})) << "in key order where counts are equal";
  EXPECT_EQ(column(run, "nhs"), (Numbers{2, 1, 1}));
  EXPECT_EQ(column(run, "ref_count"), (Numbers{2, 1, 1}));
  const Json sum = json_of("summary");
  EXPECT_TRUE(says(sum, Json::parse(R"({
    "nhs": {"used": 4, "free": 60, "references": 15},
    "tunnels": {"used": 2, "free": 30},
    "null_tunnel": {"entries": 1, "nhs": 1, "ref_count": 1},
    "reference_counts": [{"low": 0, "high": 0, "count": 0}, {"low": 1, "high": 1, "count": 1},
                         {"low": 2, "high": 3, "count": 1}, {"low": 4, "high": 7, "count": 2}]})")));
  EXPECT_TRUE(says(sum.at("heap"), {{"nodes40", 4}, {"nodes56", 3}, {"arrays", 2}}));
  EXPECT_TRUE(has(on_window("summary").out, "4 in use, 60 free of 64; 15 references"));
}

TEST_F(EncapctlTest, FindTellsOfAnEncapsulationAndItsRecords) {
  make_database();
  const Json nh = json_of("find label1=16001 label2=200 label3=300 ifh=0x11 --all-traces");
  EXPECT_EQ(nh.at("nh"), 1003);
  EXPECT_EQ(nh.at("egress").at("tunnel"), 102);
  ASSERT_FALSE(nh.at("records").empty());
  for (const Json &record : nh.at("records")) {
    EXPECT_EQ(record.at("nh"), 1003);
  }
  EXPECT_EQ(on_window("find label1=16001 --json").objects().size(), 2u) << "what is not named may be anything";
  EXPECT_TRUE(ended(on_window("find nh=1002 --all-traces"), 0,
                    "vrl_mem_increment_egr_nh_ref_count validNH index 1002 refcount 5"));
  EXPECT_EQ(json_of("find tun=101").at("nh_indexes"), Json({1001, 1002}));
}

TEST_F(EncapctlTest, FindTellsWhatIsNotThereFromWhatIsNoKey) {
  make_database();
  EXPECT_EQ(on_window("find label1=99").status, 1);
  EXPECT_TRUE(ended(on_window("find nh=1040"), 1, "NH 1040: free"));
  EXPECT_TRUE(ended(on_window("find nh=5"), 2, "out of the range 1000 to 1063"));
  for (const char *term : {"label9=1", "nh", "nh=", "nh=x", "nh=0x", "nh=1x", "nh=99999999999", "=1", ""}) {
    EXPECT_TRUE(ended(encapctl({"find", term, "--dir", directory(), "--name", name_}), 2, "is no KEY")) << term;
  }
}

TEST_F(EncapctlTest, ReadingWritesNothingAndASnapshotHoldsWhatTheWindowHolds) {
  make_database();
  const std::vector<char> before = bytes();
  chmod(path().c_str(), 0400);
  const std::string file = path() + ".snap";
  ASSERT_EQ(on_window("snapshot " + file).status, 0);
  struct stat status {};
  ASSERT_EQ(stat(file.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777u, 0600u);
  EXPECT_LT(status.st_blocks * 512, status.st_size) << "what the window does not use takes no space";
  for (const std::string words : {"show nhs --json", "show tunnels --json"}) {
    EXPECT_EQ(encapctl(split(words + " --file " + file)).objects(), on_window(words).objects());
  }
  for (const std::string verb : {"status", "summary", "check"}) {
    EXPECT_EQ(on_window(verb).status, 0) << verb;
    EXPECT_EQ(encapctl({verb, "--file", file}).status, 0) << verb;
  }
  EXPECT_TRUE(has(on_window("snapshot " + file).err, "is there already"));
  EXPECT_EQ(on_window("snapshot " + file + " --force").status, 0);
  EXPECT_EQ(encapctl({"summary", "--file", file + ".none"}).status, 2);
  EXPECT_EQ(bytes(), before);
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
  EXPECT_TRUE(has(on_window("snapshot " + path() + " --force").err, "is the window itself"));
  EXPECT_TRUE(has(on_window("snapshot " + directory() + "/./" + name_ + " --force").err, "is the window itself"));
  EXPECT_TRUE(has(on_window("snapshot " + link + " --force").err, "is no regular file"));
  EXPECT_EQ(encapctl({"status", "--dir", directory(), "--name", name_ + ".link"}).status, 2) << "another user can link";
  EXPECT_EQ(encapctl({"status", "--file", link}).status, 0);
  EXPECT_TRUE(has(encapctl({"status", "--file", device}).err, "is no regular file"));
  EXPECT_TRUE(has(on_window("snapshot " + device + " --force").err, "is no regular file"));
  struct stat now {};
  ASSERT_EQ(stat(path().c_str(), &now), 0);
  EXPECT_EQ(now.st_ino, window.st_ino) << "its processes and the next one use the same window";
  EXPECT_EQ(bytes(), before);
  put_bytes(std::vector<char>(20000, 'x'));
  EXPECT_TRUE(ended(on_window("snapshot " + path() + ".snap"), 2, "is no window"));
}

}  // namespace
}  // namespace encapctl_test
