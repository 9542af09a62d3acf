// What a verb prints: text with a little colour, tables, or JSON. docs/json.md describes the JSON.
#ifndef ENCAPCTL_OUTPUT_H
#define ENCAPCTL_OUTPUT_H

#include <fmt/format.h>

#include <cstdint>
#include <initializer_list>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

namespace encapctl {

using Json = nlohmann::ordered_json;

struct OutputOptions {
  bool json = false;
  bool no_color = false;
};

enum class Style { plain, strong, good, bad, faint };

class Output {
 public:
  explicit Output(const OutputOptions &options);

  bool json() const { return json_; }
  std::size_t columns() const { return columns_; }  // of the terminal; SIZE_MAX when stdout is no terminal

  // Prints one JSON object. `fields` is an object.
  void object(std::string_view kind, const Json &fields) const;

  std::string styled(Style style, std::string_view text) const;

  template <typename... T>
  void line(fmt::format_string<T...> format, T &&...values) const {
    print_line(fmt::format(format, std::forward<T>(values)...));
  }

  // "name        value": one fact a line.
  void fact(std::string_view name, std::string_view value) const;

 private:
  void print_line(const std::string &text) const;

  bool json_;
  bool color_;
  std::size_t columns_;
};

enum class Align { left, right };

struct Column {
  std::string_view title;
  Align align = Align::right;
};

// Rows under titles, each column as wide as its widest cell. On a terminal every line is cut where the terminal ends.
class Table {
 public:
  Table(std::initializer_list<Column> columns) : columns_(columns) {}
  void row(std::vector<std::string> cells, Style style = Style::plain);
  void print(const Output &out) const;

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

// The text with every byte outside printable ASCII written as \xNN. Names of processes, files and folders come from
// other users: written raw to a terminal, they could command it.
std::string printable(std::string_view text);

// Writes to stdout. Throws OutputLost when stdout takes no more.
struct OutputLost {
  int error;
};
void write_out(std::string_view text);
void flush_out();

// A warning, to stderr: "encapctl: sentence". A stderr that takes no more loses it.
void warn(std::string_view sentence);

}  // namespace encapctl

#endif
