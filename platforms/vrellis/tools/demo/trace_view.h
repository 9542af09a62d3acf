// What the workers' trace files tell: who waits for the lock, and what a process did last, alive or dead. The files lie
// where this process would put its own.
#ifndef ENCAP_DEMO_TRACE_VIEW_H
#define ENCAP_DEMO_TRACE_VIEW_H

#include <sys/types.h>

#include <cstddef>
#include <optional>

#include "model/report.h"
#include "ptd.h"

namespace demo {

// The wait of a thread of process `pid`, looked for until it appears, at most `seconds`.
std::optional<ptd_wait_t> await_wait(pid_t pid, int seconds);

// Prints the last `count` records of process `pid`, oldest first. Returns: how many there were to print.
std::size_t print_last_records(pid_t pid, std::size_t count, Report &report);

}  // namespace demo

#endif
