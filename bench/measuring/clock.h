// The clocks of the benchmarks.
#ifndef ENCAP_BENCH_CLOCK_H
#define ENCAP_BENCH_CLOCK_H

#include <ctime>

namespace encap_bench {

inline double clock_ns(clockid_t clock) {
  timespec now;
  clock_gettime(clock, &now);
  return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
}

inline double now_ns() {
  return clock_ns(CLOCK_MONOTONIC);
}

// The time that the processors worked for this process.
inline double processor_ns() {
  return clock_ns(CLOCK_PROCESS_CPUTIME_ID);
}

}  // namespace encap_bench

#endif
