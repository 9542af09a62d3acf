// What to reach: ratios that are measured in one run, beside their goals.
#include <cmath>
#include <span>

#include "report.h"

namespace encap_bench {
namespace {

enum class Better { lower, higher };

// One row. `what` may name the number of processes; a goal of 0 is none.
struct Goal {
  const char *text;
  const char *kind;
  const char *what;
  const char *who;
  const char *other_what;
  const char *other;
  Better better;
  std::array<double, 3> goal;
  std::array<double, 3> stretch;
};

constexpr char kFind[] = "find, hit";
constexpr char kShare[] = "find and share";
constexpr char kChange[] = "NH deleted, inserted";
constexpr char kLone[] = "tunnel with its only NH inserted, deleted";
constexpr char kFind1[] = "find, hit/1";
constexpr char kFind2[] = "find, hit/2";
constexpr char kChange2[] = "NH deleted, inserted/2";

constexpr Goal kGoals[] = {
    {"find, hit / map", "ns", kFind, kOurs, kFind, kMap, Better::lower, {0.60, 0.40, 0.50}, {0.50, 0.32, 0.38}},
    {"find, hit / bound", "ns", kFind, kOurs, kFind, kBound, Better::lower, {0.85, 0.67, 0.62}, {0.70, 0.55, 0.50}},
    {"find and share / map", "ns", kShare, kOurs, kShare, kMap, Better::lower, {0.62, 0.47, 0.57}, {0.50, 0.38, 0.45}},
    {"NH deleted, inserted / map",
     "ns",
     kChange,
     kOurs,
     kChange,
     kMap,
     Better::lower,
     {0.25, 0.30, 0.48},
     {0.18, 0.23, 0.36}},
    {"tunnel with its only NH / map",
     "ns",
     kLone,
     kOurs,
     kLone,
     kMap,
     Better::lower,
     {0.30, 0.32, 0.40},
     {0.22, 0.24, 0.30}},
    {"find, hit / LMDB", "ns", kFind, kOurs, kFind, kLmdb, Better::lower, {0.55, 0.57, 0.85}, {0.42, 0.45, 0.65}},
    {"limit: find, hit / unordered_map", "ns", kFind, kOurs, kFind, kHash, Better::lower, {2.0, 1.3, 1.4}, {}},
    {"two processes, find, hit, total / one process",
     "rate",
     kFind2,
     kOurs,
     kFind1,
     kOurs,
     Better::higher,
     {0.65, 0.75, 0.75},
     {0.9, 0.9, 0.9}},
    {"two processes, find, hit / map", "rate", kFind2, kOurs, kFind2, kMap, Better::higher, {2.8, 3.5, 2.7}, {}},
    {"two processes, NH deleted, inserted / map",
     "rate",
     kChange2,
     kOurs,
     kChange2,
     kMap,
     Better::higher,
     {4.5, 3.5, 2.2},
     {}},
};

// Costs that have a goal of their own, in nanoseconds.
struct Cost {
  const char *text;
  double goal;
  double stretch;
};
constexpr Cost kCosts[] = {{"a trace record", 6, 4.5}, {"a point, message and trace off", 1, 0.5}};

std::string verdict(double value, double goal, double stretch, Better better) {
  const auto reached = [&](double wanted) { return better == Better::lower ? value <= wanted : value >= wanted; };
  if (std::isnan(value)) {
    return "-";
  }
  if (stretch > 0 && reached(stretch)) {
    return "stretch";
  }
  return reached(goal) ? "met" : "missed";
}

std::string triple(std::span<const double> values, int decimals) {
  if (values[0] <= 0) {
    return "";
  }
  return number(values[0], decimals) + " / " + number(values[1], decimals) + " / " + number(values[2], decimals);
}

std::string goal_row(const Results &results, const Goal &goal) {
  std::array<double, 3> measured{};
  std::string verdicts;
  for (std::size_t i = 0; i < kSizes.size(); ++i) {
    measured[i] =
        results.ratio({goal.kind, kSizes[i], goal.what, goal.who}, {goal.kind, kSizes[i], goal.other_what, goal.other});
    verdicts += (i == 0 ? "" : " / ") + verdict(measured[i], goal.goal[i], goal.stretch[i], goal.better);
  }
  const std::string measured_text =
      number(measured[0], 2) + " / " + number(measured[1], 2) + " / " + number(measured[2], 2);
  return std::string("| ") + goal.text + (goal.better == Better::higher ? " (higher is better)" : "") + " | " +
         triple(goal.goal, 2) + " | " + triple(goal.stretch, 2) + " | " + measured_text + " | " + verdicts + " |\n";
}

}  // namespace

std::string goals_text(const Results &results) {
  std::string text =
      "### What to reach\n\n"
      "Medians of the ratios of the rounds of one run, S / M / L; *map* is the two-level one of the documentation's "
      "example.\n\n"
      "| | goal | stretch | measured | |\n|---|---:|---:|---:|---|\n";
  for (const Goal &goal : kGoals) {
    text += goal_row(results, goal);
  }
  for (const Cost &cost : kCosts) {
    const double value = results.median({"ns", "S", cost.text, ""});
    text += std::string("| ") + cost.text + ", ns | " + number(cost.goal, 1) + " | " + number(cost.stretch, 1) + " | " +
            number(value, 1) + " | " + verdict(value, cost.goal, cost.stretch, Better::lower) + " |\n";
  }
  return text + "\n";
}

}  // namespace encap_bench
