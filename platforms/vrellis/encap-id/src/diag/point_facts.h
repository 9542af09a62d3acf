// The facts of the debug points that the compiler knows: the table debug_points.def as an enumeration and an array.
#ifndef MPLS_EGRESS_ENCAP_DB_POINT_FACTS_H
#define MPLS_EGRESS_ENCAP_DB_POINT_FACTS_H

#include <cstddef>
#include <cstdint>
#include <iterator>

#include "ed.h"

namespace encap {

enum class Category : std::uint8_t { error, event, init };
inline constexpr std::size_t kCategories = 3;

enum class Point : std::uint8_t {
#define ED_POINT(id, line, category, trace, values, about, function, symbol, ...) symbol = id,
#include "debug_points.def"
};

struct PointFacts {
  std::uint32_t line;
  Category category;
  bool traced;
  std::uint32_t num_values;
  const char *text;
};

namespace trace_word {
inline constexpr bool traced = true;
inline constexpr bool untraced = false;
}  // namespace trace_word

inline constexpr PointFacts kPoints[] = {
#define ED_POINT(id, line, category, trace, values, about, function, symbol, ...) \
  {line, Category::category, trace_word::trace, values, #__VA_ARGS__},
#include "debug_points.def"
};
inline constexpr std::size_t kPointCount = std::size(kPoints);
inline constexpr std::size_t kMaxValues = 15;

constexpr const PointFacts &facts(Point point) {
  return kPoints[static_cast<std::size_t>(point)];
}

// The compiler checks the table: ids stand in order, lines rise and fit into 24 bits, and each row has as many values
// as its text has conversions.
namespace table_check {
constexpr std::uint32_t kIds[] = {
#define ED_POINT(id, line, category, trace, values, about, function, symbol, ...) id,
#include "debug_points.def"
};

constexpr std::uint32_t conversions(const char *text) {
  std::uint32_t count = 0;
  for (; *text != '\0'; ++text) {
    count += *text == '%' ? 1 : 0;
  }
  return count;
}

constexpr bool row_holds(std::size_t row) {
  const PointFacts &point = kPoints[row];
  const bool rises = row == 0 || kPoints[row - 1].line < point.line;
  return kIds[row] == row && rises && point.line <= ED_LINE_MASK && point.num_values <= kMaxValues &&
         point.num_values == conversions(point.text);
}

constexpr bool holds() {
  for (std::size_t row = 0; row < kPointCount; ++row) {
    if (!row_holds(row)) {
      return false;
    }
  }
  return true;
}

constexpr std::size_t count(Category category) {
  std::size_t found = 0;
  for (const PointFacts &point : kPoints) {
    found += point.category == category ? 1 : 0;
  }
  return found;
}

static_assert(holds(), "debug_points.def: an id, a line or a number of values is wrong");
static_assert(kPointCount == 120 && kPoints[0].line == 132);
static_assert(count(Category::error) == 73 && count(Category::event) == 39 && count(Category::init) == 8);
}  // namespace table_check

}  // namespace encap

#endif
