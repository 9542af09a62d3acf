/*
 * Where finished lines leave the process: stderr and the system's log. Internal.
 *
 * Messages are raised while the database lock is held, so nothing here waits, allocates, takes a lock or raises a
 * signal; all of it may run in a signal handler and in a child of fork(). A line that cannot leave at once is dropped,
 * and the next line that leaves the same way ends in " (3 messages dropped before this one)".
 */
#ifndef VRELLIS_OXA_ERRMSG_OUTLET_H
#define VRELLIS_OXA_ERRMSG_OUTLET_H

#include <pthread.h>

#include <cerrno>
#include <cstddef>
#include <string_view>

namespace vrellis {

// Keeps the caller's errno, and keeps a cancellation of the thread from striking inside.
class CallerState {
 public:
  CallerState() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancel_state_); }
  ~CallerState() {
    pthread_setcancelstate(cancel_state_, nullptr);
    errno = errno_;
  }
  CallerState(const CallerState &) = delete;
  CallerState &operator=(const CallerState &) = delete;

 private:
  int errno_ = errno;
  int cancel_state_ = 0;
};

// Writes a line, without its newline, by one system call, so that the lines of several threads and processes do not
// mix. A regular file is written as its file system allows; nothing else is waited for.
void write_to_stderr(std::string_view line);

// Sends a message to the log daemon's socket, under the name of this program.
void send_to_syslog(int priority, std::string_view message);

}  // namespace vrellis

#endif
