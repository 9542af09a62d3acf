/*
 * Shared-memory window service: windows that several processes map at one address, and the allocator inside them.
 *
 * A window is a file, under /dev/shm unless its user names another directory, whose header records what it is: magic,
 * layout version, size, address, id, the creator's PID namespace, who is attached. Its space is reserved at creation.
 *
 * Locking: create, attach and unlink hold the window's file lock, which dies with its holder. shmwin_malloc() and
 *   shmwin_free() run under the lock of the database in the window and have no lock of their own.
 * Death: taking or giving a block is committed by one stored word; the worst that a death leaves behind is one block
 *   taken and reachable from nowhere.
 */
#ifndef VRELLIS_SHMWIN_H
#define VRELLIS_SHMWIN_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define SHMWIN_API __attribute__((visibility("default")))
#define SHMWIN_MAX_WINDOWS 8        /* windows one process can have attached */
#define SHMWIN_USER_AREA_BYTES 1024 /* storage for the user's own header, at a fixed place of the window, zeroed */

/* Why a call was refused: one sentence, no newline, naming both sides of a mismatch. */
typedef struct shmwin_error {
  char text[320];
} shmwin_error_t;

/* Which owners of a window's file the configuration names, in `named`. */
#define SHMWIN_NAMED_USER 1u
#define SHMWIN_NAMED_GROUP 2u

/* What to create. Zero the record before filling it. */
typedef struct shmwin_config {
  const char *directory; /* NULL: /dev/shm */
  const char *name;      /* file name within it, no '/' */
  uint32_t shm_id;       /* the window's id, which shmwin_malloc() is given */
  uint32_t mode;         /* file mode; 0: 0600 */
  uint64_t size;         /* bytes, rounded up to whole pages of 4096, on hugetlbfs to whole huge pages */
  uint64_t address;      /* where every process maps it; 0: a default for the id that is free here */
  uint64_t kept;         /* bytes for other blocks, which groups of nodes leave unused; 0: no groups (heap/heap.h) */
  uint32_t named;        /* SHMWIN_NAMED_USER, SHMWIN_NAMED_GROUP or both: the next two fields say something */
  uint32_t user;         /* this user's file is trusted, and a new file is given to this user, which takes root */
  uint32_t group;        /* this group's file is trusted, its members may write, and a new file is given to it */
} shmwin_config_t;

/* What a window holds. */
typedef struct shmwin_usage {
  uint64_t size; /* bytes of the window */
  uint64_t address;
  uint64_t overhead;     /* bytes of header and bookkeeping */
  uint64_t arrays;       /* blocks of whole pages in use */
  uint64_t array_bytes;  /* bytes of the pages they take */
  uint64_t nodes40;      /* 40-byte blocks in use */
  uint64_t nodes56;      /* 56-byte blocks in use */
  uint64_t node_pages;   /* pages that hold them */
  uint64_t free_pages;   /* pages that hold nothing */
  uint64_t high_water;   /* most pages ever in use at once */
  uint64_t bad_releases; /* wrong and double releases caught; those outside every window count in this process alone */
} shmwin_stat_t;

/*
 * A window's file, opened and locked: what happens between shmwin_claim() and shmwin_release() happens in no other
 * process at the same time. The claim ends when its process ends. A child of fork does not have it.
 * Locking: one thread of a process at a time claims and removes windows.
 */
typedef struct shmwin_claimed_file shmwin_claim_t;

/*
 * Opens the window's file, or creates it with mode `config->mode`, and takes its file lock.
 * The file must be a regular one that belongs to the caller, to root, or to the user or group that the configuration
 * names. Users that are none of these must not be able to write to it: its mode must not allow that to all, and to its
 * group only when the configuration names that group or its own mode has the same bit.
 * Out: *present, 1 when a complete window is in the file. What a creator left that died before the end counts as none.
 * Returns: 0 with *claim to be given back by shmwin_release(); 1 (EPERM) for a file that is not to be trusted; 22 for
 *   a name, mode or file that can be no window's; 110 (ETIMEDOUT) when another process has kept the claim for 5 seconds
 *   and more; another errno value; `error` filled.
 */
SHMWIN_API int shmwin_claim(const shmwin_config_t *config, shmwin_claim_t **claim, int *present, shmwin_error_t *error);

/*
 * Gives the claim and its file lock back; the attached window stays, a file in which no window was made is removed.
 * `claim` may be NULL.
 */
SHMWIN_API void shmwin_release(shmwin_claim_t *claim);

/*
 * Makes a fresh, empty window of the claimed file (what it held before is lost) and attaches it.
 * Returns: 0; 28 (ENOSPC) when the space cannot be reserved; 17 (EEXIST) when the id or the address is taken in this
 *   process; 16 (EBUSY) when the file holds a window that a live process has attached; 22 for a size or address that
 *   can never work and for a file that holds something else; another errno value; `error` filled.
 */
SHMWIN_API int shmwin_format(shmwin_claim_t *claim, const shmwin_config_t *config, shmwin_error_t *error);

/*
 * Attaches the window in the claimed file at its recorded address, after a preflight of everything that must agree.
 * Returns: 0; 22 when the file is no window, of another layout version, word or mutex size, damaged or truncated, or of
 *   another id than `shm_id`; 18 (EXDEV) when it belongs to another PID namespace; 17 when the id or the address is
 *   taken in this process; 11 (EAGAIN) when its table of processes is full; another errno value; `error` filled.
 */
SHMWIN_API int shmwin_attach(shmwin_claim_t *claim, uint32_t shm_id, shmwin_error_t *error);

/* Unmaps window `shm_id` from this process. Returns: 0; 2 (ENOENT) when it is not attached. */
SHMWIN_API int shmwin_detach(uint32_t shm_id);

/*
 * Removes the window's file; processes that have it attached keep their mapping.
 * Returns, with `error` filled unless 0:
 *   0    the file is removed
 *   2    there is none
 *   16   (EBUSY) a live process has it attached, or may have it: the window is of another PID namespace; unless `force`
 *   22   the file is no window; unless `force`
 *   110  as shmwin_claim()
 *   another errno value
 */
SHMWIN_API int shmwin_unlink(const char *directory, const char *name, int force, shmwin_error_t *error);

/* Returns: the user's area of window `shm_id`, SHMWIN_USER_AREA_BYTES, 64-byte aligned; NULL when not attached. */
SHMWIN_API void *shmwin_user_area(uint32_t shm_id);

/* Where window `shm_id` is mapped. Returns: 0; 2 when not attached. */
SHMWIN_API int shmwin_bounds(uint32_t shm_id, void **begin, size_t *bytes);

/* Counts what window `shm_id` holds. Requires the lock of its user. Returns: 0; 2 when not attached. */
SHMWIN_API int shmwin_stat(uint32_t shm_id, shmwin_stat_t *stat);

/*
 * Returns: a window size that holds `array_bytes` of arrays (as so many arrays) and so many nodes of either size;
 * UINT64_MAX when no window can.
 */
SHMWIN_API uint64_t shmwin_size_for(uint64_t array_bytes, uint64_t arrays, uint64_t nodes40, uint64_t nodes56);

/*
 * Takes a block of `size` bytes, not zeroed, in window `shm_id`. Blocks of 40 and 56 bytes take constant time and their
 * own size; others take whole pages. A size of 0 takes one page.
 * Out: *block, 8-byte aligned (whole pages: page aligned); NULL after a failure.
 * Returns: 0; 12 (ENOMEM) when there is no room; 22 when the window is not attached.
 */
SHMWIN_API int shmwin_malloc(uint32_t shm_id, size_t size, void **block);

/*
 * Gives a block back. A NULL block is ignored. An address that is no block in use of an attached window changes
 * nothing, is counted and reported.
 */
SHMWIN_API void shmwin_free(void *block);

#ifdef __cplusplus
}
#endif

#endif
