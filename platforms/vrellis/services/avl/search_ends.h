// Where the last searches of this thread ended: the window allocator places the next block near one of them.
#ifndef VRELLIS_AVL_SEARCH_ENDS_H
#define VRELLIS_AVL_SEARCH_ENDS_H

namespace vrellis {

// The node found, or else the one that the searched key would hang under; nullptr before such a search. Set by
// avl_search() alone, kept by a search of an empty tree. To be compared, not followed: the node may be gone.
struct SearchEnds {
  const void *last = nullptr;
  const void *previous = nullptr;  // of the search before: a caller that searches two trees in turn enters in either
};

#define AVL_HINT_TLS __attribute__((tls_model("initial-exec"), visibility("hidden")))
AVL_HINT_TLS extern constinit thread_local SearchEnds search_ends;

}  // namespace vrellis

#endif
