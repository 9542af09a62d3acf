// The key indexes: the tunnel tree of the database, and under each tunnel entry the tree of its NHs.
//
// Keys are used exactly as given, spare bits included, and ordered by their memory image. Nodes are allocated in the
// database's window and freed when they leave their tree. Nothing here takes the lock; the callers hold it across each
// operation and the slot updates that belong to it.
#ifndef MPLS_EGRESS_ENCAP_DB_KEY_INDEX_H
#define MPLS_EGRESS_ENCAP_DB_KEY_INDEX_H

#include "lock.h"

namespace encap {

// Node comparisons for the tree service: 0 = a before b, 1 = equal (also when a node is missing), 2 = a after b.
int vrl_mpls_nh_key_compare(const void *a, const void *b);
int vrl_mpls_tunnel_key_compare(const void *a, const void *b);

// *entry becomes the node of that key under `root`, or NULL.
void vrl_find_mpls_nh_entry(mpls_nh_key_t key, void *root, mpls_nh_entry_t **entry) REQUIRES_DATABASE_LOCK;
void vrl_find_mpls_tunnel_entry(mpls_tunnel_key_t key, mpls_tunnel_entry_t **entry) REQUIRES_DATABASE_LOCK;

// Returns: 0 with *entry the new node, all zero but its key; 12 no memory, 22 refused by the tree: *entry untouched.
int vrl_insert_mpls_nh_entry(mpls_nh_key_t key, void **root, mpls_nh_entry_t **entry) REQUIRES_DATABASE_LOCK;
int vrl_insert_mpls_tunnel_entry(mpls_tunnel_key_t key, mpls_tunnel_entry_t **entry) REQUIRES_DATABASE_LOCK;

// `entry` was just found; `key` is for the messages alone. `root` may be a copy of the tree's root field.
// Returns: 0 removed and freed, 22 not removed by the tree and not freed.
int vrl_delete_mpls_nh_entry(mpls_nh_key_t key, mpls_nh_entry_t *entry, void **root) REQUIRES_DATABASE_LOCK;
int vrl_delete_mpls_tunnel_entry(mpls_tunnel_key_t key, mpls_tunnel_entry_t *entry) REQUIRES_DATABASE_LOCK;

}  // namespace encap

#endif
