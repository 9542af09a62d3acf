// A component with the real layout, registered with the debug facility, whose lines are kept.
#ifndef TESTS_SERVICES_ED_FIXTURE_H
#define TESTS_SERVICES_ED_FIXTURE_H

#include "ed.h"
#include "ed_catalogue.h"
#include "oxa_errmsg/kept_lines.h"

inline constexpr uint16_t kTraced = ED_SITE_PRESENT | ED_SITE_MESSAGE | ED_SITE_TRACE;
inline constexpr uint16_t kUntraced = ED_SITE_PRESENT | ED_SITE_MESSAGE;

constexpr const char *kDropped = "\"port_close out of range; dropped\"";
inline const ed_catalogue_row_t kRows[] = {
    {0, 100, 2, 1, 1, "port_open", R"("port_open ifh 0x%x, " "speed %u")"},
    {1, 110, 1, 0, 1, "port_open", R"("port_open no memory" ": rc %d")"},
    {2, 120, 1, 1, 0, "port_open", R"("port_open return rc %d")"},
    {3, 200, 0, 0, 1, "port_close", kDropped},
    {4, 210, 0, 2, 1, "init_ports", R"("init_ports")"},
};
inline const char *const kCategories[] = {"error", "event", "init"};

// A component of five points. It stays registered, so it is never freed.
struct Component {
  explicit Component(const char *name) {
    record.name = name;
    record.sites = &head;
    record.num_flags = 3;
    for (size_t i = 0; i < 3; ++i) {
      record.flag[i].name = kCategories[i];
    }
    head.next = &site[4];
    for (size_t id = 0; id < 5; ++id) {
      const ed_catalogue_row_t &row = kRows[id];
      const bool traced = row.traced != 0;
      const uint8_t trace_index = traced ? row.category : uint8_t{ED_NO_TRACE_INDEX};
      ed_site_t *const next = id == 0 ? nullptr : &site[id - 1];
      site[id] = {traced ? kTraced : kUntraced, row.category, trace_index, row.line, row.num_values, 0, next, 0};
    }
    catalogue = {name, 3, kCategories, 5, kRows};
  }

  Strings letters() const {
    Strings all;
    for (const ed_site_t &each : site) {
      char text[8];
      ed_flag_letters(__atomic_load_n(&each.flags, __ATOMIC_RELAXED), text);
      all.emplace_back(text);
    }
    return all;
  }

  ed_site_t head{};
  ed_site_t site[5];
  ed_component_t record{};
  ed_catalogue_t catalogue;
};

class Ed : public testing::Test {
 protected:
  void SetUp() override {
    ed_add_catalogue(&ports.catalogue);
    ed_init(&ports.record);
    ASSERT_EQ(ed_query("=_", nullptr), 0);
    ed_set_sink(keep_line, nullptr);
    lines.clear();
  }
  void TearDown() override { ed_set_sink(nullptr, nullptr); }

  void print(size_t id, std::vector<uint64_t> values, const char *format, Component &component = ports) {
    ed_print_debug(&component.site[id], &component.record, values.data(), 0, kRows[id].line, 0, format, 0);
  }
  int pass_slowly(size_t id) {
    int enabled = 0;
    const uint64_t values[2] = {7, 8};
    ed_slow_debugs(&ports.site[id], &ports.record, &enabled, values, 0, kRows[id].line, 0, kRows[id].format, 0);
    return enabled;
  }

  static inline Component &ports = *new Component("libports");
};

#endif
