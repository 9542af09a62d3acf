/*
 * The MPLS egress encapsulation database: its records and its operations.
 *
 * An encapsulation is a tunnel (interface handle and two labels) and a next hop (NH) on it (a label with a few
 * attributes). Every process of the forwarding plane finds, shares, enters and releases encapsulations in one database.
 * The database lies in one shared-memory window, which all processes map at the same address. Two levels of AVL trees
 * map keys to indexes that the callers choose. Two slot arrays hold the data and the reference counts. One robust,
 * process-shared, recursive mutex in the header guards the trees and the slots.
 *
 * Conventions
 *   - Indexes are global numbers: NH indexes nh_start <= i < nh_end, tunnel indexes tun_start <= i < tun_end, compared
 *     as unsigned 32-bit numbers. Tunnel index 0 is the null tunnel, for NHs on no labelled tunnel.
 *   - Every operation but one returns a status, which is 0 or an errno value: 22 (EINVAL), 12 (ENOMEM), or a code of
 *     the lock, the unlock or the window allocator, which passes through unchanged. "The lock's code" means that the
 *     lock could not be taken and nothing was done; "the unlock's code" means that everything was done.
 *   - A slot that is in use is called valid.
 *   - No operation undoes its steps: a failure on the way is reported, and the steps before it stay done.
 *   - Every operation reports its steps and its failures by debug points, and no point changes a result. "Raises" names
 *     the error messages of an operation, which are limited in their rate.
 *   - Keys are compared bit for bit, spare bits included: zero a key record before filling its fields.
 *   - mpls_egress_encap_db_init() comes first in every process; no operation may run before it.
 *   - All multi-byte fields are little-endian; bit 0 is the least significant bit of its unit; lengths are in bytes.
 *
 * This header is valid C11 and C++17 and includes headers of the C library only.
 */
#ifndef MPLS_EGRESS_ENCAP_DB_H
#define MPLS_EGRESS_ENCAP_DB_H

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define ENCAP_DB_STATIC_ASSERT(condition, text) static_assert(condition, text)
extern "C" {
#else
#define ENCAP_DB_STATIC_ASSERT(condition, text) _Static_assert(condition, text)
#endif

#define ENCAP_DB_API __attribute__((visibility("default")))

/* Pins one field of a record to its offset. */
#define ENCAP_DB_PIN(type, field, offset) \
  ENCAP_DB_STATIC_ASSERT(offsetof(type, field) == (offset), #type "." #field " moved")

/* ------------------------------------------------------------------------------------------------------------- keys */

/*
 * NH key: names an NH within its tunnel. 8 bytes, ordered by their memory image, unsigned, first byte first.
 *
 *      31        25 24 23 22 21 20                    0
 *   0 |   spare (11 bits: 31-21)  |     out_label1     |
 *   4 |  spare    |l2|proto|fo|      te_local_label    |
 */
typedef struct mpls_nh_key {
  uint32_t out_label1 : 21;        /* outgoing label of the NH */
  uint32_t spare_word0 : 11;       /* takes part in comparisons; keep 0 */
  uint32_t te_local_label : 21;    /* TE local label */
  uint32_t is_failover_nh : 1;     /* 1 = failover NH */
  uint32_t protocol : 2;           /* the callers' protocol code */
  uint32_t is_l2vpn_pref_path : 1; /* 1 = L2VPN preferred path */
  uint32_t spare_word1 : 7;        /* takes part in comparisons; keep 0 */
} mpls_nh_key_t;
ENCAP_DB_STATIC_ASSERT(sizeof(mpls_nh_key_t) == 8, "size of the NH key");

/*
 * Tunnel key: names a tunnel. 12 bytes, ordered like the NH key.
 *
 *      31      21 20                    0
 *   0 |  spare   |     out_label2       |
 *   4 |  spare   |     out_label3       |
 *   8 |              ifh                |
 */
typedef struct mpls_tunnel_key {
  uint32_t out_label2 : 21;  /* second outgoing label */
  uint32_t spare_word0 : 11; /* takes part in comparisons; keep 0 */
  uint32_t out_label3 : 21;  /* third outgoing label */
  uint32_t spare_word1 : 11; /* takes part in comparisons; keep 0 */
  uint32_t ifh;              /* interface handle, all 32 bits */
} mpls_tunnel_key_t;
ENCAP_DB_STATIC_ASSERT(sizeof(mpls_tunnel_key_t) == 12, "size of the tunnel key");
ENCAP_DB_PIN(mpls_tunnel_key_t, ifh, 8);

/* Full key of an encapsulation: an mpls_nh_key_t (bytes 0-7) followed by an mpls_tunnel_key_t (bytes 8-19). */
typedef struct egress_encap_key {
  uint32_t out_label1 : 21;
  uint32_t spare_word0 : 11;
  uint32_t te_local_label : 21;
  uint32_t is_failover_nh : 1;
  uint32_t protocol : 2;
  uint32_t is_l2vpn_pref_path : 1;
  uint32_t spare_word1 : 7;
  uint32_t out_label2 : 21;
  uint32_t spare_word2 : 11;
  uint32_t out_label3 : 21;
  uint32_t spare_word3 : 11;
  uint32_t ifh;
} egress_encap_key_t;
ENCAP_DB_STATIC_ASSERT(sizeof(egress_encap_key_t) == 20, "size of the encapsulation key");
ENCAP_DB_PIN(egress_encap_key_t, ifh, 16);

/* --------------------------------------------------------------------------------------------------- caller records */

/*
 * In/out record of the lookups and the insert. 20 bytes; it is never stored in the window.
 *
 *   0 | egr_nh |  4 | egr_tun |  8 | seed_nh |  12 | failover_nh |  16 | flags (u16) |  18 | padding |
 *
 *      15   14   13   12 11               0
 *  16 | sp | tf | nf | p |   failover_id   |   tf tun_found, nf nh_found, p is_protected_te_nh
 */
typedef struct egress_encap_info {
  uint32_t egr_nh;                         /* NH index: found, or to be used for a new NH */
  uint32_t egr_tun;                        /* tunnel index: found, or to be used for a new tunnel; 0 = null tunnel */
  uint32_t seed_nh;                        /* stored with a new NH, never interpreted */
  uint32_t failover_nh;                    /* stored with a new NH, never interpreted */
  __extension__ uint16_t failover_id : 12; /* stored with a new NH, never interpreted */
  __extension__ uint16_t is_protected_te_nh : 1; /* stored with a new NH, never interpreted */
  __extension__ uint16_t nh_found : 1;           /* the NH key is under the tunnel; implies tun_found */
  __extension__ uint16_t tun_found : 1;          /* the tunnel key is in the database */
  __extension__ uint16_t spare : 1;
} egress_encap_info_t;
ENCAP_DB_STATIC_ASSERT(sizeof(egress_encap_info_t) == 20, "size of the in/out record");
ENCAP_DB_PIN(egress_encap_info_t, failover_nh, 12);

/* An NH's auxiliary data as it is read back. 20 bytes. */
typedef struct egress_encap_aux_data {
  uint32_t egr_tun; /* tunnel index the NH rides on; 0 = null tunnel */
  uint32_t seed_nh;
  uint32_t is_protected_te_nh; /* 0 or 1 */
  uint16_t failover_id;        /* 12-bit value */
  uint16_t spare;              /* not written */
  uint32_t failover_nh;
} egress_encap_aux_data_t;
ENCAP_DB_STATIC_ASSERT(sizeof(egress_encap_aux_data_t) == 20, "size of the auxiliary data");
ENCAP_DB_PIN(egress_encap_aux_data_t, failover_id, 12);
ENCAP_DB_PIN(egress_encap_aux_data_t, failover_nh, 16);

/* An NH's auxiliary data as it is updated. 12 bytes; the spare bits are not read. */
typedef struct egr_nh_data {
  uint32_t seed_nh;
  uint32_t failover_nh;
  uint32_t failover_id : 12;
  uint32_t is_protected_te_nh : 1;
  uint32_t spare : 19;
} egr_nh_data_t;
ENCAP_DB_STATIC_ASSERT(sizeof(egr_nh_data_t) == 12, "size of the update record");

/* --------------------------------------------------------------------------------------------- records in a window */

/*
 * NH slot: all that the database knows of one NH. 28 bytes; the slot of an NH index is
 * nh_info_array[index - nh_start]. Guarded by the lock, except that vrl_can_delete_egr_nh_data_from_encap_db() reads
 * and vrl_update_egr_nh_data_in_encap_db() writes a slot without taking it. A free slot is all zero.
 *
 *      31        25 24 23 22 21 20                    0
 *   0 |                    ref_count                   |
 *   4 |   spare (11 bits: 31-21)  |     out_label1     |   bytes 4-11: the NH key, its spare bits 0
 *   8 |  spare    |l2|proto|fo|      te_local_label    |
 *  12 |                     seed_nh                    |
 *  16 |                       ifh                      |
 *  20 |                   failover_nh                  |
 *  24 | sp |v|p|   failover_id    |       egr_tun      |   bits of the u16 at 26: 0-11, p 12, v (valid) 13
 */
typedef struct egr_nh_info {
  uint32_t ref_count; /* users of the NH */
  uint32_t out_label1 : 21;
  uint32_t spare_word1 : 11;
  uint32_t te_local_label : 21;
  uint32_t is_failover_nh : 1;
  uint32_t protocol : 2;
  uint32_t is_l2vpn_pref_path : 1;
  uint32_t spare_word2 : 7;
  uint32_t seed_nh;
  uint32_t ifh;
  uint32_t failover_nh;
  uint16_t egr_tun; /* tunnel index, global numbering; 0 = null tunnel */
  __extension__ uint16_t failover_id : 12;
  __extension__ uint16_t is_protected_te_nh : 1;
  __extension__ uint16_t valid : 1; /* 1 = in use */
  __extension__ uint16_t spare : 2;
} egr_nh_info_t;
ENCAP_DB_STATIC_ASSERT(sizeof(egr_nh_info_t) == 28, "size of the NH slot");
ENCAP_DB_PIN(egr_nh_info_t, seed_nh, 12);
ENCAP_DB_PIN(egr_nh_info_t, ifh, 16);
ENCAP_DB_PIN(egr_nh_info_t, failover_nh, 20);
ENCAP_DB_PIN(egr_nh_info_t, egr_tun, 24);

/*
 * Tunnel slot. 16 bytes; the slot of a tunnel index is tun_info_array[index - tun_start], that of tunnel index 0 the
 * null tunnel slot at tun_info_array[tun_end - tun_start]. Guarded by the lock. A free slot is all zero; the null
 * tunnel slot, once filled, stays valid and only its count moves.
 *
 *      31      21 20                    0
 *   0 |           ref_count             |
 *   4 |  spare   |     out_label2       |
 *   8 |  spare   |     out_label3       |
 *  12 |       0 (bytes 13-15) | spare|v |   v: valid, bit 0 of byte 12
 */
typedef struct egr_tun_info {
  uint32_t ref_count; /* NHs that ride on the tunnel */
  uint32_t out_label2 : 21;
  uint32_t spare_word1 : 11;
  uint32_t out_label3 : 21;
  uint32_t spare_word2 : 11;
  __extension__ uint8_t valid : 1; /* 1 = in use */
  __extension__ uint8_t spare : 7;
  uint8_t zero[3];
} egr_tun_info_t;
ENCAP_DB_STATIC_ASSERT(sizeof(egr_tun_info_t) == 16, "size of the tunnel slot");
ENCAP_DB_PIN(egr_tun_info_t, zero, 13);

/* The tree service's linkage: the first 24 bytes of each node, never written here but to zero a new node. */
typedef struct encap_avl_link {
  uint64_t word[3];
} encap_avl_link_t;

/*
 * Node of an NH tree. 40 bytes, allocated in the window, freed when it leaves its tree. Guarded by the lock.
 *
 *   0 | avl_link (24) |  24 | key (8) |  32 | nh_index (4) |  36 | spare (4) |
 */
typedef struct mpls_nh_entry {
  encap_avl_link_t avl_link; /* owned by the tree service */
  mpls_nh_key_t key;         /* as the caller supplied it, spare bits included */
  uint32_t nh_index;         /* global numbering; 0 until the insert fills it */
  uint32_t spare;            /* 0 */
} mpls_nh_entry_t;
ENCAP_DB_STATIC_ASSERT(sizeof(mpls_nh_entry_t) == 40, "size of the NH node");
ENCAP_DB_PIN(mpls_nh_entry_t, key, 24);
ENCAP_DB_PIN(mpls_nh_entry_t, nh_index, 32);

/*
 * Node of the tunnel tree. 56 bytes, allocated in the window, freed when it leaves the tree. Guarded by the lock.
 *
 *   0 | avl_link (24) |  24 | key (12) |  36 | spare (4) |  40 | nh_root (8) |  48 | egr_tun (2) |  50 | zero (6) |
 */
typedef struct mpls_tunnel_entry {
  encap_avl_link_t avl_link; /* owned by the tree service */
  mpls_tunnel_key_t key;     /* as the caller supplied it, spare bits included */
  uint32_t spare;            /* 0 */
  void *nh_root;             /* root of the tunnel's NH tree; NULL = no NH */
  uint16_t egr_tun;          /* tunnel index, global numbering; 0 = null tunnel */
  uint8_t zero[6];
} mpls_tunnel_entry_t;
ENCAP_DB_STATIC_ASSERT(sizeof(mpls_tunnel_entry_t) == 56, "size of the tunnel node");
ENCAP_DB_PIN(mpls_tunnel_entry_t, key, 24);
ENCAP_DB_PIN(mpls_tunnel_entry_t, nh_root, 40);
ENCAP_DB_PIN(mpls_tunnel_entry_t, egr_tun, 48);

#define ENCAP_DB_LOCK_AREA_BYTES 136

/* The lock area: the mutex at its start, the rest zero. */
typedef union egress_encap_lock {
  pthread_mutex_t mutex;
  uint8_t area[ENCAP_DB_LOCK_AREA_BYTES];
} egress_encap_lock_t;

/*
 * Header of a database, in storage that the caller provides in the window. The library uses bytes 0 to 187.
 * "fixed": the first initialisation writes the field, and the operations read it without the lock.
 *
 * These invariants hold while the lock is free, unless a process died while it held the lock:
 *   I1  nh_end - nh_start NH slots and tun_end - tun_start + 1 tunnel slots stand behind the two arrays.
 *   I2  a tunnel node is in the tree under tun_root for each tunnel key entered and not yet gone; its NH tree holds
 *       one node for each NH key entered under it.
 *   I3  the NH node of index i has slot i valid, with the node's key (spare bits apart) and its tunnel node's ifh and
 *       egr_tun.
 *   I4  a tunnel slot that is valid counts the NHs whose slots name it; the null tunnel slot counts for all tunnel
 *       nodes of index 0 together.
 *   I5  an NH slot's ref_count is the number of users that its callers gave it.
 * This one holds at every moment, and debug builds assert it at each access to a slot:
 *   I6  no operation accesses a slot by an index out of range.
 */
typedef struct egress_encap_db {
  void *tun_root;                 /*   0  root of the tunnel tree; written by the tree service, under the lock */
  uint32_t shm_id;                /*   8  window of all allocations; fixed */
  uint32_t spare;                 /*  12  never written here */
  egr_tun_info_t *tun_info_array; /*  16  fixed; written by the window allocator */
  egr_nh_info_t *nh_info_array;   /*  24  fixed; written by the window allocator */
  uint32_t nh_start;              /*  32  first NH index; fixed */
  uint32_t nh_end;                /*  36  one past the last NH index; fixed */
  uint32_t tun_start;             /*  40  first tunnel index; fixed */
  uint32_t tun_end;               /*  44  one past the last tunnel index; fixed */
  egress_encap_lock_t lock;       /*  48  the one lock */
  uint32_t is_initialized;        /* 184  non-zero: holds a database; written by the window's owner, never here */
  uint32_t spare_end;             /* 188  never used */
} egress_encap_db_t;
ENCAP_DB_STATIC_ASSERT(sizeof(egress_encap_db_t) == 192, "size of the header");
ENCAP_DB_PIN(egress_encap_db_t, shm_id, 8);
ENCAP_DB_PIN(egress_encap_db_t, tun_info_array, 16);
ENCAP_DB_PIN(egress_encap_db_t, nh_info_array, 24);
ENCAP_DB_PIN(egress_encap_db_t, nh_start, 32);
ENCAP_DB_PIN(egress_encap_db_t, nh_end, 36);
ENCAP_DB_PIN(egress_encap_db_t, tun_start, 40);
ENCAP_DB_PIN(egress_encap_db_t, tun_end, 44);
ENCAP_DB_PIN(egress_encap_db_t, lock, 48);
ENCAP_DB_PIN(egress_encap_db_t, is_initialized, 184);
ENCAP_DB_STATIC_ASSERT(sizeof(egress_encap_lock_t) == ENCAP_DB_LOCK_AREA_BYTES, "size of the lock area");

/* The database of this process. Only mpls_egress_encap_db_init() writes it; it is NULL before. */
ENCAP_DB_API extern egress_encap_db_t *egress_encap_db;

/* -------------------------------------------------------------------------------------------------- initialisation */

/*
 * Makes the database at `header` the database of this process. If the header's is_initialized is 0, sets the database
 * up first: stores the ranges, begins with an empty tunnel tree, allocates both slot arrays in window `shm_id`
 * (28 * nh_size and 16 * (tun_size + 1) bytes) and zeroes them, and makes the lock. Registers the debug points once in
 * a process.
 * Requires: the window is mapped. No other process uses a database before its first initialisation has returned. The
 *   caller sets is_initialized afterwards.
 * Returns: 0, also when the header already held a database; 22 when `header` is NULL, and nothing was done; 12 when the
 *   allocator reported success without a block; else the status of the allocator or of eencap_lock_init(), and then the
 *   header is filled in part and nothing is released.
 * Locking: takes no lock.
 */
ENCAP_DB_API int mpls_egress_encap_db_init(uint32_t shm_id, uint32_t nh_size, uint32_t tun_size, uint32_t nh_start,
                                           uint32_t tun_start, egress_encap_db_t *header);

/* ------------------------------------------------------------------------------------------------------------- lock */

/*
 * Zeroes the 136 bytes at `lock_area` and makes them a recursive, process-shared, robust mutex.
 * Returns: 0 or the status of the first POSIX call that failed.
 */
ENCAP_DB_API int eencap_lock_init(void *lock_area);

/*
 * Takes the database lock, for a caller that holds it across several operations. The lock is recursive; the caller
 * gives it back with pthread_mutex_unlock(). When a holder died, the next caller gets the lock, and the database is as
 * the dead process left it.
 * Returns: 0 with the lock held, else the POSIX status without it. Stops the process when the lock cannot be made
 *   consistent or is not recoverable.
 * Reports: tells the thread-debug service of a wait that blocks.
 */
ENCAP_DB_API int vrl_egress_encap_db_lock(pthread_mutex_t *mutex);

/* Entry point for a mutex-monitoring service. Does nothing. */
ENCAP_DB_API void eencap_mutex_monitor_server_fn(void);

/* ----------------------------------------------------------------------------------------------------------- lookup */

/*
 * Looks `key` up.
 * Requires: `info` is not NULL, and concurrent calls do not share it.
 * Out: clears both found flags of `info`. Sets tun_found and egr_tun when the tunnel is found, and nh_found and egr_nh
 *   when the NH is found under it. Leaves the other fields alone.
 * Returns: 0, whether or not the key is found; the lock's code (both flags are clear); the unlock's code.
 * Locking: takes the lock.
 */
ENCAP_DB_API int vrl_find_egress_encap(egress_encap_info_t *info, egress_encap_key_t key);

/*
 * Looks `key` up as vrl_find_egress_encap() does, and adds one reference to the NH that it finds, under the same lock.
 * Requires, Out: as for vrl_find_egress_encap().
 * Returns: 0, also when the unlock fails; the lock's code; 22 when the slot of the NH is not valid, or when the index
 *   in its node is out of range because a process died before it stored one. No reference is added then.
 * Locking: takes the lock.
 * Raises: NH_NOTVALID_ERROR with that 22.
 */
ENCAP_DB_API int vrl_find_and_share_egress_encap(egress_encap_info_t *info, egress_encap_key_t key);

/*
 * Adds one reference to NH `nh_index`. The count is not checked: at 4294967295 it goes on at 0.
 * Returns: 0; 22 when the index is out of range or the slot is not valid; the lock's code; the unlock's code.
 * Locking: takes the lock.
 * Raises: NH_NOTVALID_ERROR when the slot is not valid.
 */
ENCAP_DB_API int vrl_find_and_share_egress_nh(uint32_t nh_index);

/* ----------------------------------------------------------------------------------------------------------- insert */

/*
 * Enters the parts of `key` that the found flags of `info` call missing, at the indexes in `info`, with first
 *   references:
 *   tun_found and nh_found   nothing is missing; returns 0 at once
 *   tun_found                a new NH (egr_nh) on the known tunnel (egr_tun)
 *   neither, or nh_found     a new tunnel (egr_tun, 0 = null tunnel) and a new NH (egr_nh) on it
 * Reads `info` and does not write it.
 * Requires: no other NH has the index egr_nh, and no other tunnel has that of a new tunnel. The library does not look;
 *   it returns 0 and leaves the database damaged. Tunnel index 0 is for keys whose out_label2 and out_label3 are 0.
 * Returns: 0, also when the last unlock fails; 22 when `info` is NULL or an index is out of range; 22 for every failure
 *   under the lock: the tunnel is missing, there is no memory, the key is there already, or a slot is not valid; the
 *   lock's code.
 * Locking: takes the lock, after it has checked the ranges.
 * Raises: NH_NOTVALID_ERROR or TUN_NOTVALID_ERROR when a slot is not valid.
 */
ENCAP_DB_API int vrl_insert_egress_encap(egress_encap_info_t *info, egress_encap_key_t key);

/*
 * Calls vrl_insert_egress_encap() and then sets the count of the NH to `ref_count`, also when the NH was there already.
 * Requires: as for vrl_insert_egress_encap().
 * Returns: 0; 22 when `info` is NULL; else the status of the insert, or that of vrl_find_and_set_egress_nh_ref().
 * Locking: takes no lock of its own; each of the two steps takes and releases the lock.
 */
ENCAP_DB_API int vrl_egress_encap_nh_insert_attach(egress_encap_info_t *info, uint32_t ref_count,
                                                   egress_encap_key_t key);

/*
 * Sets the count of NH `nh_index` to `ref_count`.
 * Returns: 0; 22 when the index is out of range or the slot is not valid; the lock's code; the unlock's code.
 * Locking: takes the lock.
 * Raises: NH_NOTVALID_ERROR when the slot is not valid.
 */
ENCAP_DB_API int vrl_find_and_set_egress_nh_ref(uint32_t nh_index, uint32_t ref_count);

/* ---------------------------------------------------------------------------------------------------------- release */

/*
 * Removes NH `nh_index` at once, although it may have users, and takes its reference from its tunnel. The tunnel is
 * removed with its last NH.
 * Requires: no pointer is NULL.
 * Out: sets all three to 0 first, unless the index is out of range; then they stay untouched.
 *   egr_tun               the NH's tunnel index
 *   tun_to_del_from_prm   1 when the tunnel lost its last reference
 *   nh_ref_count          the NH's count when it was removed
 * Returns: 0, also when the NH was missing from its tree; 22 when the index is out of range, the slot is not valid, the
 *   tunnel's count was refused, the tunnel is missing, or a tree refused a removal; the lock's code.
 * Locking: takes the lock.
 * Raises: NH_NOTFOUND_ERROR, TUN_NOTFOUND_ERROR, TUN_NOTVALID_ERROR or TUN_REFCOUNT_ERROR, each for the case of its
 *   name.
 */
ENCAP_DB_API int vrl_egress_encap_nh_detach(uint32_t nh_index, uint32_t *egr_tun, uint32_t *tun_to_del_from_prm,
                                            uint32_t *nh_ref_count);

/*
 * Takes one reference from NH `nh_index`. With the last one it removes the NH and takes its reference from its tunnel.
 * The tunnel is removed with its last NH.
 * Requires: no pointer is NULL.
 * Out: sets none of the three in advance, and leaves all three untouched while the NH has references.
 *   nh_to_del             1 when the NH was removed, else untouched
 *   egr_tun               the NH's tunnel index, when the removal came to its end
 *   tun_to_del_from_prm   1 when the tunnel lost its last reference, else 0; written together with egr_tun
 * Returns: 0, also when only the count went down, and when the NH was missing from its tree; 22 when the index is out
 *   of range, the slot is not valid, the count was 0 already, the tunnel's count was refused, the tunnel is missing, or
 *   a tree refused a removal; the lock's code.
 * Locking: takes the lock.
 * Raises: as vrl_egress_encap_nh_detach(), and NH_REFCOUNT_ERROR when the count was 0.
 */
ENCAP_DB_API int vrl_delete_and_free_egress_encap_with_nh_key(uint32_t nh_index, uint32_t *egr_tun, uint32_t *nh_to_del,
                                                              uint32_t *tun_to_del_from_prm);

/* ------------------------------------------------------------------------------------------------------------- data */

/*
 * Tells whether NH `nh_index` has exactly one reference.
 * Returns: a truth value and not a status: 1 when it has; 0 when it has not, when the index is out of range, and when
 *   the slot is not valid.
 * Locking: takes no lock; a caller that acts on the answer holds the lock.
 * Raises: NH_NOTVALID_ERROR when the slot is not valid.
 */
ENCAP_DB_API int vrl_can_delete_egr_nh_data_from_encap_db(uint32_t nh_index);

/*
 * Rewrites seed_nh, is_protected_te_nh, failover_id and failover_nh of NH `nh_index`, and leaves the rest of its slot
 * alone.
 * Returns: 0; 22 when the index is out of range or the slot is not valid.
 * Locking: takes no lock; a caller with concurrent writers holds the lock.
 * Raises: NH_NOTVALID_ERROR when the slot is not valid.
 */
ENCAP_DB_API int vrl_update_egr_nh_data_in_encap_db(uint32_t nh_index, egr_nh_data_t data);

/*
 * Reads NH `nh_index` back as a full key and its auxiliary data.
 * Requires: no pointer is NULL.
 * Out: the named fields of both records; spare bits stay as they are, so a caller that looks the key up again zeroes
 *   the record first. After a failure, except that of the unlock, both records are untouched.
 * Returns: 0; 22 when the index is out of range or the slot is not valid; the lock's code; the unlock's code.
 * Locking: takes the lock.
 */
ENCAP_DB_API int vrl_get_encap_key_and_aux_data_from_nh(uint32_t nh_index, egress_encap_aux_data_t *aux,
                                                        egress_encap_key_t *key);

/* ------------------------------------------------------------------------------------------------------ diagnostics */

/* Heads of the chains of debug points and (empty) of performance points; ed.h lays the record out. */
struct ed_site;
ENCAP_DB_API extern struct ed_site ed_dummy_libmpls_egress_encap_db;
ENCAP_DB_API extern struct ed_site ed_perf_dummy_libmpls_egress_encap_db;

/* The six error messages and their rate limits; oxa_errmsg.h lays the records out. */
struct oxa_msg_rec;
struct oxa_msg_limit;
ENCAP_DB_API extern const struct oxa_msg_rec oxa_msg_rec_mpls_encap_db_nh_notfound_error;
ENCAP_DB_API extern const struct oxa_msg_rec oxa_msg_rec_mpls_encap_db_nh_notvalid_error;
ENCAP_DB_API extern const struct oxa_msg_rec oxa_msg_rec_mpls_encap_db_nh_refcount_error;
ENCAP_DB_API extern const struct oxa_msg_rec oxa_msg_rec_mpls_encap_db_tun_notfound_error;
ENCAP_DB_API extern const struct oxa_msg_rec oxa_msg_rec_mpls_encap_db_tun_notvalid_error;
ENCAP_DB_API extern const struct oxa_msg_rec oxa_msg_rec_mpls_encap_db_tun_refcount_error;
ENCAP_DB_API extern struct oxa_msg_limit oxa_msg_limit_mpls_encap_db_nh_notfound_error;
ENCAP_DB_API extern struct oxa_msg_limit oxa_msg_limit_mpls_encap_db_nh_notvalid_error;
ENCAP_DB_API extern struct oxa_msg_limit oxa_msg_limit_mpls_encap_db_nh_refcount_error;
ENCAP_DB_API extern struct oxa_msg_limit oxa_msg_limit_mpls_encap_db_tun_notfound_error;
ENCAP_DB_API extern struct oxa_msg_limit oxa_msg_limit_mpls_encap_db_tun_notvalid_error;
ENCAP_DB_API extern struct oxa_msg_limit oxa_msg_limit_mpls_encap_db_tun_refcount_error;

#ifdef __cplusplus
}
#endif

#endif
