// The descriptors of the debug points, their chain, and the full test of a point.
#include "points.h"

#include <algorithm>

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

// One descriptor a point, written by the debug facility after registration.
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

// What the descriptor says of a message that it decides itself (ED_SITE_ON).
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

void write_record_of(std::uint64_t handle, std::uint64_t header, const std::uint64_t *v, std::size_t count) {
  switch (count) {
    case 1:
      return _ltrace_1(handle, header, v[0]);
    case 2:
      return _ltrace_2(handle, header, v[0], v[1]);
    case 3:
      return _ltrace_3(handle, header, v[0], v[1], v[2]);
    case 4:
      return _ltrace_4(handle, header, v[0], v[1], v[2], v[3]);
    case 5:
      return _ltrace_5(handle, header, v[0], v[1], v[2], v[3], v[4]);
    case 6:
      return _ltrace_6(handle, header, v[0], v[1], v[2], v[3], v[4], v[5]);
    default:
      return _ltrace_7(handle, header, v[0], v[1], v[2], v[3], v[4], v[5], v[6]);
  }
}

void write_all_records(std::uint32_t word, std::uint32_t id, const std::uint64_t *values) {
  const std::size_t total = std::max<std::size_t>(kPoints[id].num_values, 1);
  for (std::size_t from = 0; from < total; from += kGroup) {
    write_record_of(trace_handle(word), trace_header(id, from / kGroup), values + from, std::min(kGroup, total - from));
  }
}

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
    write_all_records(word, id, values);
  }
}

}  // namespace detail
}  // namespace encap

// The chain's head: the last point first, since the chain falls in lines.
constinit ed_site_t ed_dummy_libmpls_egress_encap_db = {0, 0, 0, 0, 0, 0, &encap::sites[encap::kPointCount - 1], 0};
constinit ed_site_t ed_perf_dummy_libmpls_egress_encap_db = {};
