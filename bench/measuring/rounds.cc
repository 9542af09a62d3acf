#include "measuring/rounds.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "report/results.h"

namespace encap_bench {
namespace {

int round_number = 0;

constexpr char kSeparator = '|';  // in benchmark names

class Writer : public benchmark::BenchmarkReporter {
 public:
  explicit Writer(const Arguments &arguments) : arguments_(arguments) {}

  bool ReportContext(const Context &) override { return true; }

  void ReportRuns(const std::vector<Run> &runs) override {
    for (const Run &run : runs) {
      write(run);
    }
  }

  bool failed() const { return failed_; }

 private:
  void write(const Run &run) {
    const std::string name = run.run_name.function_name;
    if (run.error_occurred) {
      std::fprintf(stderr, "%s: %s\n", name.c_str(), run.error_message.c_str());
      failed_ = true;
      return;
    }
    const std::size_t first = name.find(kSeparator);
    const std::size_t second = name.find(kSeparator, first + 1);
    Series series{name.substr(0, first), arguments_.size, name.substr(first + 1, second - first - 1),
                  name.substr(second + 1)};
    if (!series.kind.empty()) {
      append_sample(arguments_.results, series, round_number,
                    run.cpu_accumulated_time / static_cast<double>(run.iterations) * 1e9);
    }
    for (const auto &[kind, counter] : run.counters) {
      series.kind = kind;
      append_sample(arguments_.results, series, round_number, counter.value);
    }
  }

  const Arguments &arguments_;
  bool failed_ = false;
};

}  // namespace

Arguments::Arguments(int argc, char **argv) {
  benchmark::Initialize(&argc, argv);
  if (argc != 5 || std::atoi(argv[2]) < 1) {
    std::fprintf(stderr, "usage: %s SIZE ROUNDS RESULTS DIRECTORY [--benchmark_filter=REGEX]\n", argv[0]);
    std::exit(2);
  }
  size = argv[1];
  rounds = std::atoi(argv[2]);
  results = argv[3];
  directory = argv[4];
}

int current_round() {
  return round_number;
}

std::string benchmark_name(const std::string &kind, const std::string &what, const std::string &who) {
  return kind + kSeparator + what + kSeparator + who;
}

int run_rounds(const Arguments &arguments) {
  Writer writer(arguments);
  for (round_number = 0; round_number < arguments.rounds; ++round_number) {
    if (benchmark::RunSpecifiedBenchmarks(&writer) == 0) {
      return 1;  // a filter that nothing passes
    }
  }
  return writer.failed() ? 1 : 0;
}

}  // namespace encap_bench
