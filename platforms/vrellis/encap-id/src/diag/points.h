// Emitting debug points. A point is a fixed place in the code that reports a message, a trace record, or both.
//
// A point is a static descriptor of the debug facility, one test of its flag word at each pass, and an out-of-line path
// for the rare cases. By default the message is off and the trace record is on. The facility may change the descriptor
// at any time, without a lock, and the next pass of the point sees the change.
#ifndef MPLS_EGRESS_ENCAP_DB_POINTS_H
#define MPLS_EGRESS_ENCAP_DB_POINTS_H

#include <type_traits>

#include "ed.h"
#include "ltrace.h"
#include "point_facts.h"

namespace encap {

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

// The flags are bits 0-15, the category 16-23 and the trace index 24-31 of the descriptor's first word: one load.
inline std::uint32_t first_word(const ed_site_t &site) {
  return __atomic_load_n(reinterpret_cast<AliasedWord *>(&site), __ATOMIC_RELAXED);
}

inline std::uint64_t trace_handle(std::uint32_t word) {
  return component.trace_handle[(word >> 24) % ED_MAX_FLAGS];
}

// The header of a trace record:
//
//     63      35 34   31 30   28 27   23 22       0
//    |    0     |  1111 | group |  tag  |    id    |    group: the record's number among those of one pass
inline std::uint64_t trace_header(std::uint32_t id, std::size_t group) {
  const std::uint64_t tag = component.trace_tag & 0x1fU;
  return 0x780000000U | (std::uint64_t{group} << 28) | (tag << 23) | id;
}

// The number of values that one argument of emit() stands for.
template <typename T>
inline constexpr std::size_t kWidth = 1;
template <std::size_t N>
inline constexpr std::size_t kWidth<Values<N>> = N;

template <typename T>
[[gnu::always_inline]] inline std::uint64_t *put(std::uint64_t *to, T value) {
  static_assert(std::is_integral_v<T> && sizeof(T) <= sizeof(std::uint32_t));
  *to = static_cast<std::uint32_t>(value);
  return to + 1;
}

template <std::size_t N>
[[gnu::always_inline]] inline std::uint64_t *put(std::uint64_t *to, const Values<N> &values) {
#pragma GCC unroll 8
  for (std::size_t i = 0; i < N; ++i) {
    to[i] = values.value[i];
  }
  return to + N;
}

// Writes `Count` values, one to seven, as one trace record.
template <std::size_t Count>
[[gnu::always_inline]] inline void write_record(std::uint64_t handle, std::uint64_t header, const std::uint64_t *v) {
  if constexpr (Count == 1) {
    _ltrace_1(handle, header, v[0]);
  } else if constexpr (Count == 2) {
    _ltrace_2(handle, header, v[0], v[1]);
  } else if constexpr (Count == 3) {
    _ltrace_3(handle, header, v[0], v[1], v[2]);
  } else if constexpr (Count == 4) {
    _ltrace_4(handle, header, v[0], v[1], v[2], v[3]);
  } else if constexpr (Count == 5) {
    _ltrace_5(handle, header, v[0], v[1], v[2], v[3], v[4]);
  } else if constexpr (Count == 6) {
    _ltrace_6(handle, header, v[0], v[1], v[2], v[3], v[4], v[5]);
  } else {
    static_assert(Count == kGroup);
    _ltrace_7(handle, header, v[0], v[1], v[2], v[3], v[4], v[5], v[6]);
  }
}

// Writes `Count` values in records of at most seven, the first of which has the number `Group`. This is the one place
// that cuts values into records.
template <std::size_t Count, std::size_t Group = 0>
[[gnu::always_inline]] inline void write_records(std::uint64_t handle, std::uint32_t id, const std::uint64_t *values) {
  constexpr std::size_t kFirst = Count < kGroup ? Count : kGroup;
  write_record<kFirst>(handle, trace_header(id, Group), values);
  if constexpr (Count > kGroup) {
    write_records<Count - kGroup, Group + 1>(handle, id, values + kGroup);
  }
}

// The whole test of a point, for any state of its descriptor. `values` holds the point's values, at least one word.
[[gnu::cold, gnu::noinline]] void pass(Point point, const std::uint64_t *values);

template <std::size_t N>
struct Gathered {
  std::uint64_t value[N];
};

}  // namespace detail

// Passes a point. Takes its values in the order of its message, each a 32-bit pattern or a pack of them; a wrong number
// of values does not compile. Returns nothing and cannot fail.
template <Point P, typename... V>
[[gnu::always_inline]] inline void emit(V... values) {
  constexpr std::size_t kCount = (std::size_t{0} + ... + detail::kWidth<V>);
  constexpr PointFacts kFacts = facts(P);
  static_assert(kCount == kFacts.num_values, "the point's message has another number of values");
  detail::Gathered<kCount == 0 ? 1 : kCount> gathered{};  // a point without values records a single 0
  [[maybe_unused]] std::uint64_t *next = gathered.value;
  ((next = detail::put(next, values)), ...);
  if constexpr (kFacts.category != Category::event) {
    detail::pass(P, gathered.value);
  } else {
    const std::uint32_t word = detail::first_word(sites[static_cast<std::size_t>(P)]);
    if (__builtin_expect(word & detail::kDecided, 0) != 0) {
      if ((word & detail::kMayPrint) == 0) {
        return;  // traced only when on, and not on
      }
      const auto spilled = gathered;  // only this path needs the values in memory
      detail::pass(P, spilled.value);
    } else if constexpr (kFacts.traced) {
      detail::write_records<std::size(gathered.value)>(detail::trace_handle(word), static_cast<std::uint32_t>(P),
                                                       gathered.value);
    }
  }
}

}  // namespace encap

#endif
