/*
 * Changes of a window that are all or nothing as a whole: of trees, of the allocator, and of any other words.
 *
 * While a change is open, everything that the tree service and the window's allocator write is noted in the window's
 * undo log. The caller notes what else it changes (avl/undo/notes.h). One store commits it all; a process that dies
 * before that leaves the log to the next call of either service in that window, or of avl_settle(), which takes
 * everything back.
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

/*
 * Tells where the caller's own search of a tree of this change ended: at the node of the key, or at the node that a new
 * node of the key would hang under. `top` is the tree's top node. The next search or insert of that key in that tree
 * goes there at once. Two trees are remembered, in places 0 and 1, until the change ends. A null `end` is none.
 * Requires that the tree has not changed since.
 */
AVL_CHANGE_API void avl_change_searched(unsigned place, const void *top, void *end);

/*
 * Tells readers without the lock that the record at `record`, which is no tree, changes until the change is committed:
 * its version (avl/undo/versions.h) is odd from here on. Requires that something has been noted, and that the record
 * has not changed yet.
 */
AVL_CHANGE_API void avl_change_version(const void *record);

AVL_CHANGE_API void avl_change_commit(void);

/* Takes everything back at once. */
AVL_CHANGE_API void avl_change_abort(void);

#ifdef __cplusplus
}
#endif

#endif
