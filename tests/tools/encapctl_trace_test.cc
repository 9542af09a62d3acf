// trace: which records are told of, and the slices of the Perfetto file.
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <set>

#include "encap_db_owner.h"
#include "encapctl_fixture.h"

namespace encapctl_test {
namespace {

// The whole life of NH 1007, and a lookup that finds nothing with its index left over in the record.
void live_and_die() {
  egress_encap_key_t key{};
  key.out_label1 = 16007;
  key.out_label2 = 207;
  key.ifh = 0x77;
  egress_encap_info_t info{};
  info.egr_nh = 1007;
  vrl_find_and_share_egress_encap(&info, key);
  info.egr_nh = 1007;
  info.egr_tun = 107;
  vrl_insert_egress_encap(&info, key);
  vrl_find_egress_encap(&info, key);
  vrl_find_and_share_egress_nh(1007);
  vrl_update_egr_nh_data_in_encap_db(1007, {});
  egress_encap_aux_data_t aux{};
  vrl_get_encap_key_and_aux_data_from_nh(1007, &aux, &key);
  std::uint32_t a = 0, b = 0, c = 0;
  vrl_delete_and_free_egress_encap_with_nh_key(1007, &a, &b, &c);
  vrl_delete_and_free_egress_encap_with_nh_key(1007, &a, &b, &c);
  info = {};
  info.egr_nh = 1008;
  info.egr_tun = 108;
  vrl_egress_encap_nh_insert_attach(&info, 3, key);
  vrl_egress_encap_nh_detach(1008, &a, &b, &c);
}

// The processes whose records a listing tells of.
std::set<std::string> pids_in(const Outcome &run) {
  std::set<std::string> pids;
  for (const Json &object : run.objects()) {
    for (const Json &record : object.value("records", Json::array({object}))) {
      pids.insert(std::to_string(record.at("pid").get<int>()));
    }
  }
  return pids;
}

class EncapctlTraceTest : public EncapctlTest {
 protected:
  void SetUp() override {
    EncapctlTest::SetUp();
    worker_.emplace(fork_child([&](const Ready &) {
      open_database();
      live_and_die();
    }));
  }

  Outcome trace(std::vector<std::string> words) {
    words.insert(words.begin(), {"trace", worker_->pid()});
    return encapctl(words);
  }

  std::optional<Child> worker_;
};

TEST_F(EncapctlTraceTest, IndexTellsTheLifeOfOneNh) {
  worker_->kill();  // its trace outlives it
  std::vector<int> ids;
  const std::string pid = worker_->pid();
  for (const Json &record : on_window("trace --index 1007 --json").objects()) {
    EXPECT_EQ(record.at("nh"), 1007);
    ids.push_back(record.at("id"));
  }
  EXPECT_EQ(ids, (std::vector<int>{50, 22, 18, 43, 45, 18, 49, 70, 25, 25, 28, 100, 101, 25, 28, 100}));
}

TEST_F(EncapctlTraceTest, FiltersByPointTimeAndProcess) {
  EXPECT_EQ(trace({"--point", "50", "--json"}).objects().size(), 2u);
  EXPECT_EQ(trace({"--point", "vrl_egress_encap_nh_*", "--json"}).objects().size(), 3u);
  EXPECT_EQ(trace({"--index", "1"}).status, 1);
  for (const char *none : {"vrl_nothing", "120"}) {
    EXPECT_TRUE(ended(trace({"--point", none}), 2, std::string("no trace point is called '") + none + "'"));
  }
  EXPECT_EQ(trace({"--since", "1h", "--json"}).objects().size(), trace({"--json"}).objects().size());
  EXPECT_EQ(trace({"--since", "5"}).status, 2) << "5 what";
  EXPECT_EQ(encapctl({"trace", "1"}).status, 2);
  const Outcome last = trace({"--limit", "1"});
  EXPECT_TRUE(has(last.err, "older records match, too"));
  EXPECT_TRUE(has(last.out, "vrl_egress_encap_nh_detach: Tunnel 108") || has(last.out, "vrl_delete_mpls_tunnel_entry"));
  EXPECT_TRUE(has(last.out, " " + worker_->pid() + "/" + worker_->pid() + " "));
}

// Records name no database: those of another one, and those that another user's file tells, must not be mixed in.
TEST_F(EncapctlTraceTest, RecordsAreThoseOfProcessesAttachedToTheDatabase) {
  const std::string own_name = name_;
  name_ += ".other";
  const Child other = fork_child([&](const Ready &) {
    open_database();
    live_and_die();
  });
  name_ = own_name;
  using Pids = std::set<std::string>;
  for (const std::string verb : {"trace --index 1007 --json", "find nh=1007 --records 100 --json"}) {
    EXPECT_EQ(pids_in(on_window(verb)), Pids{worker_->pid()}) << verb;
    EXPECT_EQ(pids_in(on_window(verb + " --all-traces")), (Pids{worker_->pid(), other.pid()})) << verb;
  }
  EXPECT_TRUE(ended(encapctl({"trace", "--dir", directory(), "--name", "none"}), 2, "--all-traces reads"));
  if (geteuid() == 0) {
    for (const auto &file : std::filesystem::directory_iterator(directory() + "/trace")) {
      ASSERT_EQ(chown(file.path().c_str(), 65534, 65534), 0);
    }
    EXPECT_TRUE(has(on_window("trace").err, "no process that is attached"));
    EXPECT_EQ(json_of("find nh=1007").at("records"), Json::array());
  }
}

// A process that counts NH 1001 up, without end.
TEST_F(EncapctlTest, FollowTellsOfEachRecordOnce) {
  make_database();
  const Child writer = fork_child([&](const Ready &ready) {
    open_database();
    ready();
    while (true) {
      vrl_find_and_share_egress_nh(1001);
      usleep(500);
    }
  });
  const Outcome outcome = encapctl({"trace", writer.pid(), "--follow", "--point", "18", "--json"}, {.enough = 50'000});
  EXPECT_EQ(outcome.status, 0) << "it goes on until it is ended, and ends with a whole line";
  const std::vector<Json> records = outcome.objects();
  ASSERT_GT(records.size(), 100u);
  for (std::size_t i = 0; i < records.size(); ++i) {
    ASSERT_EQ(records[i].at("values"), Json({1001, 3 + i})) << "each count once, in order";
  }
}

// Each operation is one slice; the attach has its two steps within it; no two overlap otherwise.
TEST_F(EncapctlTraceTest, PerfettoSlicesAreTheOperationsAndNest) {
  const std::string file = path() + ".json";
  ASSERT_EQ(trace({"--perfetto", file}).status, 0);
  std::ifstream in(file);
  const Json all = Json::parse(in);
  std::vector<std::string> names;
  std::vector<std::pair<double, double>> open;  // slices around the current one
  for (const Json &event : all.at("traceEvents")) {
    if (event.at("ph") != "X") {
      continue;
    }
    names.push_back(event.at("name"));
    const double begin = event.at("ts");
    const double end = begin + event.at("dur").get<double>();
    while (!open.empty() && open.back().second <= begin && open.back().first < begin) {
      open.pop_back();
    }
    EXPECT_TRUE(open.empty() || end <= open.back().second + 0.002) << event.dump();
    open.emplace_back(begin, end);
  }
  EXPECT_EQ(names, (std::vector<std::string>{
                       "mpls_egress_encap_db_init", "vrl_find_and_share_egress_encap", "vrl_insert_egress_encap",
                       "vrl_find_egress_encap", "vrl_find_and_share_egress_nh", "vrl_update_egr_nh_data_in_encap_db",
                       "vrl_get_encap_key_and_aux_data_from_nh", "vrl_delete_and_free_egress_encap_with_nh_key",
                       "vrl_delete_and_free_egress_encap_with_nh_key", "vrl_egress_encap_nh_insert_attach",
                       "vrl_insert_egress_encap", "vrl_find_and_set_egress_nh_ref", "vrl_egress_encap_nh_detach"}));
}

}  // namespace
}  // namespace encapctl_test
