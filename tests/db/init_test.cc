// Initialisation: registration, set-up, attaching, failures at each step.
#include <sstream>

#include "doubles/fixture.h"

namespace encap_test {
namespace {

// Set-up as the journal shows it, for the ranges 100..107 and 5..8.
constexpr const char *kSetUp =
    "114 113 115 111 malloc(9,224)=0 112 109 malloc(9,80)=0 110 "
    "attr_init=0 settype(2)=0 setpshared(1)=0 setrobust(1)=0 settype(1)=0 setrobust(1)=0 mutex_init(zeroed)=0 "
    "attr_destroy=0 119";

// The first calls of the process, made before any test: with no header, then on a first one.
class FirstCalls : public ::testing::Environment {
 public:
  void SetUp() override {
    arena().reset();
    watch(&arena().header()->lock.mutex);
    EXPECT_EQ(mpls_egress_encap_db_init(kWindow, 1, 1, 1, 1, nullptr), 22);
    EXPECT_EQ(egress_encap_db, nullptr);
    EXPECT_EQ(journal().take(), "trace(114.0)=0\n");
    arena().header()->is_initialized = 0;
    EXPECT_EQ(mpls_egress_encap_db_init(kWindow, 2, 3, 10, 20, arena().header()), 0);
    EXPECT_EQ(journal().take(),
              "trace(114.0)=0\ntrace(113.0)=0\ned_init\ntrace(115.0)=9,10,12,20,23\ntrace(111.0)=2\nmalloc(9,56)=0\n"
              "trace(109.0)=4\nmalloc(9,64)=0\ntrace(119.0)=0\n");
  }
};
::testing::Environment *const first_calls = ::testing::AddGlobalTestEnvironment(new FirstCalls);

class InitTest : public DbTest {
 protected:
  void SetUp() override {
    DbTest::SetUp();
    values = {{"shm_id", kWindow}, {"nh_start", 100},    {"nh_end", 108},         {"tun_start", 5},
              {"tun_end", 9},      {"nh_size", kNhSize}, {"slots", kTunSize + 1}, {"rc", 0}};
    fresh();
  }
  // A window and a header full of leftovers, in which no database was set up yet.
  void fresh() {
    arena().reset();
    db().is_initialized = 0;
    watch(&db().lock.mutex);
  }
  int init(std::uint32_t nh_size = kNhSize, std::uint32_t tun_size = kTunSize, std::uint32_t nh_start = kNhStart,
           std::uint32_t tun_start = kTunStart) {
    arm_attributes(true);
    const int status = mpls_egress_encap_db_init(kWindow, nh_size, tun_size, nh_start, tun_start, &db());
    arm_attributes(false);
    return status;
  }
};

TEST_F(InitTest, RegistrationRecord) {
  EXPECT_EQ(registration().calls, 1) << "registered once, however often initialised";
  const ed_component_t &record = registration().record;
  ed_component_t expected{};
  expected.sites = &ed_dummy_libmpls_egress_encap_db;
  expected.perf_sites = &ed_perf_dummy_libmpls_egress_encap_db;
  expected.name = record.name;
  expected.num_flags = 3;
  std::string names = record.name;
  for (const std::size_t i : {0u, 1u, 2u}) {
    expected.flag[i] = {record.flag[i].name, 98304, {}, 1, {}};
    names += std::string(" ") + record.flag[i].name;
  }
  EXPECT_EQ(names, "libmpls_egress_encap_db error event init");
  EXPECT_EQ(std::memcmp(&record, &expected, sizeof record), 0);
}

TEST_F(InitTest, SetsADatabaseUp) {
  EXPECT_EQ(init(), 0);
  expect_journal(kSetUp);
  EXPECT_EQ(egress_encap_db, &db());
  EXPECT_EQ(db().tun_root, nullptr);
  EXPECT_EQ(db().shm_id, kWindow);
  model = Model(kNhStart, kNhSize, kTunStart, kTunSize);
  expect_database();
  EXPECT_EQ(vrl_egress_encap_db_lock(&db().lock.mutex), 0);
  EXPECT_EQ(pthread_mutex_unlock(&db().lock.mutex), 0);
  journal().take();
  EXPECT_EQ(mpls_egress_encap_db_init(kWindow, 1, 1, 1, 1, nullptr), 22);
  expect_journal("114");
  EXPECT_EQ(egress_encap_db, &db());
}

TEST_F(InitTest, AttachesWhatIsThere) {
  EXPECT_EQ(init(), 0);
  journal().take();
  for (const std::uint32_t flag : {1u, 2u, 0x80000000u}) {
    egress_encap_db_t there = db();
    there.is_initialized = flag;
    const egress_encap_db_t before = there;
    EXPECT_EQ(mpls_egress_encap_db_init(kWindow + 1, 1, 1, 1, 1, &there), 0);
    expect_journal("114 113 119");
    EXPECT_EQ(egress_encap_db, &there);
    EXPECT_EQ(std::memcmp(&there, &before, sizeof there), 0);
  }
  egress_encap_db_t *const home = &db();
  home->is_initialized = 1;
  EXPECT_EQ(mpls_egress_encap_db_init(kWindow, 1, 1, 1, 1, home), 0);
}

TEST_F(InitTest, EmptyRanges) {
  EXPECT_EQ(init(0, 0, 0xfffffff0, 0), 0);
  values = {{"shm_id", kWindow}, {"nh_start", 0xfffffff0}, {"nh_end", 0xfffffff0}, {"tun_start", 0},
            {"tun_end", 0},      {"nh_size", 0},           {"slots", 1},           {"rc", 0}};
  std::string stream = kSetUp;
  stream.replace(stream.find("224"), 3, "0").replace(stream.find(",80"), 3, ",16");
  expect_journal(stream);
  model = Model(0xfffffff0, 0, 0, 0);
  expect_database();
  EXPECT_EQ(vrl_find_and_share_egress_nh(0xfffffff0), 22);
}

TEST_F(InitTest, SumsAreOf32Bits) {
  EXPECT_EQ(init(0x20, 2, 0xfffffff0, 0xffffffff), 0);
  EXPECT_EQ(db().nh_end, 0x10u);
  EXPECT_EQ(db().tun_end, 1u);
}

TEST_F(InitTest, RangeFromZeroKeepsTheNullTunnelInItsOwnSlot) {
  open(kNhStart, kNhSize, 0, 2);
  enter(label(16).out_of(1), kNh, 0);
  EXPECT_EQ(db().tun_info_array[2].ref_count, 1u);
  EXPECT_EQ(db().tun_info_array[0].valid, 0);
}

// Each call fails in turn; nothing is called after it, and nothing is given back.
TEST_F(InitTest, EachCallThatFailsEndsIt) {
  std::map<std::string, unsigned> numbers;
  std::string before;
  std::istringstream words(kSetUp);
  for (std::string word; words >> word; before += word + " ") {
    const std::string kind = word.substr(0, word.find_first_of("(="));
    if (!word.ends_with("=0")) {
      continue;
    }
    const unsigned number = ++numbers[kind];
    const bool array = kind == "malloc";
    for (const char *result : array ? std::vector{"5", "NULL"} : std::vector{"95"}) {
      const std::string order = kind + std::to_string(number) + "=" + result;
      SCOPED_TRACE(order);
      fresh();
      faults().order(order);
      const int status = init();
      EXPECT_EQ(status, result == std::string("NULL") ? 12 : std::stoi(result));
      Values failed = values;
      failed["rc"] = static_cast<std::uint32_t>(status);
      const char *const end = !array ? " 118" : number == 1 ? " 112 116" : " 110 117";
      EXPECT_EQ(journal().take(),
                expand(before, values) + expand(word.substr(0, word.size() - 1) + result + end, failed));
      EXPECT_EQ(arena().blocks().size(), array ? number - 1 : 2);
      EXPECT_TRUE(egress_encap_db == &db() && db().tun_root == nullptr && db().nh_end == 108 && arena().gaps_intact());
    }
  }
}

TEST_F(InitTest, LockAreaIsZeroedWholeAndNothingBeyondIt) {
  arm_attributes(true);
  EXPECT_EQ(eencap_lock_init(&db().lock), 0);
  arm_attributes(false);
  EXPECT_NE(journal().take().find("mutex_init(zeroed)=0"), std::string::npos);
  EXPECT_EQ(db().is_initialized, 0u);
  EXPECT_EQ(db().tun_end, 0xA5A5A5A5u);
  EXPECT_EQ(db().spare_end, 0xA5A5A5A5u);
  const auto *area = db().lock.area;
  EXPECT_TRUE(
      std::all_of(area + sizeof(pthread_mutex_t), area + sizeof db().lock, [](auto byte) { return byte == 0; }));
}

}  // namespace
}  // namespace encap_test
