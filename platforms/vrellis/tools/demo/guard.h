// Runs the demo in a directory of its own and with a limit to its time, and cleans up however it ends.
#ifndef ENCAP_DEMO_GUARD_H
#define ENCAP_DEMO_GUARD_H

#include <functional>
#include <string>

namespace demo {

// Makes a fresh directory in `parent`, runs `body` with its path in a child process, and removes the directory when
// that process has ended. A body that takes longer than `seconds`, or SIGINT, SIGTERM or SIGHUP, ends it, and its
// children with it. Returns: the body's exit status; 1 when it was ended or died.
int run_guarded(const std::string &parent, unsigned seconds, const std::function<int(const std::string &)> &body);

}  // namespace demo

#endif
