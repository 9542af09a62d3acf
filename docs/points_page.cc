// Prints docs/points.md: the debug points as their catalogue has them.
#include <array>
#include <cstdio>
#include <span>

#include "diag/catalogue.h"
#include "ed.h"

namespace {

constexpr char kHead[] =
    "# Debug points\n"
    "\n"
    "Printed from the catalogue by the target `points_md`; not to be edited. [diagnostics.md](diagnostics.md) tells "
    "how\n"
    "to read and to switch points.\n"
    "\n";

constexpr char kColumns[] =
    "- **id**: the trace-point id, which `id N` in a query and `--point N` in encapctl name\n"
    "- **line**: what `line N` in a query names; the numbers are 8 apart and no lines of a source file\n"
    "- **trace**: whether the point writes trace records; a point without one has a message alone\n"
    "- **values**: how many it reports; each trace record holds up to seven of them\n"
    "\n"
    "| id | line | category | trace | values | function | message |\n"
    "|---:|---:|---|---|---:|---|---|\n";

void print_totals(const ed_catalogue_t &catalogue, std::span<const ed_catalogue_row_t> rows) {
  std::printf("%zu points", rows.size());
  for (uint32_t category = 0; category < catalogue.num_categories; ++category) {
    unsigned points = 0;
    for (const ed_catalogue_row_t &row : rows) {
      points += row.category == category ? 1 : 0;
    }
    std::printf("%s %u %s", category == 0 ? ":" : ",", points, catalogue.category[category]);
  }
  std::puts(".\n");
}

void print_row(const ed_catalogue_t &catalogue, const ed_catalogue_row_t &row) {
  std::array<char, 1024> message{};
  ed_format_joined(message.data(), message.size(), row.format, nullptr, 0);
  std::printf("| %u | %u | %s | %s | %u | `%s` | `%s` |\n", row.id, row.line, catalogue.category[row.category],
              row.traced != 0 ? "yes" : "no", row.num_values, row.function, message.data());
}

}  // namespace

int main() {
  const ed_catalogue_t &catalogue = encap_catalogue;
  const std::span rows(catalogue.row, catalogue.num_rows);
  std::fputs(kHead, stdout);
  print_totals(catalogue, rows);
  std::fputs(kColumns, stdout);
  for (const ed_catalogue_row_t &row : rows) {
    print_row(catalogue, row);
  }
  return std::ferror(stdout) == 0 ? 0 : 1;
}
