// What the programs measure, one sample a line of a text file, which the report reads.
//
//   kind TAB size TAB what TAB who TAB round TAB value
//
//   ns        processor time of an operation, ns     round: contestants of one round ran one after the other
//   rate      operations a second, of all processes together; what: "OPERATION/PROCESSES"
//   first     likewise, of the first process; last: of the last one
//   wait      longest operation, nanoseconds; what: as above
//   p50       what half of the operations did not pass, nanoseconds; likewise p99 and p99.9
//   bytes     shared memory in use
//   ms        milliseconds of something that is done once
//   count     a number that others are divided by
//   instr     instructions of an operation; who: the part
//   info      size: name, what: text
#ifndef ENCAP_BENCH_RESULTS_H
#define ENCAP_BENCH_RESULTS_H

#include <map>
#include <string>
#include <vector>

namespace encap_bench {

struct Series {
  std::string kind;
  std::string size;
  std::string what;
  std::string who;
  auto operator<=>(const Series &) const = default;
};

void append_sample(const std::string &file, const Series &series, int round, double value);

class Results {
 public:
  explicit Results(const std::string &file);

  // NaN where nothing was measured.
  double median(const Series &series) const;

  // Median of the ratios of each round: drift of the machine from round to round cancels out.
  double ratio(const Series &numerator, const Series &denominator) const;

  std::string info(const std::string &name) const;
  std::vector<std::string> sizes(const std::string &kind) const;

 private:
  std::map<Series, std::map<int, double>> samples_;
  std::map<std::string, std::string> info_;
};

}  // namespace encap_bench

#endif
