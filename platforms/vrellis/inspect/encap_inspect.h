/*
 * Inspector of encapsulation databases: finds out whether a database is sound, mends what a death left in it, and tells
 * how many processes died. For daemons, also beside others that work with the same database.
 *
 * Conventions
 *   - Zero every record before you fill it, and set its `bytes` to its size. Records may grow at their end in later
 *     versions; the library reads and writes no more than `bytes`. A `bytes` of 0 counts as the size in version 1.0.
 *   - `config` names the database by `directory` and `name`, and says by `mode`, `named`, `user` and `group` whose file
 *     is trusted. Its id and its ranges are not looked at, so the record of encap_db_open() can be used as it is.
 *   - Callbacks are called without the lock, by the thread of the call and before the call returns. Records and texts
 *     that a callback gets are valid until it returns. A callback must not throw.
 *   - Every error is one sentence in `text` of the result. No call ends the process or throws.
 *   - While one of these calls runs, no other thread of the process may open or close a database: the calls open the
 *     window's file, and the system ends the claim of encap_db_open() when a file of the same process is closed.
 *
 * This header is valid C11 and C++17.
 */
#ifndef VRELLIS_ENCAP_INSPECT_H
#define VRELLIS_ENCAP_INSPECT_H

#include <stdint.h>

#include "encap_db_owner.h"

#ifdef __cplusplus
extern "C" {
#endif

#define ENCAP_INSPECT_API __attribute__((visibility("default")))

#define ENCAP_INSPECT_TEXT_BYTES 320   /* of a sentence in a result, its final NUL included */
#define ENCAP_INSPECT_NONE 0xffffffffu /* in place of an index: none is concerned */

/* How serious a finding is. */
#define ENCAP_FINDING_NOTE 0   /* sound, and worth knowing */
#define ENCAP_FINDING_DEATH 1  /* a process died in an operation and left it: encap_db_repair() mends it */
#define ENCAP_FINDING_DAMAGE 2 /* no death leaves it: something else wrote into the window */

/* One thing that is wrong with a database, or worth knowing. */
typedef struct encap_finding {
  uint32_t severity; /* ENCAP_FINDING_NOTE, _DEATH or _DAMAGE */
  uint32_t nh;       /* index of the NH concerned, or ENCAP_INSPECT_NONE */
  uint32_t tunnel;   /* index of the tunnel, likewise */
  uint32_t spare;
  uint64_t address;   /* of the node, block or word concerned; 0: none */
  const char *name;   /* of its kind, the same in every version, as "tunnel-count" */
  const char *text;   /* one sentence */
  const char *repair; /* what repair does about this kind, as "clears the slot" */
} encap_finding_t;

typedef void (*encap_finding_fn)(const encap_finding_t *finding, void *arg);

/* What the lock was like when the window was looked at. */
#define ENCAP_LOCK_FREE 0
#define ENCAP_LOCK_HELD 1    /* by a live process, or by one that cannot be looked at from here */
#define ENCAP_LOCK_LEFT 2    /* its holder died: the next operation takes it over */
#define ENCAP_LOCK_LOST 3    /* its holder is gone and was not marked as dead: encap_db_open() refuses the database */
#define ENCAP_LOCK_DAMAGED 4 /* it is no lock any more */

/* How to look. May be NULL where it is asked for: all 0. */
typedef struct encap_check_options {
  uint32_t bytes;       /* sizeof(encap_check_options_t) */
  uint32_t patience_ms; /* how long to wait for a moment between two operations; 0: 5000 */
} encap_check_options_t;

/* What a check found. */
typedef struct encap_check_result {
  uint32_t bytes;      /* sizeof(encap_check_result_t), set by the caller */
  uint32_t sound;      /* 1: the database was looked at, and nothing but notes was found */
  uint64_t findings;   /* without notes */
  uint64_t from_death; /* of these: ENCAP_FINDING_DEATH */
  uint64_t notes;
  uint64_t deaths;    /* as encap_db_deaths() tells them */
  uint32_t attached;  /* live processes that have the window attached, and those that cannot be looked at */
  uint32_t lock;      /* ENCAP_LOCK_... */
  int32_t holder_pid; /* of a lock that is held; 0: not known */
  int32_t holder_tid;
  uint32_t nhs;     /* in the trees */
  uint32_t tunnels; /* in the tree */
  char text[ENCAP_INSPECT_TEXT_BYTES];
} encap_check_result_t;

/*
 * Checks the database as its next user will find it: a change of a tree that a death cut off counts as rolled back, as
 * the next operation does. Works on a copy: it takes no lock, changes nothing, and follows no pointer that it has not
 * tested. The copy takes as much memory of this process as the window is large.
 * Calls `each` (may be NULL) for every finding, notes last; of one kind for the first 1000.
 * Out: *result (may be NULL); its `text` is the verdict.
 * Returns, with `findings` told only after 0:
 *   0    the database was looked at: *result says whether it is sound
 *   2    there is no such file
 *   11   (EAGAIN) the window was not still within the patience: parts of the copy were of different moments, or a
 *        process held the lock all the time and may be in the middle of an operation. `holder_pid` names that process;
 *        it may be stopped. Look again.
 *   12   this process has no memory for the copy
 *   22   `config` has no name, or the file is no regular one
 *   another errno value of opening the file, as 13 (EACCES)
 * Locking: none.
 */
ENCAP_INSPECT_API int encap_db_check(const encap_db_config_t *config, const encap_check_options_t *options,
                                     encap_finding_fn each, void *arg, encap_check_result_t *result);

/*
 * Counts the processes that ended without closing the database, since its window was made: killed ones, and those that
 * ended or ran another program without encap_db_close(). A daemon that calls this every second learns of a death when
 * the number has grown, and then checks. Reads the first pages of the window's file only.
 * Out: *deaths. Returns: 0; 2 when there is no such file; 22 when `config` has no name, or the file is no window;
 *   another errno value of opening the file.
 * Locking: none.
 */
ENCAP_INSPECT_API int encap_db_deaths(const encap_db_config_t *config, uint64_t *deaths);

/* What a repair may do beyond what is safe in any case. */
#define ENCAP_REPAIR_DRY_RUN 1u            /* change nothing and take no lock: tell what would be changed */
#define ENCAP_REPAIR_KEEP_EMPTY_TUNNELS 2u /* leave tunnels without NHs where they are */
#define ENCAP_REPAIR_DROP_UNREFERENCED 4u  /* take NHs of count 0 out, too */
#define ENCAP_REPAIR_DROP_GIVEN_BACK 8u    /* take the last NH of a tunnel that counts none out even if it has users */

/* How to repair. May be NULL where it is asked for: all 0. */
typedef struct encap_repair_options {
  uint32_t bytes;       /* sizeof(encap_repair_options_t) */
  uint32_t flags;       /* of the four above; any other bit is refused */
  uint32_t patience_ms; /* how long to wait for a process that holds the lock; 0: 5000 */
} encap_repair_options_t;

/* One thing that repair changed, or would change. */
typedef struct encap_change {
  uint32_t nh;     /* index of the NH concerned, or ENCAP_INSPECT_NONE */
  uint32_t tunnel; /* index of the tunnel, likewise */
  uint64_t address;
  const char *because; /* name of the finding that it mends */
  const char *text;    /* one sentence, as "set the count of tunnel 6 from 8 to 9" */
} encap_change_t;

typedef void (*encap_change_fn)(const encap_change_t *change, void *arg);

/* What a repair did. */
typedef struct encap_repair_result {
  uint32_t bytes;     /* sizeof(encap_repair_result_t), set by the caller */
  int32_t holder_pid; /* the process that kept the lock, with 110 and 11; 0: not known */
  uint64_t changes;
  uint64_t before;     /* findings without notes, before the repair */
  uint64_t after;      /* likewise when it ended; of a dry run the same as `before` */
  uint64_t from_death; /* of those before: ENCAP_FINDING_DEATH */
  char text[ENCAP_INSPECT_TEXT_BYTES];
} encap_repair_result_t;

/*
 * Mends what encap_db_check() finds, under the database's lock, while others run: they wait for as long, which is about
 * 0.3 s in a database of a million NHs. The window is attached for that time, unless this process has it attached
 * already. If this process dies in the repair, the next repair mends what that left.
 * Calls `each` (may be NULL) for every change, in their order, after the lock was given back.
 * Out: *result (may be NULL).
 * Returns:
 *   0    the database is sound now; of a dry run: *result says what would be changed
 *   1    (EPERM) the window's file is not to be trusted
 *   2    there is no such window
 *   5    (EIO) `after` findings are left that repair cannot mend, as nodes that have to be made anew in a full window
 *   11   (EAGAIN) of a dry run: the window was not still within the patience
 *   12   this process has no memory: each change that was made is whole, and another repair goes on from there
 *   16   (EBUSY) the lock is lost, and the process that `text` names has the window attached: end it first
 *   22   `config` has no name, a flag is not known, or nothing can be mended: the file is no window of this layout
 *        version, its header is damaged, or it holds no database
 *   110  (ETIMEDOUT) the process `holder_pid` kept the lock for as long as the patience: it may be stopped; or another
 *        process kept the claim on the file for 5 seconds
 *   131  (ENOTRECOVERABLE) the lock was given up by a process without its state being made consistent
 *   another code of encap_db_open()
 */
ENCAP_INSPECT_API int encap_db_repair(const encap_db_config_t *config, const encap_repair_options_t *options,
                                      encap_change_fn each, void *arg, encap_repair_result_t *result);

#ifdef __cplusplus
}
#endif

#endif
