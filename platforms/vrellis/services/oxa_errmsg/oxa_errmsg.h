/*
 * Error-message facility: rate-limited messages from static records, each shown as one line
 *
 *   2026-03-01 14:05:09.123456 4711/4713 PLATFORM-MPLS_ENCAP_DB-2-NH_NOTVALID_ERROR: vrl_... nh_idx 7 ref_count 0
 *   local time                 process/  group-facility-severity-name: text
 *                              thread
 *
 * on stderr, in the system's log, or at a sink that the process gives. The time is local, of the zone that the process
 * had when it loaded this library. The first message that is shown after the rate limit held some back ends in
 * " (3 suppressed)". A text has at most about 1000 bytes; a longer one ends in "...".
 *
 * Messages are raised with locks held, so nothing here waits, takes a lock, allocates or raises a signal. A line that
 * stderr or the log daemon cannot take at once (its reader is stuck, the pipe is broken, the disk is full) is dropped,
 * and the next line that gets out ends in " (3 messages dropped before this one)". Only a regular file is written as
 * its file system allows. Every function may be called by any thread at any time, in a signal handler too.
 */
#ifndef VRELLIS_OXA_ERRMSG_H
#define VRELLIS_OXA_ERRMSG_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define OXA_STATIC_ASSERT(condition, text) static_assert(condition, text)
extern "C" {
#else
#define OXA_STATIC_ASSERT(condition, text) _Static_assert(condition, text)
#endif

#define OXA_SEVERITY_ERROR 2   /* the severity that every message of the database is raised with */
#define OXA_MSG_CLASS 0x20001u /* oxa_msg_rec_t.msg_class of every message of the database */
#define OXA_DEFAULT_BURST 10u  /* preset of oxa_msg_limit_t.burst */

#define OXA_WINDOW_MS 5000u /* a window opens with the first message after the last window's end */

/*
 * Rate limit of one message: 32 bytes in the writable data of its owner. It belongs to one process and is never placed
 * in shared memory.
 *
 *    0  burst       messages shown per window; 0 shows none. Preset by the owner, who may change it at any time.
 *    4  pending     held back since the last one shown
 *    8  window      63                        24 23                    0
 *                  +----------------------------+----------------------+
 *                  | start, ms of CLOCK_MONOTONIC | shown in this window |
 *                  +----------------------------+----------------------+
 *   16  shown       ever, 64 bits
 *   24  suppressed  ever, 64 bits; each message counts in exactly one of the two
 *
 * Bytes 4 to 31 are preset to 0. Only the facility writes them, by atomic operations without a lock.
 */
typedef struct oxa_msg_limit {
  uint32_t burst;    /*  0 */
  uint32_t state[7]; /*  4 */
} __attribute__((aligned(8))) oxa_msg_limit_t;
OXA_STATIC_ASSERT(sizeof(oxa_msg_limit_t) == 32, "size of a rate limit");
OXA_STATIC_ASSERT(offsetof(oxa_msg_limit_t, state) == 4, "oxa_msg_limit_t.state moved");

/* One message. 72 bytes, constant. */
typedef struct oxa_msg_rec {
  uint64_t zero;          /*  0 */
  const char *format;     /*  8  printf-style */
  oxa_msg_limit_t *limit; /* 16 */
  const char *facility;   /* 24 */
  const char *group;      /* 32 */
  const char *name;       /* 40 */
  uint64_t msg_class;     /* 48  OXA_MSG_CLASS */
  uint64_t zero_too;      /* 56 */
  uint64_t id;            /* 64 */
} oxa_msg_rec_t;
OXA_STATIC_ASSERT(sizeof(oxa_msg_rec_t) == 72, "size of a message");
OXA_STATIC_ASSERT(offsetof(oxa_msg_rec_t, id) == 64, "oxa_msg_rec_t.id moved");

#define OXA_API __attribute__((visibility("default")))

/*
 * Shows the message unless its rate limit holds it back. The arguments after `severity` are those of the record's
 * format. A record without a limit object is always shown; a NULL name or format is printed as "?".
 * Returns: 0 when handed to the sink, 1 when held back, 22 for a NULL record. Keeps errno.
 */
OXA_API int oxa_errmsg(const oxa_msg_rec_t *record, int severity, ...);

/*
 * A sink takes one line: `length` bytes, which a newline and a NUL follow. It runs in the thread that raised the
 * message, in several threads at once, and with the database lock held: a sink that waits makes every process wait.
 */
typedef void (*oxa_sink_fn)(void *context, int severity, const char *line, size_t length);

/*
 * Sends lines to `sink` from now on. With NULL they go where the environment variable OXA_ERRMSG says: "stderr" (the
 * default), "syslog" or "off". It is read once, at the first message. Threads that print at this moment may still use
 * the old sink.
 */
OXA_API void oxa_set_sink(oxa_sink_fn sink, void *context);

/* The facility's own sinks, for oxa_set_sink(); their context is NULL. The second sends a datagram to /dev/log, without
   the line's time, with facility "user" and the program's name and pid. */
OXA_API void oxa_sink_stderr(void *context, int severity, const char *line, size_t length);
OXA_API void oxa_sink_syslog(void *context, int severity, const char *line, size_t length);
OXA_API void oxa_sink_off(void *context, int severity, const char *line, size_t length);

typedef struct oxa_limit_counts {
  uint64_t shown;      /* ever */
  uint64_t suppressed; /* ever */
  uint32_t pending;    /* suppressed since the last one shown */
  uint32_t burst;
} oxa_limit_counts_t;

/* Reads the counts of a limit object, or of a copy of one. Each is exact, but they may be of different instants. */
OXA_API void oxa_limit_read(const oxa_msg_limit_t *limit, oxa_limit_counts_t *counts);

#ifdef __cplusplus
}
#endif

#endif
