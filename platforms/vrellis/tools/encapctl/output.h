// What a verb prints: text with a little colour, tables, or JSON.
//
// JSON is one object a line. Each begins with "schema": "encapctl/1" and "kind"; within a schema version fields are
// added, never renamed, removed or given another meaning. Indexes, labels, counts and bytes are numbers; times end in
// _ns and are nanoseconds (since 1970, or of a duration); truths are true or false; what does not exist is null.
// Kinds by verb: status: status. show: nh, tunnel. summary: summary. find: encapsulation, egress_tunnel. check:
// finding, then check. repair: change and finding, then repair. trace: event. debug: point, switch. load, snapshot and
// destroy: their own names.
#ifndef ENCAPCTL_OUTPUT_H
#define ENCAPCTL_OUTPUT_H

#include <fmt/format.h>

#include <cstdint>
#include <initializer_list>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "options.h"

namespace encapctl {

using Json = nlohmann::ordered_json;

enum class Style { plain, strong, good, bad, faint };

class Output {
 public:
  explicit Output(const OutputOptions &options);

  bool json() const { return json_; }
  std::size_t columns() const { return columns_; }  // of the terminal; SIZE_MAX when it is none

  // `fields` is an object.
  void object(std::string_view kind, const Json &fields) const;

  std::string styled(Style style, std::string_view text) const;

  template <typename... T>
  void line(fmt::format_string<T...> format, T &&...values) const {
    fmt::print("{}\n", fmt::format(format, std::forward<T>(values)...));
  }

 private:
  bool json_;
  bool color_;
  std::size_t columns_;
};

// "name        value": one fact a line.
void print_fact(const Output &out, std::string_view name, std::string_view value);

enum class Align { left, right };

struct Column {
  std::string_view title;
  Align align = Align::right;
};

// Rows under titles, each column as wide as its widest cell. On a terminal the last column is cut where the line ends.
class Table {
 public:
  Table(std::initializer_list<Column> columns) : columns_(columns) {}
  void row(std::vector<std::string> cells, Style style = Style::plain);
  void print(const Output &out) const;
  bool empty() const { return rows_.empty(); }

 private:
  struct Row {
    std::vector<std::string> cells;
    Style style;
  };
  std::string text_of(const std::vector<std::string> &cells, const std::vector<std::size_t> &widths) const;

  std::vector<Column> columns_;
  std::vector<Row> rows_;
};

std::string counted(std::uint64_t number, std::string_view what);  // "1 finding", "2 findings"
std::string bytes_text(std::uint64_t bytes);                       // "4.2 MiB"
std::string duration_text(std::uint64_t ns);                       // "1.25 s"
std::string percent_text(std::uint64_t part, std::uint64_t whole);
std::string time_text(std::int64_t realtime_ns);  // local time, to the millisecond

// A warning, to stderr: "encapctl: sentence".
void warn(std::string_view sentence);

}  // namespace encapctl

#endif
