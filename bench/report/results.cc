#include "report/results.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace encap_bench {
namespace {

double median_of(std::vector<double> values) {
  if (values.empty()) {
    return std::nan("");
  }
  std::sort(values.begin(), values.end());
  const std::size_t middle = values.size() / 2;
  return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

std::vector<std::string> fields_of(const std::string &line) {
  std::vector<std::string> fields;
  std::istringstream text(line);
  for (std::string field; std::getline(text, field, '\t');) {
    fields.push_back(field);
  }
  return fields;
}

}  // namespace

void append_sample(const std::string &file, const Series &series, int round, double value) {
  std::FILE *out = std::fopen(file.c_str(), "ae");
  if (out == nullptr) {
    std::perror(file.c_str());
    std::exit(1);
  }
  std::fprintf(out, "%s\t%s\t%s\t%s\t%d\t%.6g\n", series.kind.c_str(), series.size.c_str(), series.what.c_str(),
               series.who.c_str(), round, value);
  std::fclose(out);
}

Results::Results(const std::string &file) {
  std::ifstream in(file);
  for (std::string line; std::getline(in, line);) {
    const std::vector<std::string> fields = fields_of(line);
    if (fields.size() == 6) {
      samples_[{fields[0], fields[1], fields[2], fields[3]}][std::atoi(fields[4].c_str())] =
          std::strtod(fields[5].c_str(), nullptr);
    } else if (fields.size() == 3 && fields[0] == "info") {
      info_[fields[1]] = fields[2];
    }
  }
}

double Results::median(const Series &series) const {
  const auto found = samples_.find(series);
  std::vector<double> values;
  if (found != samples_.end()) {
    for (const auto &[round, value] : found->second) {
      values.push_back(value);
    }
  }
  return median_of(values);
}

double Results::ratio(const Series &numerator, const Series &denominator) const {
  const auto over = samples_.find(numerator);
  const auto under = samples_.find(denominator);
  std::vector<double> ratios;
  if (over != samples_.end() && under != samples_.end()) {
    for (const auto &[round, value] : over->second) {
      const auto other = under->second.find(round);
      if (other != under->second.end() && other->second > 0) {
        ratios.push_back(value / other->second);
      }
    }
  }
  return median_of(ratios);
}

std::string Results::info(const std::string &name) const {
  const auto found = info_.find(name);
  return found == info_.end() ? "unknown" : found->second;
}

std::vector<std::string> Results::sizes(const std::string &kind) const {
  std::vector<std::string> sizes;
  for (const auto &[series, rounds] : samples_) {
    if (series.kind == kind && std::find(sizes.begin(), sizes.end(), series.size) == sizes.end()) {
      sizes.push_back(series.size);
    }
  }
  return sizes;
}

}  // namespace encap_bench
