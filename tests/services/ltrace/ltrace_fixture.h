// Processes that trace, each a child of the test with a directory and settings of its own.
#ifndef VRELLIS_TESTS_LTRACE_FIXTURE_H
#define VRELLIS_TESTS_LTRACE_FIXTURE_H

#include <stdlib.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "child.h"
#include "directory.h"
#include "ltrace.h"
#include "ltrace/reader.h"
#include "ptd.h"

namespace vrellis {

using namespace test_support;

constexpr std::uint64_t trace_header(std::uint32_t id, std::uint32_t tag = 0, std::uint64_t number = 0) {
  return std::uint64_t{7} << 32 | 0x80000000U | number << 28 | tag << 23 | id;
}

// Sizes in no order that fits the blocks: what an older lap left lies at ever other places.
constexpr unsigned values_of(std::uint64_t count) {
  return (count * 2654435761 >> 13) % 3 == 0 ? 1 : 5;
}

// A record that tells a torn or misplaced one: all its values follow from the first.
inline void write_counted(std::uint64_t count) {
  if (values_of(count) == 1) {
    return _ltrace_1(0, trace_header(7), count);
  }
  _ltrace_5(0, trace_header(7), count, ~count, count * 3, count ^ 0xff, count + 5);
}

inline void write_counted(std::uint64_t from, std::uint64_t to) {
  for (std::uint64_t i = from; i < to; ++i) {
    write_counted(i);
  }
}

// Mutexes that processes share are made as the database does it.
inline void make_mutex(pthread_mutex_t *mutex, int type = PTHREAD_MUTEX_RECURSIVE,
                       int robustness = PTHREAD_MUTEX_ROBUST) {
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
  pthread_mutexattr_settype(&attributes, type);
  pthread_mutexattr_setrobust(&attributes, robustness);
  EXPECT_EQ(pthread_mutex_init(mutex, &attributes), 0);
  pthread_mutexattr_destroy(&attributes);
}

class TraceTest : public testing::Test {
 protected:
  void SetUp() override {
    setenv("LTRACE_DIR", directory_.c_str(), 1);
    for (const char *setting : {"LTRACE", "LTRACE_RING_KIB", "PTD_SPIN_NS"}) {
      unsetenv(setting);
    }
  }

  std::vector<std::unique_ptr<TraceFile>> open_all() const {
    std::vector<std::unique_ptr<TraceFile>> files;
    for (const TraceListing &listing : list_traces(directory_)) {
      std::string error;
      files.push_back(TraceFile::open(listing.path, error));
      EXPECT_EQ(error, "");
    }
    return files;
  }

  // The only file there is.
  std::unique_ptr<TraceFile> open_one() const {
    auto files = open_all();
    EXPECT_EQ(files.size(), 1U);
    return std::move(files.at(0));
  }

  // The file's first ring.
  static std::pair<std::vector<TraceRecord>, RingReport> first_ring(const TraceFile &file) {
    const TraceFile *only = &file;
    RingReport report;
    auto records = file.records(0, TickClock({&only, 1}), report);
    return {std::move(records), report};
  }

  const Directory home_;
  const std::string &directory_ = home_.path();
};

}  // namespace vrellis

#endif
