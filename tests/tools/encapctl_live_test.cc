// The verbs beside live and dead processes: who is attached, who holds the lock, what may be done then; and load.

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>

#include "encapctl_fixture.h"

namespace encapctl_test {
namespace {

TEST_F(EncapctlTest, StatusTellsWhoHoldsTheLockAndWhoWaits) {
  make_database();
  const Json unused = json_of("status");
  EXPECT_TRUE(says(unused, {{"processes", Json::array()}, {"sound", true}}));
  EXPECT_EQ(unused.at("lock").at("state"), "free");
  EXPECT_EQ(unused.at("database").at("nh_end"), kNhStart + kNhSize);
  Child holder = hold_lock();
  const Json pid = Json::parse(holder.pid());
  const auto user = [&] { return json_of("status").at("processes").at(0); };
  EXPECT_TRUE(says(user(), {{"pid", pid}, {"liveness", "alive"}, {"comm", "encapctl_test"}}));
  EXPECT_TRUE(says(json_of("status").at("lock"), {{"state", "held"}, {"pid", pid}, {"depth", 1}}));
  Child waiter = want_lock();
  const Json waits = await_a_waiter();
  ASSERT_EQ(waits.size(), 1u);
  EXPECT_EQ(waits[0].at("pid").dump(), waiter.pid());
  EXPECT_GT(waits[0].at("waited_ns"), 0);
  EXPECT_TRUE(has(on_window("status").out, "waits        " + waiter.pid()));
  waiter.kill();
  const std::vector<char> copy = bytes();
  holder.kill();
  EXPECT_EQ(user().at("liveness"), "dead");
  EXPECT_EQ(json_of("status").at("lock").at("state"), "held by the dead");
  EXPECT_TRUE(has(on_window("status").out, "left locked by " + holder.pid() + "/" + holder.pid() + " (encapctl_test)"));
  put_bytes(copy);
  EXPECT_EQ(json_of("status").at("lock").at("state"), "lost");
  EXPECT_TRUE(has(on_window("status").out, "encapctl repair makes it anew"));
}

TEST_F(EncapctlTest, ReadingNeedsNoLockAndASnapshotWantsTheMomentAfterIt) {
  make_database();
  Child holder = hold_lock();
  EXPECT_EQ(on_window("show nhs --json").objects().size(), 4u);
  const std::string file = path() + ".snap";
  EXPECT_TRUE(ended(on_window("snapshot " + file + " --patience 0.1"), 2, "was locked"));
  EXPECT_NE(access(file.c_str(), F_OK), 0);
  EXPECT_EQ(json_of("snapshot " + file + " --patience 0 --unsettled").at("consistent"), false);
}

TEST_F(EncapctlTest, DestroyIsRefusedToALiveProcess) {
  make_database();
  EXPECT_EQ(on_window("destroy --name none").status, 2);
  {
    Child child = attach();
    EXPECT_TRUE(ended(on_window("destroy"), 2, "process " + child.pid()));
  }
  EXPECT_EQ(json_of("destroy").at("forced"), false);
  EXPECT_EQ(on_window("status").status, 2) << "it is gone";

  make_database();
  Child child = attach();
  EXPECT_EQ(on_window("destroy --force").status, 0);
  EXPECT_NE(access(path().c_str(), F_OK), 0);
}

TEST_F(EncapctlTest, LoadEntersTheRoutesOfAListing) {
  const Json first = json_of("load " ENCAPCTL_ROUTES);
  EXPECT_TRUE(says(first, {{"created", true}, {"refused", 0}}));
  EXPECT_GT(first.at("shared"), 0);
  const int hops = first.at("next_hops");
  EXPECT_EQ(first.at("new_nhs").get<int>() + first.at("shared").get<int>(), hops);
  EXPECT_TRUE(says(json_of("summary").at("nhs"), {{"used", first.at("new_nhs")}, {"references", hops}}));
  EXPECT_TRUE(says(json_of("load " ENCAPCTL_ROUTES), {{"created", false}, {"new_nhs", 0}, {"shared", hops}}));
  EXPECT_EQ(json_of("summary").at("nhs").at("references"), 2 * hops);
  EXPECT_EQ(on_window("check").status, 0);
}

TEST_F(EncapctlTest, LoadTellsWhatItRefuses) {
  const std::string routes = listing(
      "10.0.0.0/24 encap mpls 200/16001 via 192.0.2.1 dev eth1\n"
      "10.0.1.0/24 encap mpls 200/16002 via 192.0.2.1 dev eth1\n"
      "10.0.2.0/24 encap mpls 9999999 via 192.0.2.1 dev eth1\n"
      "10.0.3.0/24 encap mpls 201/16003 via 192.0.2.1 dev eth1\n"
      "10.0.4.0/24 encap mpls 202/16004 via 192.0.2.1 dev eth1\n"
      "10.0.5.0/24 encap mpls 16005 via 192.0.2.1 dev eth1\n"
      "10.0.6.0/24 encap mpls 16006 via 192.0.2.1 dev eth1\n");
  const Outcome run = on_window("load " + routes + " --nh-size 4 --tun-start 0 --tun-size 3 --json");
  EXPECT_EQ(run.status, 1);
  EXPECT_TRUE(has(run.err, "line 3"));
  EXPECT_TRUE(says(run.object(), Json::parse(R"({"refused_lines": 1, "new_nhs": 4, "refused": 2, "refusals": [
    {"reason": "no NH index from 1000 to 1003 is free", "count": 1},
    {"reason": "no tunnel index from 0 to 2 is free", "count": 1}]})")));
  EXPECT_TRUE(has(on_window("load " + routes).out, "1 refused: no NH index from 1000 to 1003 is free"));
  EXPECT_EQ(on_window("check").status, 0);
  EXPECT_TRUE(ended(on_window("load " + routes + " --nh-size 5"), 2, "NH indexes from"));
  listing(std::string(30u << 20, 'x'));
  const std::pair<std::string, const char *> refusals[] = {{routes + ".none", "No such file"},
                                                           {directory(), "neither a file nor a pipe"},
                                                           {"/dev/zero", "neither a file nor a pipe"},
                                                           {routes, "line 1: it is longer than"}};
  for (const auto &[file, sentence] : refusals) {
    const Outcome refused = on_window("load " + file);
    EXPECT_NE(refused.status, 0) << file;
    EXPECT_TRUE(has(refused.err, sentence));
    EXPECT_LT(refused.err.size(), 300u);
  }
  EXPECT_TRUE(has(on_window("load -", {.in = "/dev/zero"}).err, "is larger than 256.0 MiB"));
}

// An interface has one number, in whichever listing it comes.
TEST_F(EncapctlTest, LoadKeepsTheNumbersOfInterfaces) {
  const auto load = [&](const std::string &routes, const std::string &option = "") {
    return on_window("load - --json " + option, {.in = listing(routes)});
  };
  const std::string eth0 = "10.0.0.0/24 encap mpls 16001 dev eth0\n";
  const std::string eth7 = "10.0.1.0/24 encap mpls 16001 dev eth7\n";
  EXPECT_EQ(load(eth0).object().at("new_nhs"), 1);
  EXPECT_EQ(load(eth7 + eth0).object().at("new_nhs"), 1) << "eth7 is another interface than eth0";
  EXPECT_EQ(load(eth7).object().at("shared"), 1);
  EXPECT_EQ(load("10.0.2.0/24 encap mpls 16001 dev bond3\n", "--interface=bond3=0x77").object().at("new_nhs"), 1);
  EXPECT_EQ(on_window("show nhs --ifh 0x77 --json").objects().size(), 1u);
  EXPECT_TRUE(has(load(eth0, "--interface=eth0=0x77").err, "interface 'eth0' has the number 0x1000000"));
  EXPECT_TRUE(has(load(eth0, "--interface=eth1=0x77").err, "number 0x77 is that of interface 'bond3'"));
  EXPECT_TRUE(has(load(eth0, "--interface=eth1").err, "is no NAME=NUMBER"));
  const std::string numbers = path() + ".interfaces";
  std::ofstream(numbers, std::ios::app) << "0x99 eth";  // cut off by a death
  EXPECT_EQ(load("10.0.3.0/24 encap mpls 16001 dev eth8\n").status, 0);
  EXPECT_EQ(load(eth0 + eth7).object().at("shared"), 2);
  chmod(numbers.c_str(), 0666);
  EXPECT_TRUE(has(load(eth0).err, "another user may write to it"));
  EXPECT_EQ(on_window("destroy").status, 0);
  EXPECT_NE(access(numbers.c_str(), F_OK), 0);
  std::ofstream(path()) << "no window";
  EXPECT_EQ(load(eth0).status, 2);
  EXPECT_NE(access(numbers.c_str(), F_OK), 0) << "a refused window leaves no numbers behind";
}

// Seen from another PID namespace, the attached processes cannot be told to be dead.
TEST_F(EncapctlTest, DestroyFromAnotherPidNamespaceIsRefused) {
  constexpr char kElsewhere[] = "unshare --pid --fork --mount-proc ";
  if (std::system((kElsewhere + std::string("true 2>/dev/null")).c_str()) != 0) {
    GTEST_SKIP() << "this user may make no PID namespace";
  }
  make_database();
  const Child child = attach();
  const std::string command = kElsewhere + std::string(ENCAPCTL_BINARY " destroy --dir ") + directory() + " --name " +
                              name_ + " 2>" + directory() + "/refusal";
  EXPECT_NE(std::system(command.c_str()), 0);
  EXPECT_EQ(access(path().c_str(), F_OK), 0);
  EXPECT_TRUE(has(content_of(directory() + "/refusal"), "namespace"));
}

// A window of 16 MiB asks for huge pages. How many it gets is the system's matter, and on hugetlbfs it has no others.
TEST_F(EncapctlTest, HugePagesAreAskedForAndShown) {
  if (access("/sys/kernel/mm/transparent_hugepage", F_OK) != 0) {
    GTEST_SKIP() << "the kernel has no transparent huge pages";
  }
  const Child holder = fork_child([this](const Ready &) {
    encap_db_config_t wanted = config();
    wanted.size = 16 << 20;
    ASSERT_EQ(encap_db_open(&wanted, nullptr, nullptr), 0);
  });
  const Json window = json_of("status").at("window");
  EXPECT_TRUE(window.at("huge_bytes").is_number());
  std::ifstream lines("/proc/" + holder.pid() + "/smaps");
  std::ostringstream begin;
  begin << std::hex << window.at("address").get<std::uint64_t>() << '-';
  std::string line;
  while (std::getline(lines, line) && !line.starts_with(begin.str())) {
  }
  while (std::getline(lines, line) && !line.starts_with("VmFlags:")) {
  }
  EXPECT_TRUE(has(line, " hg ")) << line;
}

// Root does not trust a window that another user could have prepared, unless it is told to.
TEST_F(EncapctlTest, TheWindowOfAnotherUserIsTrustedWhenNamed) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "a window of another user takes root";
  }
  make_database();
  ASSERT_EQ(chown(path().c_str(), 65534, 65534), 0);
  for (const char *verb : {"repair", "reclaim --dead"}) {
    EXPECT_TRUE(has(on_window(verb).err, "belongs to user 65534")) << verb;
  }
  EXPECT_EQ(on_window("repair --user 65534").status, 0);
  EXPECT_EQ(on_window("reclaim --dead --user nobody").status, 1) << "there is none";
  EXPECT_TRUE(has(on_window("repair --user no-one").err, "there is no user 'no-one'"));
}

TEST_F(EncapctlTest, AGroupSharesADatabase) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "a file of another group takes root";
  }
  const std::string routes = listing("10.0.0.0/24 encap mpls 200/16001 dev eth1\n");
  ASSERT_EQ(on_window("load " + routes + " --client lab --group 65534").status, 0);
  for (const std::string &file : {path(), path() + ".interfaces"}) {
    struct stat status {};
    ASSERT_EQ(stat(file.c_str(), &status), 0);
    EXPECT_EQ(status.st_gid, 65534u) << file;
    EXPECT_EQ(status.st_mode & 0777, 0660u) << file;
  }
  EXPECT_EQ(on_window("load " + routes + " --client lab --group 65534").status, 0);
  EXPECT_TRUE(has(on_window("load " + routes + " --client lab").err, "may write to it"));
}

}  // namespace
}  // namespace encapctl_test
