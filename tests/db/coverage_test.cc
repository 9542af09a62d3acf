// Every point is emitted by some test, and stands in the code exactly once.
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <regex>
#include <sstream>

#include "support/expected_points.h"
#include "support/fixture.h"

namespace encap_test {
namespace {

std::string content(const std::filesystem::path &path) {
  std::ifstream file(path);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

// How often each point is named in the code.
std::map<std::string, unsigned> uses_in(const std::string &code) {
  const std::string prefix = "Point::";
  std::map<std::string, unsigned> uses;
  for (auto at = code.find(prefix); at != std::string::npos; at = code.find(prefix, at)) {
    at += prefix.size();
    ++uses[code.substr(at, code.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789_", at) - at)];
  }
  return uses;
}

TEST(CoverageTest, EachPointStandsInTheCodeOnce) {
  const std::filesystem::path sources = ENCAP_LIBRARY_SOURCES;
  std::string code;
  for (const auto &entry : std::filesystem::recursive_directory_iterator(sources)) {
    if (entry.is_regular_file() && entry.path().filename() != "debug_points.def") {
      code += content(entry.path());
    }
  }
  const std::string table = content(sources / "diag" / "debug_points.def");
  const std::regex row(R"(\nED_POINT\(\s*(\d+),\s*\d+,\s*\w+,\s*\w+,\s*\d+,\s*(\w+),\s*(\w+),)");
  auto uses = uses_in(code);
  std::uint32_t id = 0;
  for (std::sregex_iterator at(table.begin(), table.end(), row), end; at != end; ++at, ++id) {
    EXPECT_EQ(std::stoul((*at)[1]), id);
    EXPECT_EQ((*at)[2], expected_points()[id].function);
    EXPECT_EQ(uses[(*at)[3]], id == kNeverEmitted ? 0u : 1u) << (*at)[3];
  }
  EXPECT_EQ(id, kPoints);
}

// After a run of all tests: every point but the reserved one was seen by the doubles.
class EveryPointWasEmitted : public ::testing::Environment {
 public:
  void TearDown() override {
    const auto &run = *::testing::UnitTest::GetInstance();
    if (run.test_to_run_count() != run.total_test_count() || !run.Passed()) {
      return;  // a part of the tests says nothing about the whole
    }
    std::string missing;
    for (std::uint32_t id = 0; id < kPoints; ++id) {
      if (journal().points_seen().contains(id) == (id == kNeverEmitted)) {
        missing += " " + std::to_string(id);
      }
    }
    if (!missing.empty()) {
      std::cerr << "points never emitted (or emitted though reserved):" << missing << std::endl;
      std::_Exit(1);
    }
  }
};

::testing::Environment *const every_point = ::testing::AddGlobalTestEnvironment(new EveryPointWasEmitted);

}  // namespace
}  // namespace encap_test
