/*
 * Thread-debug service: who waits for which mutex, since when, from which function.
 *
 * Each waiting thread's entry stands in its process's trace file (ltrace.h), so that other processes can read it, also
 * after a death. A thread that has no ring there (LTRACE=off, rings all taken) is not told of.
 *
 * Settings, read from the environment at the first wait:
 *   PTD_SPIN_NS   how long a thread may watch its mutex before it blocks, up to 1000000; default 100000; 0: not at all,
 *                 as in a process that may run on one processor only
 *
 * Locking: none; every call but ptd_waits() touches the calling thread's entry alone.
 */
#ifndef VRELLIS_PTD_H
#define VRELLIS_PTD_H

#include <pthread.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/*
 * The calling thread is about to block on `mutex`, at `line` of `function` (a text that outlives the wait). It is
 * entered as waiting first; then it may watch the mutex for a moment and return as soon as that is free.
 */
__attribute__((visibility("default"))) void ptd_set_mutex_block(pthread_mutex_t *mutex, const char *function, int line);

/* The calling thread's wait is over. */
__attribute__((visibility("default"))) void ptd_unset_mutex_block(void);

/* What is known of one thread's waits. */
typedef struct ptd_wait {
  uint64_t mutex;      /* address of the mutex it waits for; 0 = it waits for none */
  uint64_t since_ns;   /* CLOCK_MONOTONIC; of the last wait when it waits for none */
  uint64_t waits;      /* waits that ended */
  uint64_t longest_ns; /* of those */
  uint64_t total_ns;   /* of those */
  int32_t tid;
  int32_t line;      /* of the wait now, or the last one */
  char function[48]; /* likewise; cut at 47 characters */
} ptd_wait_t;

/*
 * Tells of the threads of this process that wait, or have waited, for a mutex.
 * Returns: how many there are; the first `room` of them are in `out`.
 */
__attribute__((visibility("default"))) int ptd_waits(ptd_wait_t *out, int room);

#ifdef __cplusplus
}
#endif

#endif
