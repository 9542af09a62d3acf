/*
 * Thread-debug service: which thread waits for which mutex, since when, from which function; and the waiting itself,
 * so that no thread sleeps for long beside a mutex that is free.
 *
 * A caller tries the mutex. When it is busy, the caller calls ptd_set_mutex_block(), pthread_mutex_lock() and
 * ptd_unset_mutex_block(), in this order, also when the lock call fails.
 *
 * Each waiting thread's entry lies in the trace file of its process (ltrace.h), so that other processes can read it,
 * also after a death. A thread that has no ring there (LTRACE=off, all rings are taken) has no entry.
 *
 * Settings, read from the environment at the first wait:
 *   PTD_SPIN_NS   how long a thread may watch its mutex before it blocks, 0 to 1000000; default 100000; 0: not at all,
 *                 as in a process that may run on one processor only. The process reports any other value in one line
 *                 on stderr and uses the default.
 *
 * Locking: none. Every call but ptd_waits() touches the calling thread's entry and the given mutex alone, and waits for
 *   no other lock of this process, so the children of fork may call it.
 */
#ifndef VRELLIS_PTD_H
#define VRELLIS_PTD_H

#include <pthread.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Notes that the calling thread waits for `mutex`, at `line` of `function` (a text that outlives the wait), and watches
 * the mutex for a moment.
 * When the mutex is robust and recursive, the call then takes it, however long that lasts. It looks at the mutex at
 * least every 50 ms: if the kernel woke another waiter, and that one was killed before it could take the mutex, no
 * unlock wakes the others. When the former holder died, the call makes the mutex consistent. The caller's lock call
 * then only counts one more. When the mutex cannot be had, the caller's lock call returns the reason.
 * A mutex of another kind is not taken here: the caller's lock call waits for it.
 */
__attribute__((visibility("default"))) void ptd_set_mutex_block(pthread_mutex_t *mutex, const char *function, int line);

/*
 * Notes that the calling thread's wait is over, and gives back what ptd_set_mutex_block() took. A caller whose own lock
 * call succeeded still holds the mutex; one whose call failed does not. Without a wait, nothing happens.
 */
__attribute__((visibility("default"))) void ptd_unset_mutex_block(void);

/* What is known of one thread's waits. */
typedef struct ptd_wait {
  uint64_t mutex;      /* address of the mutex it waits for; 0 = it waits for none */
  uint64_t since_ns;   /* CLOCK_MONOTONIC; of the last wait when it waits for none */
  uint64_t waits;      /* waits that ended */
  uint64_t longest_ns; /* the longest of those */
  uint64_t total_ns;   /* their sum */
  int32_t tid;
  int32_t line;      /* of the wait now, or the last one */
  char function[48]; /* of the same wait; cut at 47 characters */
} ptd_wait_t;

/*
 * Lists the threads of this process that wait, or have waited, for a mutex.
 * Returns: how many there are. The first `room` of them are in `out`.
 */
__attribute__((visibility("default"))) int ptd_waits(ptd_wait_t *out, int room);

#ifdef __cplusplus
}
#endif

#endif
