/*
 * AVL tree service: balanced trees of nodes whose first 24 bytes are its linkage.
 *
 * A node may lie in a shared-memory window or in plain memory. The service allocates nothing, does not recurse, and
 * reads nothing of a node but its linkage: the caller's compare function alone decides the order.
 *
 * Linkage (three 64-bit words; addresses are plain):
 *    0  child before (0 = none)
 *    8  child after (0 = none)
 *   16  bits 0-1 balance (0 level, 1 the child after is one higher, 2 the child before is), bit 2 root,
 *       bits 3-63: the address of the node's parent; in the root node (bit 2 set) of the root field that holds it
 * Nodes and root fields are 8-byte aligned. A node whose linkage is all zero is in no tree.
 *
 * The nodes of one tree lie all in one window, or all outside of windows. One lock guards all trees of a window.
 *
 * Locking: the service takes none; the caller holds its lock around each call, searches included. A compare function is
 *   called before the tree changes, never later; it must not call the service.
 * Death: every insert and every delete is all or nothing for trees whose nodes lie in a window. The service notes each
 *   word in the window's undo log before it changes the word, and ends the change by one store. After a death the next
 *   call on any tree of that window rolls an unfinished change back, and brings the root that it was given up to date.
 *   (A tree's first node comes and its last node goes by one store, without the log.) A caller that is about to read
 *   the linkage itself calls avl_settle() first.
 */
#ifndef VRELLIS_AVL_H
#define VRELLIS_AVL_H

#ifdef __cplusplus
extern "C" {
#endif

/* Compares the keys of two nodes: 0 = a orders before b, 1 = equal, 2 = a orders after b. */
typedef int (*avl_compare_fn)(const void *a, const void *b);

/*
 * Finds the node whose key equals the probe's.
 * Requires: `root` is the value of the tree's root field, read under the lock since the last change; NULL is an empty
 *   tree. `probe` has the shape of a node and is the first of the two that are compared; its linkage is not read.
 * Returns: the node, or NULL when there is none.
 */
__attribute__((visibility("default"))) void *avl_search(void *root, const void *probe, avl_compare_fn compare);

/*
 * Links `node`, which is in no tree, into the tree under `*root`. An empty tree needs its own root field as `root`,
 * since the field stays part of the tree; a tree that has nodes also takes a copy of it, as avl_delete() does.
 * `*flag` becomes 1 when the root changed; else it is left alone.
 * Returns: `node`. NULL, with the tree unchanged, when it has a node of equal key, when `*root` is not the root of a
 *   tree, when the root field that a window's tree records lies outside the window and is not `root`, or when the tree
 *   is so damaged that the change would not end.
 */
__attribute__((visibility("default"))) void *avl_insert(void **root, void *node, int *flag, avl_compare_fn compare);

/*
 * Unlinks `node`. `root` is the tree's root field or a copy of it. With a copy, the tree's own root field changes in
 * the same step and the copy is brought up to date. `*flag` as with avl_insert(); `compare` is not used.
 * Returns: `node`, its linkage all zero. NULL, with the tree unchanged, when `node` is not in this tree, or for one of
 *   the last three reasons of avl_insert().
 */
__attribute__((visibility("default"))) void *avl_delete(void **root, void *node, int *flag, avl_compare_fn compare);

/*
 * Rolls back the change that a process left unfinished in the window that `address` lies in. Every other call does so
 * by itself; this one is for a caller that reads or mends the linkage without them.
 * Requires: the lock of the window's trees.
 * Returns: 1 when a change was rolled back; 0 when none was open, or when `address` lies in no attached window; -1 when
 *   the undo log was damaged: it was emptied, and no word that it named was written.
 */
__attribute__((visibility("default"))) int avl_settle(const void *address);

#ifdef __cplusplus
}
#endif

#endif
