/*
 * Owner of encapsulation databases: creates or attaches a window, places the header, initialises the database.
 *
 * Every process that uses a database begins here. Two processes may open it at the same moment. If a creator dies
 * before it is done, the next process finds no database and makes it.
 */
#ifndef VRELLIS_ENCAP_DB_OWNER_H
#define VRELLIS_ENCAP_DB_OWNER_H

#include <stdint.h>

#include "mpls_egress_encap_db.h"
#include "shmwin.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Which database, and what it is like. Zero the record before filling it. */
typedef struct encap_db_config {
  const char *directory; /* NULL: /dev/shm */
  const char *name;      /* file name of the window */
  uint32_t shm_id;       /* id of the window, the same in every process */
  uint32_t mode;         /* file mode; 0: 0600 */
  uint32_t nh_start;
  uint32_t nh_size;
  uint32_t tun_start;
  uint32_t tun_size;
  uint64_t size;    /* bytes of the window; 0: enough for every NH and every tunnel of the ranges */
  uint64_t address; /* where to map it; 0: a default that is free here */
  uint32_t named;   /* which owners of the window's file are trusted besides the caller and root: SHMWIN_NAMED_USER, */
  uint32_t user;    /* SHMWIN_NAMED_GROUP or both; see shmwin_config_t. Several users share a database with mode 0660 */
  uint32_t group;   /* and a group that all of them name. */
} encap_db_config_t;

/*
 * Creates the database, or attaches the one that is there, and makes it this process's `egress_encap_db`.
 * Out: *created (may be NULL), 1 when this call set the database up.
 * Returns: 0; 22 for a configuration that can never work (a tunnel index past 65535, a range past 32 bits, a window too
 *   small for the arrays) and for a database whose ranges differ from the configured ones; 17 when this process has a
 *   database open; 131 (ENOTRECOVERABLE) when the thread that holds the database's lock no longer lives and the system
 *   did not mark it as dead (the window was copied, or kept over a reboot): `encapctl repair` mends it; the codes of
 *   shmwin.h; the status of mpls_egress_encap_db_init(). `error` is filled with one sentence.
 *   A failure leaves nothing attached, and `egress_encap_db` NULL unless a database was open before.
 * Locking: one thread of a process at a time opens or closes.
 */
SHMWIN_API int encap_db_open(const encap_db_config_t *config, int *created, shmwin_error_t *error);

/*
 * Returns: the size that encap_db_open() gives a database whose configured size is 0, in bytes; 0 for a configuration
 * that can never work.
 */
SHMWIN_API uint64_t encap_db_default_size(const encap_db_config_t *config);

/*
 * Whether the open database of this process is the configured one.
 * Returns: 0; 17 when it is another one, with `error` filled; 22 when its ranges differ; 2 when none is open.
 */
SHMWIN_API int encap_db_matches(const encap_db_config_t *config, shmwin_error_t *error);

/* Detaches the window of this process's database; `egress_encap_db` is NULL then. Returns: 0; 2 when there is none. */
SHMWIN_API int encap_db_close(void);

/* Removes the database's window; see shmwin_unlink(). */
SHMWIN_API int encap_db_destroy(const char *directory, const char *name, int force, shmwin_error_t *error);

#ifdef __cplusplus
}
#endif

#endif
