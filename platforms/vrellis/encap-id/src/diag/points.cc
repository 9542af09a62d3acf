// The descriptors of the debug points, their chain, and the full test of a point.
#include "points.h"

#include "mpls_egress_encap_db.h"

namespace encap {

namespace {

constexpr std::uint16_t stored_flags(bool traced) {
  return static_cast<std::uint16_t>(ED_SITE_PRESENT | ED_SITE_MESSAGE | (traced ? ED_SITE_TRACE : 0));
}

constexpr std::uint8_t stored_trace_index(Category category, bool traced) {
  return traced ? static_cast<std::uint8_t>(category) : std::uint8_t{ED_NO_TRACE_INDEX};
}

constexpr ed_site_t stored_site(std::size_t id, ed_site_t *next) {
  const PointFacts &point = kPoints[id];
  return {stored_flags(point.traced),
          static_cast<std::uint8_t>(point.category),
          stored_trace_index(point.category, point.traced),
          point.line,
          point.num_values,
          0,
          next,
          0};
}

}  // namespace

// The descriptors, one for each point. The debug facility writes them after the registration.
constinit ed_site_t sites[kPointCount] = {
#define ED_POINT(id, line, category, trace, values, about, function, symbol, ...) \
  stored_site(id, (id) == 0 ? nullptr : &sites[(id) - ((id) == 0 ? 0 : 1)]),
#include "debug_points.def"
};

namespace detail {
namespace {

struct Decision {
  int enabled;  // an int, since the facility may set it
  bool print;
};

// Decides about the message of a point whose descriptor says enough for that (ED_SITE_ON).
Decision decide(const ed_site_t &site, std::uint32_t flags, std::uint32_t own_line) {
  const std::uint32_t line_word = __atomic_load_n(&site.line, __ATOMIC_RELAXED);
  const bool filters_lines = (flags & ED_SITE_LINE_FILTER) != 0;
  bool enabled = true;
  if ((line_word >> ED_FILTER_SET_SHIFT) != 0 || filters_lines) {
    enabled = !filters_lines || (line_word & ED_LINE_MASK) == own_line;
    enabled = (flags & ED_SITE_INVERT) != 0 ? !enabled : enabled;
  }
  return {enabled ? 1 : 0, enabled && (flags & (ED_SITE_QUIET | ED_SITE_TRACE_IF_ON)) == 0};
}

// The writers of the points' records, by the number of values. A point without values records a single 0.
using Writer = void(std::uint64_t handle, std::uint32_t id, const std::uint64_t *values);
constexpr Writer *kWriters[kMaxValues + 1] = {
    write_records<1>,  write_records<1>,  write_records<2>,  write_records<3>, write_records<4>,  write_records<5>,
    write_records<6>,  write_records<7>,  write_records<8>,  write_records<9>, write_records<10>, write_records<11>,
    write_records<12>, write_records<13>, write_records<14>, write_records<15>};

}  // namespace

void pass(Point point, const std::uint64_t *values) {
  const auto id = static_cast<std::uint32_t>(point);
  const PointFacts &own = kPoints[id];
  ed_site_t &site = sites[id];
  const std::uint32_t word = first_word(site);
  int enabled = 0;
  if ((word & ED_SITE_ON) != 0) {
    const Decision decision = decide(site, word, own.line);
    enabled = decision.enabled;
    if (decision.print) {
      ed_print_debug(&site, &component, values, 0, own.line, 0, own.text, 0);
    }
  } else if ((word & ED_SITE_SLOW) != 0) {
    ed_slow_debugs(&site, &component, &enabled, values, 0, own.line, 0, own.text, 0);
  }
  if (own.traced && ((word & ED_SITE_TRACE_IF_ON) == 0 || enabled != 0)) {
    kWriters[own.num_values](trace_handle(word), id, values);
  }
}

}  // namespace detail
}  // namespace encap

// The chain's head: the last point first, since the chain falls in lines.
constinit ed_site_t ed_dummy_libmpls_egress_encap_db = {0, 0, 0, 0, 0, 0, &encap::sites[encap::kPointCount - 1], 0};
constinit ed_site_t ed_perf_dummy_libmpls_egress_encap_db = {};
