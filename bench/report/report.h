// The parts of the report: text in Markdown, and the chart.
#ifndef ENCAP_BENCH_REPORT_H
#define ENCAP_BENCH_REPORT_H

#include <array>
#include <string>

#include "report/results.h"

namespace encap_bench {

inline constexpr std::array<const char *, 3> kSizes = {"S", "M", "L"};
inline constexpr const char *kOurs = "encap_db";
inline constexpr const char *kMap = "map";
inline constexpr const char *kFixedMap = "map, pooled, fixed address";
inline constexpr const char *kHash = "unordered_map, pooled";
inline constexpr const char *kLmdb = "LMDB";
inline constexpr const char *kBound = "bound";
inline constexpr const char *kPeek = "encap_db, peek";
inline constexpr const char *kLmdbOwn = "LMDB, own locks";

// "-" for what was not measured.
std::string number(double value, int decimals);

std::string machine_text(const Results &results);
std::string ratios_text(const Results &results);
std::string operations_text(const Results &results);
std::string processes_text(const Results &results);  // throughput and waits
std::string peek_text(const Results &results);
std::string clients_text(const Results &results);
std::string memory_text(const Results &results);
std::string growth_text(const Results &results);
std::string instructions_text(const Results &results);
std::string chart_svg(const Results &results);

}  // namespace encap_bench

#endif
