// A progress bar on a terminal, and nothing elsewhere; it appears only when the work takes long.
#ifndef ENCAPCTL_PROGRESS_H
#define ENCAPCTL_PROGRESS_H

#include <chrono>
#include <cstdint>
#include <string>

namespace encapctl {

class Progress {
 public:
  Progress(std::string what, std::uint64_t total);
  ~Progress();  // takes the bar away
  Progress(const Progress &) = delete;
  Progress &operator=(const Progress &) = delete;

  void advance() {
    if (++done_ % kStride == 0 && terminal_) {
      draw();
    }
  }

 private:
  static constexpr std::uint64_t kStride = 64;
  void draw();

  std::string what_;
  std::uint64_t total_;
  std::uint64_t done_ = 0;
  bool terminal_;
  bool drawn_ = false;
  std::chrono::steady_clock::time_point next_;  // when it is due to be drawn
};

}  // namespace encapctl

#endif
