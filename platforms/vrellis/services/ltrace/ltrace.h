/*
 * Light trace facility, the writing side: an always-on flight recorder.
 *
 * Each process writes into a shared-memory file of its own, <directory>/<pid>-<start time>.ltrace, made at its first
 * record; each thread into a ring of its own within it. The file stays when the process ends, however it ends, and
 * ltrace/reader.h reads it, alive or dead. Of dead processes the 16 files that were written to last are kept.
 *
 * Settings, read from the environment when the file is made:
 *   LTRACE=off         no file; records go nowhere
 *   LTRACE_DIR         directory of the files, made when missing; default /dev/shm/vrellis-trace-<uid>, mode 0700
 *   LTRACE_RING_KIB    size of a ring, a power of two from 8 to 16384; default 64
 *
 * Header word of a record: bits 0-22 trace-point id, 23-27 the component's tag, 28-30 the record's number within its
 * point, bit 31 set, bits 32-34 set, the rest 0.
 *
 * Locking: none on the way of a record, nor a system call but at a thread's first one. A thread that finds no ring
 *   free, and a process that cannot make its file, lose their records and nothing else; the file counts what was lost.
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

/* Records which component writes under `tag` (0 to 31; others are ignored), for those who read the file. */
LTRACE_API void ltrace_name_component(uint32_t tag, const char *name);

/* Returns: the path of this process's file, valid until a fork; NULL while there is none. */
LTRACE_API const char *ltrace_path(void);

#ifdef __cplusplus
}
#endif

#endif
