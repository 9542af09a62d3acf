// encapctl debug: the debug points, and switching them in a running process.
#include <fmt/format.h>

#include <algorithm>
#include <map>

#include "output/output.h"
#include "remote/points.h"
#include "verbs.h"

namespace encapctl {
namespace {

struct DebugOptions {
  std::optional<std::uint32_t> pid;
  std::vector<std::string> query;
  OutputOptions output;
};

// The message with its pieces joined: "vrl_mem_... ref count %d".
std::string joined_text(const char *stored) {
  std::string text(ed_format_joined(nullptr, 0, stored, nullptr, 0), '\0');
  ed_format_joined(text.data(), text.size() + 1, stored, nullptr, 0);
  return text;
}

std::string letters_of(const ed_point_t &point) {
  char letters[8];
  ed_flag_letters(point.flags, letters);
  return letters[0] != '\0' ? letters : "-";
}

void print_point(const Output &out, Table &table, const ed_point_t &point) {
  const bool on = (point.flags & (ED_SITE_ON | ED_SITE_SLOW)) != 0;
  if (!out.json()) {
    table.row({fmt::format("{}", point.id), point.category, fmt::format("{}", point.line), letters_of(point),
               joined_text(point.text).starts_with(point.function)
                   ? joined_text(point.text)
                   : fmt::format("{}: {}", point.function, joined_text(point.text))},
              on ? Style::good : Style::plain);
    return;
  }
  out.object("point", {{"id", point.id},
                       {"category", point.category},
                       {"function", point.function},
                       {"line", point.line},
                       {"values", point.num_values},
                       {"traced", (point.flags & ED_SITE_TRACE) != 0},
                       {"flags", letters_of(point) == "-" ? "" : letters_of(point)},
                       {"message", joined_text(point.text)}});
}

int list(DebugOptions &options) {
  std::vector<ed_point_t> points = catalogue_points();
  if (options.pid) {
    points.clear();
    for (const RemotePoint &point : read_points(RemoteProcess(*options.pid))) {
      points.push_back(point.row);
    }
  }
  const Output out(options.output);
  Table table{
      {"id"}, {"category", Align::left}, {"line"}, {"flags", Align::left}, {"function and message", Align::left}};
  std::for_each(points.begin(), points.end(), [&](const ed_point_t &point) { print_point(out, table, point); });
  if (!out.json()) {
    table.print(out);
    out.line("{}", out.styled(Style::faint, "flags: p message on, s message by the slow rule, t trace, q quiet"));
  }
  return kDone;
}

int change(DebugOptions &options) {
  if (!options.pid || options.query.empty()) {
    throw Failure("debug needs a process and a query, or list; see encapctl debug --help");
  }
  const RemoteProcess process(*options.pid);
  const std::string query = fmt::format("{}", fmt::join(options.query, " "));
  std::vector<RemotePoint> points = read_points(process);
  const Switched switched = switch_points(process, points, query);
  const Output out(options.output);
  if (out.json()) {
    out.object("switch", {{"pid", process.pid()},
                          {"comm", process.comm()},
                          {"query", query},
                          {"selected", switched.selected},
                          {"changed", switched.changed}});
    return kDone;
  }
  out.line("process {} ({}): {} of {} points selected, {} changed", process.pid(), process.comm(), switched.selected,
           points.size(), switched.changed.size());
  std::map<std::string, std::size_t> states;
  for (const RemotePoint &point : points) {
    ++states[letters_of(point.row)];
  }
  for (const auto &[letters, count] : states) {
    out.line("  {:<4} {:>3} points", letters, count);
  }
  return kDone;
}

constexpr char kExamples[] =
    "  encapctl debug list                                         the points and their messages\n"
    "  encapctl debug list 1234                                    as they are switched in a process\n"
    "  encapctl debug 1234 'func vrl_insert_* category error +p'   messages on\n"
    "  encapctl debug 1234 '=_'                                    back to the stored state\n"
    "A query: conditions (func, category, text, line, id), then a change of flags (+p -p =p; p message, s slow rule,\n"
    "t trace, q quiet); statements are separated by ';'. Takes the permission to trace the process.";

}  // namespace

void add_debug(CLI::App &app, int &status) {
  auto [debug, options] = add_verb<DebugOptions>(
      app, status, change, "debug", "The debug points, and switching them in a running process", kExamples);
  debug.require_subcommand(0, 1);
  debug.add_option("pid", options.pid, "The process whose points are switched")->type_name("PID");
  debug.add_option("query", options.query, "What to switch")->type_name("QUERY");
  auto [listing, list_options] =
      add_verb<DebugOptions>(debug, status, list, "list", "The points: id, category, line, flags, message",
                             "  encapctl debug list\n  encapctl debug list 1234 --json");
  listing.add_option("pid", list_options.pid, "As they are switched in this process")->type_name("PID");
}

}  // namespace encapctl
