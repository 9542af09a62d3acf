// The calls in C: what they tell of a database, of deaths and of a repair, and that nothing is thrown out of them.
#include <fstream>

#include "encap_inspect.h"
#include "inspect_fixture.h"

namespace inspect_tests {
namespace {

class InterfaceTest : public InspectTest {
 protected:
  void SetUp() override {
    InspectTest::SetUp();
    fill(2, 3);
  }

  template <typename Result>
  Result *fresh(Result *result) {
    told_.clear();
    *result = {};
    result->bytes = sizeof *result;
    return result;
  }
  void tell(const char *name, const char *text) { told_ += std::string(name) + ": " + text + "\n"; }

  int check_database(encap_check_result_t *result, const char *name = "window") {
    const encap_db_config_t config = config_of(name);
    const encap_check_options_t options{sizeof options, 300};
    const auto each = [](const encap_finding_t *finding, void *arg) {
      static_cast<InterfaceTest *>(arg)->tell(finding->name, finding->text);
    };
    return encap_db_check(&config, &options, each, this, fresh(result));
  }

  int mend(std::uint32_t flags, encap_repair_result_t *result, const char *name = "window") {
    const encap_db_config_t config = config_of(name);
    const encap_repair_options_t options{sizeof options, flags, 300};
    const auto each = [](const encap_change_t *change, void *arg) {
      static_cast<InterfaceTest *>(arg)->tell(change->because, change->text);
    };
    return encap_db_repair(&config, &options, each, this, fresh(result));
  }

  std::uint64_t deaths() {
    const encap_db_config_t config = config_of("window");
    std::uint64_t count = UINT64_MAX;
    EXPECT_EQ(encap_db_deaths(&config, &count), 0);
    return count;
  }

  std::string told_;
};

TEST_F(InterfaceTest, AStoppedHolderIsNamedAndItsDeathCountedFoundAndMended) {
  encap_check_result_t found;
  ASSERT_EQ(check_database(&found), 0) << found.text;
  EXPECT_TRUE(found.sound == 1 && found.nhs == 9 && found.attached == 1 && found.lock == ENCAP_LOCK_FREE);
  EXPECT_EQ(deaths(), 0U);

  const pid_t child = hold_lock();
  kill(child, SIGSTOP);
  EXPECT_EQ(waitpid(child, nullptr, WUNTRACED), child);
  encap_repair_result_t result;
  for (const std::uint32_t flags : {0U, std::uint32_t{ENCAP_REPAIR_DRY_RUN}}) {
    EXPECT_EQ(mend(flags, &result), ETIMEDOUT);
    EXPECT_EQ(result.holder_pid, child);
    EXPECT_NE(std::string(result.text).find("stopped"), std::string::npos) << result.text;
  }
  EXPECT_EQ(check_database(&found), 0) << "nothing is wrong yet";
  EXPECT_EQ(found.holder_pid, child);
  --tunnel(6).ref_count;  // as a removal leaves it, that stands still here
  EXPECT_EQ(check_database(&found), EAGAIN) << told_;
  EXPECT_EQ(told_, "");
  EXPECT_NE(std::string(found.text).find("stopped"), std::string::npos) << found.text;
  test_support::kill_hard(child);

  EXPECT_EQ(deaths(), 1U);
  ASSERT_EQ(check_database(&found), 0) << found.text;
  EXPECT_TRUE(found.deaths == 1 && found.sound == 0 && found.lock == ENCAP_LOCK_LEFT);
  EXPECT_TRUE(found.findings == 2 && found.from_death == 2) << told_;
  const std::vector<std::uint8_t> before(window_, window_ + bytes_);
  EXPECT_EQ(mend(ENCAP_REPAIR_DRY_RUN, &result), 0) << result.text;
  EXPECT_EQ(std::memcmp(before.data(), window_, bytes_), 0) << "the dry run took the lock over";
  EXPECT_TRUE(result.changes == 2 && result.after == 2);
  ASSERT_EQ(mend(0, &result), 0) << result.text;
  EXPECT_EQ(told_,
            "lock-dead-owner: took the lock over from a dead thread\n"
            "tunnel-count: set the count of tunnel 6 from 2 to 3\n");
  EXPECT_TRUE(result.before == 2 && result.after == 0);
  expect_entries();

  encap_db_close();  // the next process that attaches the window sweeps the table: the death stays counted
  const encap_db_config_t config = config_of("window");
  ASSERT_EQ(encap_db_open(&config, nullptr, nullptr), 0);
  EXPECT_EQ(deaths(), 1U);
}

TEST_F(InterfaceTest, RecordsOfAnEarlierVersionAreNotWrittenPastTheirEnd) {
  const encap_db_config_t config = config_of("window");
  encap_check_result_t result;
  std::memset(&result, 0x5a, sizeof result);
  result.bytes = offsetof(encap_check_result_t, notes);
  ASSERT_EQ(encap_db_check(&config, nullptr, nullptr, nullptr, &result), 0);
  EXPECT_EQ(result.bytes, offsetof(encap_check_result_t, notes));
  EXPECT_EQ(result.sound, 1U);
  EXPECT_EQ(result.notes, 0x5a5a5a5a5a5a5a5aU);
  EXPECT_EQ(encap_db_check(&config, nullptr, nullptr, nullptr, nullptr), 0);
  encap_repair_options_t later{sizeof later + 64, 0, 0};  // of a later version: more than this library knows
  EXPECT_EQ(encap_db_repair(&config, &later, nullptr, nullptr, nullptr), 0);
}

TEST_F(InterfaceTest, BadInputGetsAStatusAndASentence) {
  std::ofstream(directory_ + "/text") << std::string(100, 'x');
  encap_check_result_t found;
  encap_repair_result_t result;
  EXPECT_EQ(check_database(&found, "none"), ENOENT);
  EXPECT_NE(std::string(found.text).find("No such file"), std::string::npos) << found.text;
  EXPECT_EQ(check_database(&found, nullptr), EINVAL);
  EXPECT_EQ(check_database(&found, "text"), 0);
  EXPECT_EQ(found.sound, 0U);
  EXPECT_EQ(told_.substr(0, 12), "not-a-window");
  EXPECT_EQ(mend(0, &result, "none"), ENOENT);
  EXPECT_EQ(mend(ENCAP_REPAIR_DRY_RUN, &result, "none"), ENOENT);
  EXPECT_FALSE(std::filesystem::exists(directory_ + "/none"));
  EXPECT_EQ(mend(0, &result, "text"), EINVAL);
  EXPECT_NE(std::string(result.text).find("is no window"), std::string::npos) << result.text;
  std::filesystem::create_symlink(path(), directory_ + "/link");
  EXPECT_EQ(check_database(&found, "link"), EINVAL);
  EXPECT_NE(std::string(found.text).find("no regular file"), std::string::npos) << found.text;
  EXPECT_EQ(mend(0, &result, "link"), EINVAL);
  EXPECT_EQ(repair(30).status, ENOENT);
  EXPECT_EQ(mend(16, &result), EINVAL);
  EXPECT_NE(std::string(result.text), "");
  const encap_db_config_t text = config_of("text");
  std::uint64_t count = 0;
  EXPECT_EQ(encap_db_deaths(&text, &count), EINVAL);
  EXPECT_EQ(encap_db_deaths(nullptr, &count), EINVAL);
}

}  // namespace
}  // namespace inspect_tests
