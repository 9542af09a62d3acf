#include <set>
#include <sstream>

#include "support/fixture.h"

namespace encap_test {
namespace {

// "malloc(9,56)=0" -> "malloc"; "" for a word that is no call that may fail.
std::string kind_of(const std::string &word) {
  static const std::set<std::string> kinds = {"trylock", "unlock", "malloc", "search", "insert", "delete"};
  const std::string kind = word.substr(0, word.find_first_of("(="));
  return kinds.contains(kind) ? kind : "";
}

std::vector<std::string> words_of(const std::string &text) {
  std::istringstream words(text);
  return {std::istream_iterator<std::string>(words), {}};
}

// The stream up to and with the call that the order "insert2=no" names, which has this result.
std::string until(const std::string &stream, const std::string &order) {
  const std::size_t equals = order.find('=');
  std::string text;
  std::map<std::string, int> calls;
  for (const std::string &word : words_of(stream)) {
    const std::string kind = kind_of(word);
    if (!kind.empty() && kind + std::to_string(++calls[kind]) == order.substr(0, equals)) {
      return text + word.substr(0, word.rfind('=')) + order.substr(equals) + " ";
    }
    text += word + " ";
  }
  ADD_FAILURE() << "no call for " << order;
  return text;
}

void check(DbTest &db, const Scenario &scenario, const Failure &failure, const std::string &stream) {
  SCOPED_TRACE(std::string(scenario.name) + ", " + failure.faults + (db.messages ? "" : ", messages off"));
  db.open();
  if (scenario.given) {
    scenario.given(db);
  }
  journal().take();
  faults().order(failure.faults);
  const int status = scenario.when(db);
  faults().clear();
  EXPECT_EQ(status, failure.status);
  db.expect_journal(stream);
  EXPECT_TRUE(db.outs == failure.outs) << db.outs.first << ' ' << db.outs.second << ' ' << db.outs.third;
  if (failure.left) {
    failure.left(db);
  }
  db.expect_database();
  EXPECT_EQ(held(), 0);
}

void demand_every_call(const Scenario &scenario) {
  std::set<std::string> covered;
  for (const Failure &failure : scenario.failures) {
    const std::string first = words_of(failure.faults).front();
    covered.insert(first.substr(0, first.find('=')));
  }
  std::map<std::string, int> calls;
  for (const std::string &word : words_of(scenario.stream)) {
    const std::string kind = kind_of(word);
    if (!kind.empty()) {
      const std::string call = kind + std::to_string(++calls[kind]);
      EXPECT_TRUE(covered.contains(call)) << scenario.name << ": no failure of " << call;
    }
  }
}

}  // namespace

void run(DbTest &db, const Scenario &scenario) {
  demand_every_call(scenario);
  for (const bool messages : {false, true}) {
    db.messages = messages;
    check(db, scenario, {"", "", 0, scenario.then, scenario.outs}, scenario.stream);
    for (const Failure &failure : scenario.failures) {
      check(db, scenario, failure, until(scenario.stream, words_of(failure.faults).front()) + failure.tail);
    }
  }
}

}  // namespace encap_test
