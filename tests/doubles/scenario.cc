#include <set>
#include <sstream>

#include "doubles/fixture.h"

namespace encap_test {
namespace {

// How each kind of call may fail. A lock that is taken (16) is waited for; a dead holder's (130) is taken over.
const std::map<std::string, std::vector<const char *>> kFailures = {{"trylock", {"11", "16", "130"}},
                                                                    {"lock", {"35", "130"}},
                                                                    {"unlock", {"1"}},
                                                                    {"malloc", {"5", "NULL"}},
                                                                    {"search", {"none"}},
                                                                    {"insert", {"no"}},
                                                                    {"delete", {"no"}}};

std::set<std::string> walked_failures;
std::uint64_t journals = 0;

struct Call {
  std::string kind;
  unsigned number;  // among those of its kind
  bool succeeded;
};

std::vector<Call> calls_in(const std::string &text) {
  std::map<std::string, unsigned> numbers;
  std::vector<Call> calls;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    const std::string kind = line.substr(0, line.find_first_of("(="));
    const std::string result = line.substr(line.rfind('=') + 1);
    if (kFailures.contains(kind)) {
      calls.push_back({kind, ++numbers[kind], result == "0" || result == "hit" || result == "ok"});
    }
  }
  return calls;
}

// The road with these orders, then every road that turns off from it after its first `decided` calls.
void walk_from(DbTest &db, const Scenario &scenario, const std::string &orders, std::size_t decided) {
  {
    SCOPED_TRACE(std::string(scenario.name) + " " + orders + ", reports " +
                 std::to_string(static_cast<int>(db.reports)));
    db.open();
    if (scenario.given != nullptr) {
      scenario.given(db);
    }
    db.order(orders);
    db.make(scenario.when);
  }
  for (const char each : orders.empty() && db.reports == Reports::messages ? db.wrote : "") {
    journals = journals * 31 + static_cast<unsigned char>(each);
  }
  const std::vector<Call> calls = calls_in(db.wrote);
  for (std::size_t i = decided; i < calls.size() && !DbTest::HasFailure(); ++i) {
    for (const char *failure : kFailures.at(calls[i].kind)) {
      if (calls[i].succeeded) {
        walked_failures.insert(calls[i].kind + "=" + failure);
        const std::string order = " " + calls[i].kind + std::to_string(calls[i].number) + "=" + failure;
        walk_from(db, scenario, orders + order, i + 1);
      }
    }
  }
}

}  // namespace

void walk(DbTest &db, const Scenario &scenario) {
  for (const Reports reports : {Reports::records, Reports::messages, Reports::none}) {
    if (reports == Reports::none && !at_point().empty()) {
      continue;  // the other process acts when a record is written
    }
    db.reports = reports;
    walk_from(db, scenario, "", 0);
  }
}

std::uint64_t hash_of_journals() {
  return journals;
}

std::string failures_not_walked() {
  std::string missing;
  for (const auto &[kind, failures] : kFailures) {
    for (const char *failure : failures) {
      missing += walked_failures.contains(kind + "=" + failure) ? "" : " " + kind + "=" + failure;
    }
  }
  return missing;
}

}  // namespace encap_test
