// Debug points: fixed places in the code that report a message, a trace record, or both.
//
// A point is a static descriptor of the debug facility, one test of its flag word at each pass, and an out-of-line path
// for whatever is rare. By default the message is off and the trace record on; the facility may change the descriptor
// at any time, without a lock, and the next pass of the point sees it.
#ifndef MPLS_EGRESS_ENCAP_DB_POINTS_H
#define MPLS_EGRESS_ENCAP_DB_POINTS_H

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <type_traits>
#include <utility>

#include "ed.h"
#include "ltrace.h"

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

// The table proves itself: ids in order, lines rising and within their 24 bits, as many values as conversions.
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

// The descriptors, in the order of their ids; chained from the last to the first (points.cc).
extern ed_site_t sites[kPointCount];

// Registration record (component.cc). trace_tag and trace_handle are filled by the facility.
extern ed_component_t component;

// Several values that stand side by side in a message, such as the fields of a key.
template <std::size_t N>
struct Values {
  std::uint32_t value[N];
};

namespace detail {

inline constexpr std::uint32_t kMayPrint = ED_SITE_ON | ED_SITE_SLOW;
inline constexpr std::uint32_t kDecided = ED_SITE_TRACE_IF_ON | kMayPrint;
inline constexpr std::size_t kGroup = 7;  // values of one trace record

using AliasedWord [[gnu::may_alias]] = const std::uint32_t;

// flags in bits 0-15, category in 16-23, trace index in 24-31: one load.
inline std::uint32_t first_word(const ed_site_t &site) {
  return __atomic_load_n(reinterpret_cast<AliasedWord *>(&site), __ATOMIC_RELAXED);
}

inline std::uint64_t trace_handle(std::uint32_t word) {
  return component.trace_handle[(word >> 24) % ED_MAX_FLAGS];
}

// Header of record number `group`: id, tag, number, and the constant bits 31 to 34.
inline std::uint64_t trace_header(std::uint32_t id, std::size_t group) {
  const std::uint64_t tag = component.trace_tag & 0x1fU;
  return 0x780000000U | (std::uint64_t{group} << 28) | (tag << 23) | id;
}

template <typename T>
inline constexpr std::size_t kWidth = 1;
template <std::size_t N>
inline constexpr std::size_t kWidth<Values<N>> = N;

template <std::size_t N>
struct Gathered {
  std::uint64_t value[N == 0 ? 1 : N];  // a point without values records a single 0
};

template <std::size_t At, std::size_t N, typename T>
[[gnu::always_inline]] inline void put(Gathered<N> &to, T value) {
  static_assert(std::is_integral_v<T> && sizeof(T) <= sizeof(std::uint32_t));
  to.value[At] = static_cast<std::uint32_t>(value);
}

template <std::size_t At, std::size_t N, std::size_t M, std::size_t... I>
[[gnu::always_inline]] inline void put_each(Gathered<N> &to, const Values<M> &from, std::index_sequence<I...>) {
  ((to.value[At + I] = from.value[I]), ...);
}

template <std::size_t At, std::size_t N, std::size_t M>
[[gnu::always_inline]] inline void put(Gathered<N> &to, const Values<M> &from) {
  put_each<At>(to, from, std::make_index_sequence<M>{});
}

template <std::size_t At, std::size_t N>
[[gnu::always_inline]] inline void gather(Gathered<N> &) {}

template <std::size_t At, std::size_t N, typename First, typename... Rest>
[[gnu::always_inline]] inline void gather(Gathered<N> &to, First first, Rest... rest) {
  put<At>(to, first);
  gather<At + kWidth<First>>(to, rest...);
}

template <typename... V>
[[gnu::always_inline]] inline void write_record(std::uint64_t handle, std::uint64_t header, V... v) {
  constexpr std::size_t kCount = sizeof...(V);
  if constexpr (kCount == 1) {
    _ltrace_1(handle, header, v...);
  } else if constexpr (kCount == 2) {
    _ltrace_2(handle, header, v...);
  } else if constexpr (kCount == 3) {
    _ltrace_3(handle, header, v...);
  } else if constexpr (kCount == 4) {
    _ltrace_4(handle, header, v...);
  } else if constexpr (kCount == 5) {
    _ltrace_5(handle, header, v...);
  } else if constexpr (kCount == 6) {
    _ltrace_6(handle, header, v...);
  } else {
    static_assert(kCount == kGroup);
    _ltrace_7(handle, header, v...);
  }
}

template <std::size_t From, std::size_t N, std::size_t... I>
[[gnu::always_inline]] inline void write_group(std::uint64_t handle, std::uint32_t id, const Gathered<N> &values,
                                               std::index_sequence<I...>) {
  write_record(handle, trace_header(id, From / kGroup), values.value[From + I]...);
}

// Writes the values from number From on, in records of at most seven.
template <std::size_t From, std::size_t N>
[[gnu::always_inline]] inline void write_records(std::uint64_t handle, std::uint32_t id, const Gathered<N> &values) {
  constexpr std::size_t kTotal = N == 0 ? 1 : N;
  if constexpr (From < kTotal) {
    constexpr std::size_t kCount = kTotal - From < kGroup ? kTotal - From : kGroup;
    write_group<From>(handle, id, values, std::make_index_sequence<kCount>{});
    write_records<From + kCount>(handle, id, values);
  }
}

// The whole test of a point, for any state of its descriptor. `values` holds the point's values, at least one word.
[[gnu::cold, gnu::noinline]] void pass(Point point, const std::uint64_t *values);

}  // namespace detail

// Passes a point. Takes its values in the order of its message, each a 32-bit pattern or a pack of them; a wrong number
// of values does not compile. Returns nothing and cannot fail.
template <Point P, typename... V>
[[gnu::always_inline]] inline void emit(V... values) {
  constexpr std::size_t kCount = (std::size_t{0} + ... + detail::kWidth<V>);
  constexpr PointFacts kFacts = facts(P);
  static_assert(kCount == kFacts.num_values, "the point's message has another number of values");
  detail::Gathered<kCount> gathered{};
  detail::gather<0>(gathered, values...);
  if constexpr (kFacts.category != Category::event) {
    detail::pass(P, gathered.value);
  } else {
    const std::uint32_t word = detail::first_word(sites[static_cast<std::size_t>(P)]);
    if (__builtin_expect(word & detail::kDecided, 0) != 0) {
      if ((word & detail::kMayPrint) == 0) {
        return;  // traced only when on, and not on
      }
      const auto spilled = gathered;  // only here do the values need an address
      detail::pass(P, spilled.value);
    } else if constexpr (kFacts.traced) {
      detail::write_records<0>(detail::trace_handle(word), static_cast<std::uint32_t>(P), gathered);
    }
  }
}

}  // namespace encap

#endif
