// Writes the tables of docs/performance.md between its markers, and the chart beside it.
#include "report/report.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace encap_bench {

std::string number(double value, int decimals) {
  if (std::isnan(value)) {
    return "-";
  }
  char text[64];
  std::snprintf(text, sizeof text, "%.*f", decimals, value);
  return text;
}

namespace {

constexpr char kBegin[] = "<!-- bench: from here -->\n";
constexpr char kEnd[] = "<!-- bench: to here -->\n";

std::string read_file(const std::string &path) {
  std::ifstream in(path);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

void write_file(const std::string &path, const std::string &text) {
  std::ofstream out(path);
  out << text;
  if (!out.flush()) {
    std::fprintf(stderr, "%s cannot be written\n", path.c_str());
    std::exit(1);
  }
}

int run(const std::string &results_file, const std::string &page, const std::string &chart) {
  const Results results(results_file);
  const std::string tables = machine_text(results) + ratios_text(results) + operations_text(results) +
                             processes_text(results) + peek_text(results) + clients_text(results) +
                             memory_text(results) + growth_text(results) + instructions_text(results);
  const std::string old = read_file(page);
  const std::size_t begin = old.find(kBegin);
  const std::size_t end = old.find(kEnd);
  if (begin == std::string::npos || end == std::string::npos || end < begin) {
    std::fprintf(stderr, "%s has no markers for the tables\n", page.c_str());
    return 1;
  }
  write_file(page, old.substr(0, begin) + kBegin + "\n" + tables + old.substr(end));
  write_file(chart, chart_svg(results));
  std::fputs((machine_text(results) + ratios_text(results)).c_str(), stdout);
  return 0;
}

}  // namespace
}  // namespace encap_bench

int main(int argc, char **argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: %s RESULTS PAGE CHART\n", argv[0]);
    return 2;
  }
  return encap_bench::run(argv[1], argv[2], argv[3]);
}
