// What all drivers share: options on the command line, and the time that a run takes.
#ifndef ENCAP_PROOF_DRIVER_H
#define ENCAP_PROOF_DRIVER_H

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <variant>

#include "support/window.h"

namespace crash {

using Option = std::variant<bool *, std::uint64_t *, std::string *>;  // a flag, or where its argument goes

// Ends the program with its usage where the command line has anything else.
inline void parse(int argc, char **argv, const std::map<std::string, Option> &options) {
  std::string usage = std::string("usage: ") + argv[0];
  for (const auto &[name, option] : options) {
    usage += " [" + name + (std::holds_alternative<bool *>(option) ? "]" : " X]");
  }
  for (int i = 1; i < argc; ++i) {
    const auto option = options.find(argv[i]);
    if (option == options.end()) {
      give_up("%s", usage.c_str());
    }
    if (bool *const *flag = std::get_if<bool *>(&option->second)) {
      **flag = true;
    } else if (++i == argc) {
      give_up("%s", usage.c_str());
    } else if (std::uint64_t *const *number = std::get_if<std::uint64_t *>(&option->second)) {
      **number = std::stoull(argv[i], nullptr, 0);
    } else {
      *std::get<std::string *>(option->second) = argv[i];
    }
  }
  setenv("LTRACE", "off", 1);
  setenv("OXA_ERRMSG", "off", 1);
}

// Memory that this process shares with its children, zeroed.
template <typename Record>
Record &shared_record() {
  return *static_cast<Record *>(
      mmap(nullptr, sizeof(Record), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));
}

// Does work(number, totals) for each number below `count`, in as many processes as `jobs`. `Totals` are numbers of 64
// bits, which are summed up. Returns: the sums; a process that ended badly counts as one of their failures.
template <typename Totals, typename Work>
Totals in_jobs(std::uint64_t jobs, std::size_t count, Work work) {
  constexpr std::uint64_t kMostJobs = 16;
  auto &shared = shared_record<std::array<Totals, kMostJobs>>();
  jobs = std::min(std::max(jobs, std::uint64_t{1}), kMostJobs);
  for (std::uint64_t job = 0; job < jobs; ++job) {
    if (fork() == 0) {
      for (std::size_t number = job; number < count; number += jobs) {
        work(number, shared[job]);
        std::fflush(stdout);
      }
      std::exit(0);
    }
  }
  Totals sums{};
  for (int status = 0; wait(&status) > 0;) {
    sums.failures += status == 0 ? 0 : 1;
  }
  auto *const to = reinterpret_cast<std::uint64_t *>(&sums);
  const auto *const from = reinterpret_cast<const std::uint64_t *>(&shared);
  for (std::size_t i = 0; i < sizeof shared / sizeof *from; ++i) {
    to[i % (sizeof sums / sizeof *to)] += from[i];
  }
  return sums;
}

class Stopwatch {
 public:
  double seconds() const { return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin_).count(); }

 private:
  std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
};

}  // namespace crash

#endif
