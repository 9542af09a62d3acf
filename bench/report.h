// The parts of the report: text in Markdown, and the chart.
#ifndef ENCAP_BENCH_REPORT_H
#define ENCAP_BENCH_REPORT_H

#include <array>
#include <string>

#include "results.h"

namespace encap_bench {

inline constexpr std::array<const char *, 3> kSizes = {"S", "M", "L"};
inline constexpr const char *kOurs = "encap_db";
inline constexpr const char *kMap = "map, two-level";
inline constexpr const char *kPooledMap = "map, two-level, pooled";
inline constexpr const char *kFixedMap = "map, two-level, pooled, fixed address";
inline constexpr const char *kFlatMap = "map, flat";
inline constexpr const char *kHash = "unordered_map, flat, pooled";
inline constexpr const char *kLmdb = "LMDB";
inline constexpr const char *kBound = "bound";

// "-" for what was not measured.
std::string number(double value, int decimals);

std::string machine_text(const Results &results);
std::string goals_text(const Results &results);       // what to reach, and whether it is
std::string operations_text(const Results &results);  // medians, and ratios to each contestant
std::string processes_text(const Results &results);   // throughput and longest wait
std::string memory_text(const Results &results);
std::string growth_text(const Results &results);
std::string instructions_text(const Results &results);
std::string chart_svg(const Results &results);

}  // namespace encap_bench

#endif
