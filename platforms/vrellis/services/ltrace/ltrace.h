/*
 * Light trace facility, the writing side: an always-on flight recorder.
 *
 * Each process writes into a shared-memory file of its own, <directory>/<pid>-<start time>.ltrace, which its first
 * record makes. Each thread has a ring of its own in that file. The file stays when the process ends, however it ends,
 * and ltrace/reader.h reads it. The 16 files of dead processes that were written to last are kept.
 *
 * Settings, read from the environment when the file is made; a value that is none of these is told of on stderr:
 *   LTRACE=off         no file; records go nowhere
 *   LTRACE_DIR         directory of the files, made when missing; default /dev/shm/vrellis-trace-<uid>, mode 0700
 *   LTRACE_RING_KIB    size of a ring, a power of two from 8 to 16384; default 64
 *
 * Header word of a record: bits 0-22 trace-point id, 23-27 the component's tag, 28-30 the record's number within its
 * point, bit 31 set, bits 32-34 set, the rest 0.
 *
 * Locking: writing a record takes no lock and makes no system call, except a thread's first one. A thread that holds a
 *   robust mutex, as the database lock is one, then takes a ring whose space is reserved already, and drops its records
 *   as long as there is none: it makes no file and reserves no space, since both can wait. A thread that finds no ring
 *   free, and a process that cannot make its file, lose their records and nothing else. The file counts what was lost.
 * Signals: a file is never made larger than RLIMIT_FSIZE allows. A signal handler must not write records.
 * Fork: the child writes into a file of its own.
 */
#ifndef VRELLIS_LTRACE_H
#define VRELLIS_LTRACE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define LTRACE_API __attribute__((visibility("default")))

#define LTRACE_MAX_COMPONENTS 32 /* tags that a record's header has room for */

/*
 * Writes one record of the calling thread. `handle` is the component's trace handle for the point, 0 before
 * registration; its low 26 bits are kept. `header` as above; what it has in the bits that are to be 0 is dropped.
 */
LTRACE_API void _ltrace_1(uint64_t handle, uint64_t header, uint64_t v1);
LTRACE_API void _ltrace_2(uint64_t handle, uint64_t header, uint64_t v1, uint64_t v2);
LTRACE_API void _ltrace_3(uint64_t handle, uint64_t header, uint64_t v1, uint64_t v2, uint64_t v3);
LTRACE_API void _ltrace_4(uint64_t handle, uint64_t header, uint64_t v1, uint64_t v2, uint64_t v3, uint64_t v4);
LTRACE_API void _ltrace_5(uint64_t handle, uint64_t header, uint64_t v1, uint64_t v2, uint64_t v3, uint64_t v4,
                          uint64_t v5);
LTRACE_API void _ltrace_6(uint64_t handle, uint64_t header, uint64_t v1, uint64_t v2, uint64_t v3, uint64_t v4,
                          uint64_t v5, uint64_t v6);
LTRACE_API void _ltrace_7(uint64_t handle, uint64_t header, uint64_t v1, uint64_t v2, uint64_t v3, uint64_t v4,
                          uint64_t v5, uint64_t v6, uint64_t v7);

/* Tells readers of the file which component writes under `tag` (0 to 31; other tags are ignored). */
LTRACE_API void ltrace_name_component(uint32_t tag, const char *name);

/* Returns: the path of this process's file, valid until a fork; NULL while there is none. */
LTRACE_API const char *ltrace_path(void);

#ifdef __cplusplus
}
#endif

#endif
