/*
 * Rate limit over an oxa_msg_limit_t, shared by the facilities that print. Internal; oxa_errmsg.h draws the record.
 */
#ifndef VRELLIS_OXA_ERRMSG_RATE_LIMIT_H
#define VRELLIS_OXA_ERRMSG_RATE_LIMIT_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <ctime>

#include "oxa_errmsg.h"

namespace vrellis {

// The words of an oxa_msg_limit_t. Every word but the burst is changed by atomic operations alone.
struct [[gnu::may_alias]] RateLimitState {
  uint32_t burst;
  uint32_t pending;     // held back since the last one shown
  uint64_t window;      // bits 0-23 shown in this window; bits 24-63 its start, in ms of the monotonic clock
  uint64_t shown;       // ever
  uint64_t suppressed;  // ever
};
static_assert(sizeof(RateLimitState) == sizeof(oxa_msg_limit_t));
static_assert(alignof(RateLimitState) == alignof(oxa_msg_limit_t));
static_assert(offsetof(RateLimitState, pending) == 4 && offsetof(RateLimitState, window) == 8);
static_assert(offsetof(RateLimitState, shown) == 16 && offsetof(RateLimitState, suppressed) == 24);

constexpr unsigned kWindowStartShift = 24;
constexpr uint64_t kWindowShownMask = (uint64_t{1} << kWindowStartShift) - 1;

struct Admission {
  bool shown;
  uint32_t held_back;  // when shown: how many were held back since the last one shown
};

inline uint64_t coarse_now_ms() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1000000;
}

// Decides about one message. Each is counted exactly once, as shown or as suppressed, also when several threads raise
// messages at the same time.
inline Admission admit(oxa_msg_limit_t &limit, uint32_t burst, uint64_t now_ms, uint64_t window_ms) {
  auto &state = reinterpret_cast<RateLimitState &>(limit);
  const uint64_t most = std::min<uint64_t>(burst, kWindowShownMask);
  uint64_t word = __atomic_load_n(&state.window, __ATOMIC_RELAXED);
  uint64_t next = 0;
  do {
    uint64_t start = word >> kWindowStartShift;
    uint64_t shown = word & kWindowShownMask;
    if (now_ms >= start + window_ms) {  // `start` may come from a thread that read a later tick
      start = now_ms;
      shown = 0;
    }
    if (shown >= most) {
      __atomic_fetch_add(&state.pending, 1, __ATOMIC_RELAXED);
      __atomic_fetch_add(&state.suppressed, 1, __ATOMIC_RELAXED);
      return {false, 0};
    }
    next = start << kWindowStartShift | (shown + 1);
  } while (!__atomic_compare_exchange_n(&state.window, &word, next, true, __ATOMIC_RELAXED, __ATOMIC_RELAXED));
  __atomic_fetch_add(&state.shown, 1, __ATOMIC_RELAXED);
  return {true, __atomic_exchange_n(&state.pending, 0, __ATOMIC_RELAXED)};
}

}  // namespace vrellis

#endif
