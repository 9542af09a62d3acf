#include "remote/points.h"

#include <fmt/format.h>

#include <algorithm>

#include "diag/catalogue.h"
#include "ed/query.h"
#include "output/failure.h"

namespace encapctl {
namespace {

constexpr char kLibrary[] = "libmpls_egress_encap_db.so";
constexpr char kHead[] = "ed_dummy_libmpls_egress_encap_db";

ed_point_t point_of(const ed_catalogue_row_t &row, std::uint16_t flags) {
  return {encap_catalogue.component,
          encap_catalogue.category[row.category],
          row.function,
          row.format,
          row.id,
          row.line,
          row.num_values,
          flags};
}

// Whether a descriptor found there is that of the row: nothing is ever written to one that is not.
bool is_row(const ed_site_t &site, const ed_catalogue_row_t &row) {
  constexpr std::uint16_t kStored = ED_SITE_PRESENT | ED_SITE_MESSAGE;
  const std::uint8_t trace_index = row.traced != 0 ? row.category : ED_NO_TRACE_INDEX;
  return (site.flags & kStored) == kStored && ((site.flags & ED_SITE_TRACE) != 0) == (row.traced != 0) &&
         site.category == row.category && site.trace_index == trace_index && site.num_values == row.num_values;
}

bool lies_in_data(const std::vector<Mapping> &mappings, std::uint64_t address) {
  return address % alignof(ed_site_t) == 0 && std::any_of(mappings.begin(), mappings.end(), [&](const Mapping &each) {
           return each.writable && address >= each.begin && address < each.end &&
                  each.end - address >= sizeof(ed_site_t);
         });
}

// The statements of a query, each of them sound for these points.
std::vector<vrellis::Query> read_query(const std::vector<RemotePoint> &points, const std::string &text) {
  std::vector<vrellis::Query> statements;
  vrellis::QueryReader reader(text);
  ed_query_error_t error{};
  while (true) {
    vrellis::Query query;
    const vrellis::QueryReader::Result result = reader.next(query, error);
    if (result == vrellis::QueryReader::Result::end) {
      return statements;
    }
    bool sound = result == vrellis::QueryReader::Result::statement;
    if (sound) {
      vrellis::Verdict verdict(query);
      std::for_each(points.begin(), points.end(), [&](const RemotePoint &point) { verdict.see(point.row); });
      sound = verdict.sound(error);
    }
    if (!sound) {
      throw Failure(fmt::format("{}\n  {}\n  {:>{}}", error.text, text, '^', error.position + 1));
    }
    statements.push_back(query);
  }
}

void store(const RemoteProcess &process, const RemotePoint &point, std::uint16_t flags, bool reset_line) {
  const bool stored = (!reset_line || process.write(point.address + offsetof(ed_site_t, line), &point.row.line,
                                                    sizeof point.row.line)) &&
                      process.write(point.address + offsetof(ed_site_t, flags), &flags, sizeof flags);
  if (!stored) {
    throw Failure(fmt::format("point {} of process {} lies at {:#x}, where nothing can be stored", point.row.id,
                              process.pid(), point.address));
  }
}

}  // namespace

std::vector<ed_point_t> catalogue_points() {
  std::vector<ed_point_t> points;
  for (std::uint32_t id = 0; id < encap_catalogue.num_rows; ++id) {
    const ed_catalogue_row_t &row = encap_catalogue.row[id];
    points.push_back(point_of(
        row, static_cast<std::uint16_t>(ED_SITE_PRESENT | ED_SITE_MESSAGE | (row.traced != 0 ? ED_SITE_TRACE : 0))));
  }
  return points;
}

std::vector<RemotePoint> read_points(const RemoteProcess &process) {
  const std::uint64_t head_address = find_symbol(process, kLibrary, kHead);
  const std::vector<Mapping> mappings = process.mappings_of(kLibrary);
  const auto head = process.read_record<ed_site_t>(head_address);
  std::uint64_t next = head ? reinterpret_cast<std::uint64_t>(head->next) : 0;
  std::vector<RemotePoint> points;
  for (std::uint32_t id = encap_catalogue.num_rows; id-- > 0;) {  // the chain runs from the last point to the first
    const ed_catalogue_row_t &row = encap_catalogue.row[id];
    const auto site = lies_in_data(mappings, next) ? process.read_record<ed_site_t>(next) : std::nullopt;
    if (!site || !is_row(*site, row)) {
      throw Failure(
          fmt::format("the debug points of process {} are not those that this command knows: it is damaged "
                      "at point {}, or of another version",
                      process.pid(), id));
    }
    points.push_back({next, point_of(row, site->flags)});
    next = reinterpret_cast<std::uint64_t>(site->next);
  }
  std::reverse(points.begin(), points.end());
  return points;
}

Switched switch_points(const RemoteProcess &process, std::vector<RemotePoint> &points, const std::string &query) {
  const std::vector<vrellis::Query> statements = read_query(points, query);
  Switched switched;
  for (RemotePoint &point : points) {
    const std::uint16_t before = point.row.flags;
    bool selected = false;
    bool reset_line = false;
    for (const vrellis::Query &statement : statements) {
      if (statement.selects(point.row)) {
        point.row.flags = statement.changed_flags(point.row.flags);
        selected = true;
        reset_line = reset_line || statement.from_stored;
      }
    }
    if (point.row.flags != before || reset_line) {
      store(process, point, point.row.flags, reset_line);
    }
    switched.selected += selected ? 1 : 0;
    if (point.row.flags != before) {
      switched.changed.push_back(point.row.id);
    }
  }
  return switched;
}

}  // namespace encapctl
