#include "catalogue.h"

#include <iterator>

namespace {

enum Category : unsigned char { error, event, init };
enum Trace : unsigned char { untraced, traced };

constexpr const char *kCategoryNames[] = {"error", "event", "init"};

constexpr ed_catalogue_row_t kRows[] = {
#define ED_POINT(id, line, category, trace, values, about, function, symbol, ...) \
  {id, line, values, category, trace, #function, #__VA_ARGS__},
#include "debug_points.def"
};

constexpr encap_point_subject_t none{};
constexpr encap_point_subject_t nh(unsigned char value) {
  return {value, 0, 0, 0};
}
constexpr encap_point_subject_t tunnel(unsigned char value) {
  return {0, value, 0, 0};
}
constexpr encap_point_subject_t both(unsigned char nh_value, unsigned char tunnel_value) {
  return {nh_value, tunnel_value, 0, 0};
}
constexpr encap_point_subject_t found(unsigned char nh_value, unsigned char tunnel_value, unsigned char nh_found,
                                      unsigned char tunnel_found) {
  return {nh_value, tunnel_value, nh_found, tunnel_found};
}

constexpr bool has_values(const encap_point_subject_t &about, unsigned values) {
  return about.nh <= values && about.tunnel <= values && about.nh_found <= values && about.tunnel_found <= values;
}
#define ED_POINT(id, line, category, trace, values, about, ...) static_assert(has_values(about, values));
#include "debug_points.def"

}  // namespace

extern "C" constinit const encap_point_subject_t encap_point_subject[] = {
#define ED_POINT(id, line, category, trace, values, about, ...) about,
#include "debug_points.def"
};

extern "C" constinit const ed_catalogue_t encap_catalogue = {
    "libmpls_egress_encap_db", std::size(kCategoryNames), kCategoryNames, std::size(kRows), kRows,
};
