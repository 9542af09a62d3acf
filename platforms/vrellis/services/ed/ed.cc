#include "ed.h"

#include <pthread.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <span>
#include <string_view>

#include "ed/query.h"
#include "ed/registry.h"
#include "ed_catalogue.h"
#include "ltrace.h"
#include "oxa_errmsg/log_line.h"

namespace {

using namespace vrellis;

constexpr size_t kMaxCatalogues = 32;
constexpr uint32_t kMaxPoints = 65536;  // a longer chain is cut here, since it may be a ring

// A registered component. Its place in the table is its trace tag - 1. Its fields are fixed before the table's size is
// raised, except the catalogue, which may come later.
struct Entry {
  ed_component_t *component = nullptr;
  uint32_t num_points = 0;
  std::atomic<const ed_catalogue_t *> catalogue{nullptr};
};

// Guards changes of the tables and of the points' flags. Printing and listing read both without it.
constinit pthread_mutex_t registry_mutex = PTHREAD_MUTEX_INITIALIZER;
constinit std::array<Entry, ED_MAX_COMPONENTS> registry{};
constinit std::atomic<size_t> registry_size{0};  // entries below it may be read
constinit std::array<const ed_catalogue_t *, kMaxCatalogues> catalogues{};

// The thread that held the mutex when the process forked does not exist in the child, so the child makes it anew. A
// table is complete at every moment: what that thread was adding is not counted yet, and the child can add it again.
void child_begins() {
  registry_mutex = PTHREAD_MUTEX_INITIALIZER;
}

[[gnu::constructor]] void watch_forks() {
  pthread_atfork(nullptr, nullptr, child_begins);
}

class RegistryLock {
 public:
  RegistryLock() { pthread_mutex_lock(&registry_mutex); }
  ~RegistryLock() { pthread_mutex_unlock(&registry_mutex); }
  RegistryLock(const RegistryLock &) = delete;
  RegistryLock &operator=(const RegistryLock &) = delete;
};

std::span<Entry> registered() {
  return std::span(registry).first(registry_size.load(std::memory_order_acquire));
}

uint32_t count_points(const ed_component_t &component) {
  uint32_t count = 0;
  if (component.sites != nullptr) {
    for (const ed_site_t *site = component.sites->next; site != nullptr && count < kMaxPoints; site = site->next) {
      ++count;
    }
  }
  return count;
}

ed_point_t describe(const Entry &entry, ed_site_t &site, uint32_t id) {
  const ed_catalogue_t *catalogue = entry.catalogue.load(std::memory_order_acquire);
  ed_point_t point = {or_nothing(entry.component->name),
                      category_name(*entry.component, site.category),
                      "",
                      "",
                      id,
                      line_word_of(site) & ED_LINE_MASK,
                      site.num_values,
                      flags_of(site)};
  if (catalogue != nullptr) {
    point.function = or_nothing(catalogue->row[id].function);
    point.text = or_nothing(catalogue->row[id].format);
    point.line = catalogue->row[id].line;
  }
  return point;
}

// Calls visit(site, point) for each point of a component. The chain is in descending order of lines, so its last point
// has id 0.
template <class Visit>
void for_each_point_of(const Entry &entry, Visit visit) {
  ed_site_t *site = entry.component->sites;
  for (uint32_t id = entry.num_points; id-- > 0;) {
    site = site->next;
    visit(*site, describe(entry, *site, id));
  }
}

// True if the catalogue describes the points of this chain.
bool fits(const ed_catalogue_t &catalogue, const Entry &entry) {
  if (std::strcmp(or_nothing(catalogue.component), or_nothing(entry.component->name)) != 0 ||
      catalogue.num_rows != entry.num_points || catalogue.row == nullptr) {
    return false;
  }
  bool all_fit = true;
  for_each_point_of(entry, [&](const ed_site_t &, const ed_point_t &point) {
    all_fit = all_fit && catalogue.row[point.id].num_values == point.num_values;
  });
  return all_fit;
}

// Requires: registry_mutex.
void find_catalogue(Entry &entry) {
  for (const ed_catalogue_t *catalogue : catalogues) {
    if (catalogue != nullptr && entry.catalogue.load(std::memory_order_relaxed) == nullptr && fits(*catalogue, entry)) {
      entry.catalogue.store(catalogue, std::memory_order_release);
    }
  }
}

// Judges a statement by the points of some components. Requires: registry_mutex.
bool makes_sense(const Query &query, std::span<const Entry> entries, ed_query_error_t &error) {
  Verdict verdict(query);
  for (const Entry &entry : entries) {
    for_each_point_of(entry, [&](const ed_site_t &, const ed_point_t &point) { verdict.see(point); });
  }
  return verdict.sound(error);
}

// Requires: registry_mutex, which keeps other changes away. The points read their flags while this changes them.
void apply(const Query &query, std::span<const Entry> entries) {
  for (const Entry &entry : entries) {
    for_each_point_of(entry, [&](ed_site_t &site, const ed_point_t &point) {
      if (!query.selects(point)) {
        return;
      }
      if (query.from_stored) {
        std::atomic_ref(site.line).store(point.line, std::memory_order_relaxed);
      }
      std::atomic_ref(site.flags).store(query.changed_flags(point.flags), std::memory_order_relaxed);
    });
  }
}

// Applies ED_DEBUG to a new component; statements that name other components are left out. Requires: registry_mutex.
void apply_environment(const Entry &entry) {
  const char *text = secure_getenv("ED_DEBUG");
  QueryReader reader(or_nothing(text));
  const std::span<const Entry> entries(&entry, 1);
  Query query;
  ed_query_error_t error{};
  while (true) {
    const QueryReader::Result result = reader.next(query, error);
    if (result == QueryReader::Result::end) {
      return;
    }
    if (result == QueryReader::Result::statement && !query.may_concern(or_nothing(entry.component->name))) {
      continue;
    }
    if (result == QueryReader::Result::statement && makes_sense(query, entries, error)) {
      apply(query, entries);
      continue;
    }
    LogLine line;
    line.text("ED_DEBUG for ").text(entry.component->name).text(", ").text(error.text);
    put_line(line);
  }
}

// Calls visit(query) for each statement until it answers false.
// Returns: true when there is at least one statement and none has a mistake.
template <class Visit>
bool for_each_statement(std::string_view text, ed_query_error_t &error, Visit visit) {
  QueryReader reader(text);
  Query query;
  QueryReader::Result result;
  unsigned count = 0;
  while ((result = reader.next(query, error)) == QueryReader::Result::statement && visit(query)) {
    ++count;
  }
  if (result == QueryReader::Result::end && count == 0) {
    describe_mistake(error, 0, "the query is empty");
  }
  return result == QueryReader::Result::end && count != 0;
}

}  // namespace

std::optional<uint32_t> vrellis::point_id(const ed_component_t &component, uint32_t own_line) {
  for (const Entry &entry : registered()) {
    const ed_catalogue_t *catalogue = entry.catalogue.load(std::memory_order_acquire);
    if (entry.component != &component || catalogue == nullptr) {
      continue;
    }
    const std::span rows(catalogue->row, catalogue->num_rows);
    const auto row = std::lower_bound(rows.begin(), rows.end(), own_line,
                                      [](const ed_catalogue_row_t &each, uint32_t line) { return each.line < line; });
    if (row != rows.end() && row->line == own_line) {
      return row->id;
    }
  }
  return std::nullopt;
}

void ed_init(ed_component_t *component) {
  const RegistryLock lock;
  for (const Entry &entry : registered()) {
    if (entry.component == component) {
      return;
    }
  }
  const size_t place = registry_size.load(std::memory_order_relaxed);
  if (place == registry.size()) {
    LogLine line;
    line.text("debug facility: no room to register ").text(component->name);
    put_line(line);
    return;
  }
  const auto tag = static_cast<uint32_t>(place + 1);
  ltrace_name_component(tag, or_nothing(component->name));
  component->trace_tag = tag;
  for (uint32_t i = 0; i < std::min<uint32_t>(component->num_flags, ED_MAX_FLAGS); ++i) {
    component->trace_handle[i] = uint64_t{tag} << 8 | (i + 1);
  }
  Entry &entry = registry[place];
  entry.component = component;
  entry.num_points = count_points(*component);
  find_catalogue(entry);
  registry_size.store(place + 1, std::memory_order_release);
  apply_environment(entry);
}

void ed_add_catalogue(const ed_catalogue_t *catalogue) {
  const RegistryLock lock;
  const auto place = std::find(catalogues.begin(), catalogues.end(), nullptr);
  if (place == catalogues.end() || std::find(catalogues.begin(), place, catalogue) != place) {
    return;
  }
  *place = catalogue;
  for (Entry &entry : registered()) {
    find_catalogue(entry);
  }
}

int ed_query(const char *query, ed_query_error_t *error) {
  ed_query_error_t ignored;
  ed_query_error_t &mistake = error == nullptr ? ignored : *error;
  mistake = {};
  const std::string_view text(or_nothing(query));
  const RegistryLock lock;
  const std::span<const Entry> entries = registered();
  const auto check = [&](const Query &each) { return makes_sense(each, entries, mistake); };
  if (!for_each_statement(text, mistake, check)) {
    return EINVAL;
  }
  for_each_statement(text, mistake, [&](const Query &each) {
    apply(each, entries);
    return true;
  });
  return 0;
}

void ed_for_each_point(ed_point_visitor visit, void *context) {
  for (const Entry &entry : registered()) {
    for_each_point_of(entry, [&](const ed_site_t &, const ed_point_t &point) { visit(context, &point); });
  }
}
