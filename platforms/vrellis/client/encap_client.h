/*
 * Client of an encapsulation database: what a daemon links. Every reference has an owner, and every call is all or
 * nothing at any death.
 *
 * A client has a name, and the database keeps a ledger for each name: which NHs the client holds, and how many
 * references on each. When the process of a name dies or closes, the next process that opens the name takes up
 * everything that the name held.
 *
 * Conventions
 *   - Zero every record before you fill it. Records may grow at their end in later versions.
 *   - Any thread of the process may use a client. A child of fork must open a client of its own: with its parent's
 *     clients, every call returns 1 (EPERM).
 *   - Every call but encap_client_peek() and encap_client_read() takes the database lock and gives it back, and returns
 *     the lock's status if it cannot be taken.
 *     Callbacks are called without the lock; they may call the client again, but must not close or leave it.
 *   - A call that does not return 0 changed nothing, unless its contract says otherwise.
 *   - After the death of any process at any instruction of any of these calls, the next call of any client finds the
 *     database as it was before the interrupted call or as it is after it.
 *
 * This header is valid C11 and C++17.
 */
#ifndef VRELLIS_ENCAP_CLIENT_H
#define VRELLIS_ENCAP_CLIENT_H

#include <stdint.h>

#include "encap_db_owner.h"
#include "mpls_egress_encap_db.h"
#include "shmwin.h"

#ifdef __cplusplus
extern "C" {
#endif

#define ENCAP_CLIENT_API __attribute__((visibility("default")))

#define ENCAP_CLIENT_NAME_BYTES 32 /* of a name, its final NUL included */
#define ENCAP_CLIENT_MAX 64        /* names in one database */

typedef struct encap_client encap_client_t;

/* Which database, and as whom. */
typedef struct encap_client_config {
  encap_db_config_t database; /* it is made when it is not there; with size 0 it gets room for the ledgers, too */
  const char *name;           /* 1 to 31 of A-Z a-z 0-9 . _ - ; one live process for each name */
} encap_client_config_t;

/* What the database stores with an NH and never interprets. Belongs to the call that creates the NH. */
typedef struct encap_attributes {
  uint32_t seed_nh;
  uint32_t failover_nh;
  uint32_t failover_id;        /* 12 bits */
  uint32_t is_protected_te_nh; /* 0 or 1 */
} encap_attributes_t;

/* What encap_client_enter() did. */
typedef struct encap_entry {
  uint32_t nh;             /* index of the NH */
  uint32_t tunnel;         /* index of its tunnel; 0 = null tunnel */
  uint32_t held;           /* references of this client on the NH now */
  uint32_t nh_created;     /* 1: this call created the NH: program it */
  uint32_t tunnel_created; /* 1: this call created the tunnel: program it; never 1 for the null tunnel */
  uint32_t renewed;        /* 1: a stale reference was renewed, and nothing else changed */
} encap_entry_t;

/* What the release of one reference did. */
typedef struct encap_left {
  uint32_t nh;
  uint32_t tunnel;
  uint32_t held;        /* references of this client on the NH now */
  uint32_t nh_left;     /* 1: the NH left the database: take it out of the hardware */
  uint32_t tunnel_left; /* 1: the tunnel left the database, likewise; never 1 for the null tunnel */
} encap_left_t;

/* What a client holds on one NH. */
typedef struct encap_holding {
  uint32_t nh;
  uint32_t held;  /* references, stale ones included */
  uint32_t stale; /* of these: not renewed since encap_client_refresh_begin() */
  egress_encap_key_t key;
} encap_holding_t;

/* What the database knows of one name. 128 bytes. */
typedef struct encap_client_info {
  char name[ENCAP_CLIENT_NAME_BYTES];
  uint32_t pid;   /* of the process that has the name, or had it last */
  uint32_t state; /* ENCAP_CLIENT_ALIVE, _DEAD, _CLOSED or _UNKNOWN */
  /* Nanoseconds since 1970: when a live client opened the name, when a closed one closed it, and when the death of a
     dead one was first noticed by encap_client_list(), which `encapctl reclaim` calls, too. */
  uint64_t since;
  uint64_t nhs;     /* NHs on which it holds references */
  uint64_t held;    /* references */
  uint64_t stale;   /* of these: stale */
  uint64_t entered; /* references that encap_client_enter() added, since the name came to be */
  uint64_t renewed;
  uint64_t released;
  uint64_t refreshes;
  uint64_t refused; /* possible keys for which encap_client_enter() did not return 0 */
} encap_client_info_t;

#define ENCAP_CLIENT_CLOSED 0
#define ENCAP_CLIENT_ALIVE 1
#define ENCAP_CLIENT_DEAD 2
#define ENCAP_CLIENT_UNKNOWN 3 /* its process cannot be looked at from here, so it counts as alive */

/*
 * Makes or attaches the database and becomes the client of the configured name, with everything that the name held.
 * Out: *client, to be given back by encap_client_close() or encap_client_leave(); NULL after a failure.
 * Returns: 0; 16 (EBUSY) while a live process has the name; 11 (EAGAIN) when 64 names are taken, each by a live process
 *   or with references; 12 (ENOMEM) when the window or the process has no memory for a client; 22 for a name that
 *   cannot be, or when the records of the clients are damaged; else the codes of encap_db_open(); `error` (may be NULL)
 *   filled with one sentence.
 * A process may open several names of one database.
 */
ENCAP_CLIENT_API int encap_client_open(const encap_client_config_t *config, encap_client_t **client,
                                       shmwin_error_t *error);

/*
 * Closes the client. What it holds is kept for the next process that opens the name; a name that holds nothing is
 * forgotten. The database is closed with the last client of this process that opened it.
 * Returns: 0; the lock's status, with the client closed in this process and the name taken over as after a death.
 */
ENCAP_CLIENT_API int encap_client_close(encap_client_t *client);

/*
 * Takes one reference on the encapsulation of `key`. A stale reference of this client is renewed instead; a key that
 * is in the database gets one more reference; otherwise indexes are chosen and the key is entered. A key without
 * labels 2 and 3 goes to the null tunnel.
 * `attributes` may be NULL: all 0.
 * Out: *entry (may be NULL), filled when 0 is returned.
 * Returns: 0; 28 (ENOSPC) when no index is free; 12 (ENOMEM) when the window has no memory; 22 (EINVAL) for a key with
 *   a bit outside its fields, or when the database is damaged; 75 (EOVERFLOW) at 16,777,215 references on one NH.
 */
ENCAP_CLIENT_API int encap_client_enter(encap_client_t *client, egress_encap_key_t key,
                                        const encap_attributes_t *attributes, encap_entry_t *entry);

/*
 * Gives back one reference of this client on NH `nh`, a fresh one before a stale one. The last reference of all takes
 * the NH out, and the last NH takes its tunnel out. A reference on an NH that a process without a client has taken out
 * is given back alone: nh_left is 0 then.
 * Out: *left (may be NULL), filled when 0 is returned.
 * Returns: 0; 2 (ENOENT) when this client holds no reference on the NH; 22 when the database is damaged.
 */
ENCAP_CLIENT_API int encap_client_release(encap_client_t *client, uint32_t nh, encap_left_t *left);

/*
 * Calls `each` for every NH on which this client holds references, in no order. What changes meanwhile may or may not
 * be seen; an NH is told of once at most.
 * Returns: 0; 12 when this process has no memory for the list (nothing is told).
 */
ENCAP_CLIENT_API int encap_client_each(encap_client_t *client, void (*each)(const encap_holding_t *, void *),
                                       void *arg);

/*
 * Marks everything that this client holds as stale, in one step. May be called again at any time.
 * Returns: 0.
 */
ENCAP_CLIENT_API int encap_client_refresh_begin(encap_client_t *client);

/*
 * Releases every reference of this client that is still stale, one after the other, and calls `gone` (may be NULL)
 * for each release. Each release is a step of its own; another call releases what an interrupted one left.
 * Returns: 0; 22 when the database is damaged, with the releases before that done.
 */
ENCAP_CLIENT_API int encap_client_refresh_end(encap_client_t *client, void (*gone)(const encap_left_t *, void *),
                                              void *arg);

/*
 * Releases everything that this client holds, as encap_client_refresh_end() does, forgets the name and closes.
 * Returns: 0; 22 when the database is damaged, with the client as encap_client_close() leaves it.
 */
ENCAP_CLIENT_API int encap_client_leave(encap_client_t *client, void (*gone)(const encap_left_t *, void *), void *arg);

/*
 * Does the same for the client of another name, whose process has died or closed.
 * Returns: 0; 2 when there is no such name; 16 while the process of that name lives, or cannot be looked at; 22 when
 *   the database is damaged.
 */
ENCAP_CLIENT_API int encap_client_reclaim(encap_client_t *client, const char *name,
                                          void (*gone)(const encap_left_t *, void *), void *arg);

/*
 * Lists the names of the database.
 * Out: out[0] to out[room - 1], as far as there are names; *count, how many names there are.
 * Returns: 0; 22 when the records of the clients are damaged.
 */
ENCAP_CLIENT_API int encap_client_list(encap_client_t *client, encap_client_info_t *out, uint32_t room,
                                       uint32_t *count);

/*
 * Looks a key up without the lock: waits for no process, changes nothing in the window and writes no trace record. Only
 * when writers changed the same tree during each of thousands of looks, it tries the lock and, if the lock is free,
 * looks once under it.
 * Out: *nh and *tunnel, the indexes; UINT32_MAX for the one, or for both, that is not there.
 * Returns: 0; 2 (ENOENT) when the NH is not there; 22 (EINVAL) when the database is damaged; 11 (EAGAIN) when writers
 *   kept changing the tree during every look, and the lock was never free when it was tried.
 * The answer was true at one moment during the call for everything that clients do. While the process of a call is
 *   stopped, or dead, what it had begun is not seen. A process that uses the operations directly is seen step by step:
 *   an insert after the index of the NH, and that of its tunnel, is in the node; a removal once the NH has left its
 *   tree, and then once the tunnel has left its own.
 */
ENCAP_CLIENT_API int encap_client_peek(encap_client_t *client, egress_encap_key_t key, uint32_t *nh, uint32_t *tunnel);

/*
 * Reads an NH by its index in the same way.
 * Out: *key, *aux and *ref_count (all references, of all processes), filled when 0 is returned.
 * Returns: 0; 2 for a free index; 22 for one out of range, or when the database is damaged; 11 as above.
 * Of a process that uses the operations directly, each word of a slot that it fills, counts or clears is a step:
 *   between two of them the fields may belong to different moments.
 */
ENCAP_CLIENT_API int encap_client_read(encap_client_t *client, uint32_t nh, egress_encap_key_t *key,
                                       egress_encap_aux_data_t *aux, uint32_t *ref_count);

#ifdef __cplusplus
}
#endif

#endif
