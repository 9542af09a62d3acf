/*
 * Changes of a window that are all or nothing as a whole: of trees, of the allocator, and of any other words.
 *
 * While a change is open, everything that the tree service and the window's allocator write is noted in the window's
 * undo log. The caller notes what else it changes. One store commits it all; a process that dies before that leaves the
 * log to the next call of either service in that window, or of avl_settle(), which takes everything back.
 *
 * Blocks that are given back while a change is open are free when it is committed, so that no block is taken again
 * whose content may have to come back.
 *
 * Requires the lock of the window's trees from begin to commit or abort. A thread has one change open at most.
 */
#ifndef VRELLIS_AVL_CHANGE_H
#define VRELLIS_AVL_CHANGE_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define AVL_CHANGE_API __attribute__((visibility("default")))

/*
 * Settles the window that `root` lies in, and opens a change of it. `root` is the root field whose value other callers
 * may have read before they call the service.
 * Returns: 0; 22 when no window lies there.
 */
AVL_CHANGE_API int avl_change_begin(void **root);

/* Notes so many words of 4 bytes before the caller changes them. */
AVL_CHANGE_API void avl_change_note(const uint32_t *words, size_t count);

/* Note a word, aligned to its size, and change it. */
AVL_CHANGE_API void avl_change_put_half(uint32_t *word, uint32_t value);
AVL_CHANGE_API void avl_change_put(uint64_t *word, uint64_t value);

/*
 * Notes a count that is about to become `next`. When the change is taken back, the difference is taken back, and not
 * what another process has added since. Bit 31 of the 4-byte word behind the count must be one without a meaning.
 */
AVL_CHANGE_API void avl_change_count(const uint32_t *count, uint32_t next);

/*
 * Notes and changes a count at once. A recovery knows whether the count has changed, also when others have added to it
 * since: the same store sets bit 31 of the word behind the count. The bit is clear again when the call returns.
 */
AVL_CHANGE_API void avl_change_count_now(uint32_t *count, uint32_t next);

/* When every count that was noted has become what it was to become. */
enum avl_change_counted {
  AVL_CHANGE_COUNTED_NOW = 0,
  AVL_CHANGE_COUNTED_WITH_NEXT = 1, /* as soon as anything else is noted */
};

/*
 * Notes that the counts have changed, or when they will have. After a death before that, a count that still has its old
 * value is taken for one that has not changed.
 */
AVL_CHANGE_API void avl_change_counted(enum avl_change_counted when);

/*
 * Tells readers without the lock that the record at `record`, which is no tree, changes until the change is committed:
 * its version (avl/versions.h) is odd from here on. Requires that something has been noted, and that the record has not
 * changed yet.
 */
AVL_CHANGE_API void avl_change_version(const void *record);

AVL_CHANGE_API void avl_change_commit(void);

/* Takes everything back at once. */
AVL_CHANGE_API void avl_change_abort(void);

#ifdef __cplusplus
}
#endif

#endif
