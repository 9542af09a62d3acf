#include "component.h"

#include <cstdint>

#include "mpls_egress_encap_db.h"
#include "points.h"

namespace encap {

namespace {

constexpr std::uint64_t kPresetFlagValue = 1000;
constexpr std::uint64_t kRegisteredFlagValue = 0x18000;

constexpr ed_flag_t preset_flag(const char *name) {
  return {name, kPresetFlagValue, {}, 1, {}};
}

constinit int registered = 0;

}  // namespace

// The flags stand in the order of Category.
constinit ed_component_t component = {
    0,
    0,
    0,
    &ed_dummy_libmpls_egress_encap_db,
    &ed_perf_dummy_libmpls_egress_encap_db,
    {},
    "libmpls_egress_encap_db",
    {},
    kCategories,
    {preset_flag("error"), preset_flag("event"), preset_flag("init")},
};

void mpls_egress_encap_dbg_init() {
  emit<Point::debug_init_entry>();
  if (registered != 0) {
    return;
  }
  for (std::uint32_t i = 0; i < component.num_flags; ++i) {
    component.flag[i].value = kRegisteredFlagValue;
  }
  ed_init(&component);
  registered = 1;
}

}  // namespace encap
