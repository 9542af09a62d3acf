// The scenarios of a death: what was done before, and what the process that dies is doing.
#ifndef ENCAP_PROOF_CRASH_SCENARIOS_H
#define ENCAP_PROOF_CRASH_SCENARIOS_H

#include <functional>
#include <string>
#include <vector>

#include "model/operations.h"

namespace crash {

struct Scenario {
  std::string name;
  std::vector<Operation> given;
  std::vector<Operation> when;
  std::function<void()> prepare;  // after `given`, beside the model; may be empty
  std::function<void()> work;     // instead of `when`, beside the model
};

// Writes a scenario: keeps the model of what was done so far, and chooses indexes as a well-behaved caller does.
class Story {
 public:
  explicit Story(std::string name);

  std::uint32_t enter(std::uint32_t label1, std::uint32_t label2, std::uint32_t ifh = 1);  // returns the NH index
  void given(const Operation &operation);
  Operation entry(std::uint32_t label1, std::uint32_t label2, std::uint32_t ifh = 1) const;
  std::uint32_t nh_of(std::uint32_t label1, std::uint32_t label2, std::uint32_t ifh = 1) const;
  Scenario dies_in(const Operation &operation);
  Scenario dies_in(std::function<void()> work);

 private:
  Scenario scenario_;
  encap_test::Model model_;
};

std::vector<Scenario> database_scenarios();
std::vector<Scenario> tree_scenarios();
std::vector<Scenario> heap_scenarios();

}  // namespace crash

#endif
