/*
 * AVL tree service: balanced trees of nodes whose first 24 bytes are its linkage.
 *
 * A node may lie in a shared-memory window or in plain memory. The service allocates nothing, recurses nowhere, and
 * never looks past a node's linkage: order comes from the caller's compare function alone.
 *
 * Linkage (three 64-bit words; addresses are plain):
 *    0  child before (0 = none)
 *    8  child after (0 = none)
 *   16  bits 0-1 balance (0 level, 1 the child after is one higher, 2 the child before is), bit 2 root,
 *       bits 3-63: a node's parent; in the root node (bit 2 set) the address of the root field that holds it
 * Nodes and root fields are 8-byte aligned. All zero = in no tree.
 *
 * The nodes of one tree lie all in one window, or all outside the windows. One window's trees share one lock.
 *
 * Locking: none here; the caller holds its lock around each call, searches included. A compare function is called only
 *   before the tree changes; it must not call the service.
 * Death: every insert and every delete is all or nothing for trees whose nodes lie in a window: each word is put into
 *   the window's undo log before it changes, one store ends the change, and the next call on a tree of that window
 *   rolls a change that never ended back. (A tree's first and last node come and go by one store, without the log.)
 *   The root that such a call is given may have been read before the roll-back; the call brings it up to date.
 *   Who follows the linkage without the service calls avl_search() in that window first.
 */
#ifndef VRELLIS_AVL_H
#define VRELLIS_AVL_H

#ifdef __cplusplus
extern "C" {
#endif

/* Compares the keys of two nodes: 0 = a orders before b, 1 = equal, 2 = a orders after b. */
typedef int (*avl_compare_fn)(const void *a, const void *b);

/*
 * `root` is the value of the tree's root field, read since the last change and under the lock; NULL = an empty tree.
 * `probe` is node-shaped and the first of the two that are compared; its linkage is not read.
 * Returns: the node whose key equals the probe's, or NULL.
 */
__attribute__((visibility("default"))) void *avl_search(void *root, const void *probe, avl_compare_fn compare);

/*
 * Links `node`, which is in no tree, into the tree under `*root`. `root` is the tree's own root field, where it stays;
 * to a tree that has nodes, a copy of it does as well, as with avl_delete().
 * `*flag` becomes 1 when the root changed; else it is left alone.
 * Returns: `node`, or NULL with nothing changed when a node of equal key is in the tree, `*root` is no tree's root, or
 *   the root field that a window's tree records lies outside the window and is not `root`.
 */
__attribute__((visibility("default"))) void *avl_insert(void **root, void *node, int *flag, avl_compare_fn compare);

/*
 * Unlinks `node`. `root` is the tree's root field or a copy of it: with a copy, the tree's own root field changes in
 * the same step and the copy is brought up to date. `*flag` as with avl_insert(); `compare` is not used.
 * Returns: `node`, its linkage all zero; NULL with nothing changed when it is not in this tree, or as for avl_insert().
 */
__attribute__((visibility("default"))) void *avl_delete(void **root, void *node, int *flag, avl_compare_fn compare);

#ifdef __cplusplus
}
#endif

#endif
