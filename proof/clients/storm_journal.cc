#include "storm_journal.h"

#include <algorithm>
#include <cstring>

#include "scenarios.h"

namespace client_proof {
namespace {

constexpr std::uint32_t kLabels = 24;  // tunnels that keys name: more than there are indexes

using crash::kThreads;

}  // namespace

std::pair<std::uint32_t, std::uint32_t> Journal::bounds(std::uint32_t process, std::uint32_t key) const {
  std::uint32_t least = 0;
  std::uint32_t most = 0;
  for (std::uint32_t owner = process * kThreads; owner < (process + 1) * kThreads; ++owner) {
    const Thread &own = thread[owner];
    const std::uint32_t held = own.held[key];
    least += held - (held != 0 && own.releasing == key + 1 ? 1 : 0);
    most += held + (own.entering == key + 1 ? 1 : 0);
  }
  return {name[process].sweeping ? name[process].wanted[key].load() : least, most};
}

void Journal::settle(std::uint32_t process, std::uint32_t key, std::uint32_t held) {
  for (std::uint32_t owner = (process + 1) * kThreads; owner-- != process * kThreads;) {
    Thread &own = thread[owner];
    const bool last = owner % kThreads == 0;
    own.held[key] = last ? held : std::min<std::uint32_t>(held, own.held[key]);
    held -= own.held[key];
  }
}

egress_encap_key_t storm_key(std::uint32_t number) {
  const std::uint32_t tunnel = number % kLabels;
  return key(16 + number, tunnel < 2 ? 0 : 100 + tunnel, tunnel < 2 ? 1 + tunnel : 7);
}

std::uint32_t storm_key_number(const egress_encap_key_t &key) {
  for (std::uint32_t number = 0; number < kKeys + kOtherKeys; ++number) {
    const egress_encap_key_t same = storm_key(number);
    if (std::memcmp(&key, &same, sizeof key) == 0) {
      return number;
    }
  }
  return kKeys + kOtherKeys;
}

std::string storm_name(std::uint32_t process) {
  return "storm-" + std::to_string(process);
}

}  // namespace client_proof
