/*
 * The local time of a line, without the C library's time-zone lock. Internal.
 *
 * localtime_r() and gmtime_r() take a lock of the C library, which a child of fork() may find taken for ever, and a
 * signal handler may find taken by the thread that it interrupts. So the offsets from UTC of the next years are read
 * once, when the library is loaded. A process shows times of the zone that it had then.
 */
#ifndef VRELLIS_OXA_ERRMSG_LOCAL_TIME_H
#define VRELLIS_OXA_ERRMSG_LOCAL_TIME_H

#include <ctime>

namespace vrellis {

struct LocalTime {
  unsigned year, month, day, hour, minute, second;  // month and day from 1
};

// Takes no lock and makes no system call.
LocalTime local_time(time_t seconds);

}  // namespace vrellis

#endif
