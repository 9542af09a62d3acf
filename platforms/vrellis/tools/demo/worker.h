// A worker: a process of its own that enters its part of the routes and withdraws them, on the supervisor's commands.
#ifndef ENCAP_DEMO_WORKER_H
#define ENCAP_DEMO_WORKER_H

#include <cstdint>

#include "plan.h"

namespace demo {

inline constexpr int kCommandFd = 3;  // the worker's end of the pipe that commands come through
inline constexpr int kReplyFd = 4;    // and of the one that replies go through

// Works until it is told to quit or the supervisor is gone. Returns: the exit status.
int run_worker(const Plan &plan, std::uint32_t worker);

}  // namespace demo

#endif
