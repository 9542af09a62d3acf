#include "catalogue.h"

#include <iterator>

namespace {

enum Category : unsigned char { error, event, init };
enum Trace : unsigned char { untraced, traced };

constexpr const char *kCategoryNames[] = {"error", "event", "init"};

constexpr ed_catalogue_row_t kRows[] = {
#define ED_POINT(id, line, category, trace, values, function, symbol, ...) \
  {id, line, values, category, trace, #function, #__VA_ARGS__},
#include "debug_points.def"
};

}  // namespace

extern "C" constinit const ed_catalogue_t encap_catalogue = {
    "libmpls_egress_encap_db", std::size(kCategoryNames), kCategoryNames, std::size(kRows), kRows,
};
