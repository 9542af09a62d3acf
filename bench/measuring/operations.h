// The operations that are timed. Each takes position `i` of the workload's order of use and tells whether the
// contestant answered as it must; each leaves the store as it found it, FindAndShare with undo() alone.
#ifndef ENCAP_BENCH_OPERATIONS_H
#define ENCAP_BENCH_OPERATIONS_H

#include <cstddef>

#include "contestants/contestant.h"

namespace encap_bench {

// Works on the encapsulations that are entered.
struct OverUsed {
  static std::size_t positions(const Workload &workload) { return workload.used.size(); }
};

struct FindHit : OverUsed {
  static constexpr const char *kName = "find, hit";
  template <typename C>
  static bool run(C &contestant, const Workload &workload, std::size_t i) {
    const Encap &encap = workload.used[i];
    const Found found = contestant.find(encap.key);
    return found.nh_found && found.tun_found && found.nh == encap.nh && found.tun == encap.tun;
  }
};

struct FindMissNh {
  static constexpr const char *kName = "find, NH missing";
  static std::size_t positions(const Workload &workload) { return workload.missing_nh.size(); }
  template <typename C>
  static bool run(C &contestant, const Workload &workload, std::size_t i) {
    const Found found = contestant.find(workload.missing_nh[i]);
    return found.tun_found && !found.nh_found;
  }
};

struct FindMissTunnel {
  static constexpr const char *kName = "find, tunnel missing";
  static std::size_t positions(const Workload &workload) { return workload.missing_tunnel.size(); }
  template <typename C>
  static bool run(C &contestant, const Workload &workload, std::size_t i) {
    return !contestant.find(workload.missing_tunnel[i]).tun_found;
  }
};

struct FindAndShare : OverUsed {
  static constexpr const char *kName = "find and share";
  template <typename C>
  static bool run(C &contestant, const Workload &workload, std::size_t i) {
    const Found found = contestant.share(workload.used[i].key);
    return found.nh_found && found.nh == workload.used[i].nh;
  }
  template <typename C>
  static bool undo(C &contestant, const Workload &workload, std::size_t i) {
    return contestant.release(workload.used[i]);
  }
};

struct DeleteInsert : OverUsed {
  static constexpr const char *kName = "NH deleted, inserted";
  template <typename C>
  static bool run(C &contestant, const Workload &workload, std::size_t i) {
    const Encap &encap = workload.used[i];
    const bool released = contestant.release(encap);
    return released && contestant.insert(encap, false);
  }
};

struct LoneTunnel {
  static constexpr const char *kName = "tunnel with its only NH inserted, deleted";
  static std::size_t positions(const Workload &workload) { return workload.lone.size(); }
  template <typename C>
  static bool run(C &contestant, const Workload &workload, std::size_t i) {
    const Encap &encap = workload.lone[i];
    const bool inserted = contestant.insert(encap, true);
    return inserted && contestant.release(encap);
  }
};

struct ReadBack : OverUsed {
  static constexpr const char *kName = "read back";
  template <typename C>
  static bool run(C &contestant, const Workload &workload, std::size_t i) {
    const Encap &encap = workload.used[i];
    Data data;
    return contestant.read_back(encap, data) && data.seed_nh == seed_of(encap.nh) && data.tun == encap.tun;
  }
};

struct DetachAttach : OverUsed {
  static constexpr const char *kName = "NH detached, attached";
  template <typename C>
  static bool run(C &contestant, const Workload &workload, std::size_t i) {
    const Encap &encap = workload.used[i];
    const bool detached = contestant.detach(encap);
    return detached && contestant.attach(encap, 1);
  }
};

// Nine in ten: one more user and one less. One in ten: the NH goes and comes.
struct Mix : OverUsed {
  static constexpr const char *kName = "mix";
  template <typename C>
  static bool run(C &contestant, const Workload &workload, std::size_t i) {
    if (workload.used[i].nh % 10 == 0) {
      return DeleteInsert::run(contestant, workload, i);
    }
    const bool shared = FindAndShare::run(contestant, workload, i);
    return shared && contestant.release(workload.used[i]);
  }
};

// Whether a contestant that was just filled answers as it must, at positions spread over the workload.
template <typename C>
bool answers_right(C &contestant, const Workload &workload) {
  constexpr std::size_t kSamples = 1000;
  for (std::size_t sample = 0; sample < kSamples; ++sample) {
    const auto position = [&](std::size_t positions) { return sample * 7919 % positions; };
    const bool right = FindHit::run(contestant, workload, position(FindHit::positions(workload))) &&
                       FindMissNh::run(contestant, workload, position(FindMissNh::positions(workload))) &&
                       FindMissTunnel::run(contestant, workload, position(FindMissTunnel::positions(workload)));
    if (!right) {
      return false;
    }
  }
  return true;
}

}  // namespace encap_bench

#endif
