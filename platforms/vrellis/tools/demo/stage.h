// What the acts of the demo share: the workers, the model, and the steps that several acts take.
#ifndef ENCAP_DEMO_STAGE_H
#define ENCAP_DEMO_STAGE_H

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "child.h"
#include "model.h"
#include "plan.h"
#include "report.h"

namespace demo {

inline constexpr std::uint32_t kA = 0;  // the worker that is killed
inline constexpr std::uint32_t kB = 1;
inline constexpr std::uint32_t kAll = UINT32_MAX;

// A worker, and what the supervisor knows of it.
struct Side {
  std::vector<route_file::Hop> part;
  std::unique_ptr<Child> process;
  std::uint32_t entered = 0;    // hops from the front of its part
  std::uint32_t withdrawn = 0;  // likewise
  std::uint32_t created = 0;    // NHs
  std::uint32_t foreign = 0;    // references on NHs that the other worker created

  // Hops that it has to enter up to the end of a quarter of its part.
  std::uint32_t quarter(std::uint32_t number) const {
    return static_cast<std::uint32_t>(part.size() * number / 4) - entered;
  }
};

struct Stage {
  const Plan &plan;
  const std::string &route_file;
  Report &report;
  Model model{};
  std::array<Side, kWorkers> side{};

  Stage(const Plan &the_plan, const std::string &the_route_file, Report &the_report);

  void start(std::uint32_t worker);

  // Takes a started worker's first words. Throws std::runtime_error when it has no database.
  Reply first_words(std::uint32_t worker);

  // Takes the reply to Verb::kEnter, and enters the same hops into the model.
  Reply note_entered(std::uint32_t worker, std::string_view how);
};

// The acts, in order. Each throws std::runtime_error when it cannot go on.
void enter_routes(Stage &stage);
void lose_a_process(Stage &stage);
void withdraw_routes(Stage &stage);

}  // namespace demo

#endif
