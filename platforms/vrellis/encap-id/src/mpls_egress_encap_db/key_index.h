// The key indexes: the tunnel tree of the database, and under each tunnel entry the tree of its NHs.
//
// Keys are used exactly as given, spare bits included, and ordered by their memory image. Nodes are allocated in the
// database's window and freed when they leave their tree. None of these functions takes the lock: the callers hold it
// for the whole operation, which also updates slots.
#ifndef MPLS_EGRESS_ENCAP_DB_KEY_INDEX_H
#define MPLS_EGRESS_ENCAP_DB_KEY_INDEX_H

#include "lock.h"

namespace encap {

// The comparisons of nodes for the tree service. Return: 0 when a comes before b, 1 when they are equal or one is NULL
// (reported), 2 when a comes after b.
int vrl_mpls_nh_key_compare(const void *a, const void *b);
int vrl_mpls_tunnel_key_compare(const void *a, const void *b);

// Set *entry to the node of the key in the tree under `root`, or to NULL. Report the result.
void vrl_find_mpls_nh_entry(mpls_nh_key_t key, void *root, mpls_nh_entry_t **entry) REQUIRES_DATABASE_LOCK;
void vrl_find_mpls_tunnel_entry(mpls_tunnel_key_t key, mpls_tunnel_entry_t **entry) REQUIRES_DATABASE_LOCK;

// Enter a new node, which is zero but for its key.
// Return: 0 with *entry set; 12 when there is no memory, 22 when the tree refuses the key, both with *entry untouched.
int vrl_insert_mpls_nh_entry(mpls_nh_key_t key, void **root, mpls_nh_entry_t **entry) REQUIRES_DATABASE_LOCK;
int vrl_insert_mpls_tunnel_entry(mpls_tunnel_key_t key, mpls_tunnel_entry_t **entry) REQUIRES_DATABASE_LOCK;

// Remove and free a node that the caller has just found. `key` is used in the messages only. `root` may be a copy of
// the tree's root field.
// Return: 0; 22 when the tree does not remove the node, which is not freed then.
int vrl_delete_mpls_nh_entry(mpls_nh_key_t key, mpls_nh_entry_t *entry, void **root) REQUIRES_DATABASE_LOCK;
int vrl_delete_mpls_tunnel_entry(mpls_tunnel_key_t key, mpls_tunnel_entry_t *entry) REQUIRES_DATABASE_LOCK;

}  // namespace encap

#endif
