// Where the last search of this thread ended: the window allocator places the next block near it.
#ifndef VRELLIS_AVL_HINT_H
#define VRELLIS_AVL_HINT_H

namespace vrellis {

// The node found, or else the one that the searched key would hang under; nullptr before the first search. Set by
// avl_search() alone, kept by a search of an empty tree. To be compared, not followed: the node may be gone.
#define AVL_HINT_TLS __attribute__((tls_model("initial-exec"), visibility("hidden")))
AVL_HINT_TLS extern constinit thread_local const void *last_search_end;

}  // namespace vrellis

#endif
