// What all drivers share: options on the command line, and the time that a run takes.
#ifndef ENCAP_PROOF_DRIVER_H
#define ENCAP_PROOF_DRIVER_H

#include <chrono>
#include <cstdint>
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

class Stopwatch {
 public:
  double seconds() const { return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin_).count(); }

 private:
  std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
};

}  // namespace crash

#endif
