#include "contestants/bound.h"

#include <sys/mman.h>

#include <cstring>
#include <new>

#include "avl.h"

namespace encap_bench {
namespace {

using Compare = int (*)(const void *, const void *);

template <typename Entry>
int compare_keys(const void *a, const void *b) {
  const int order =
      std::memcmp(&static_cast<const Entry *>(a)->key, &static_cast<const Entry *>(b)->key, sizeof(Entry::key));
  return order < 0 ? 0 : order == 0 ? 1 : 2;
}

struct Children {
  void *before;
  void *after;
};

// Not inlined, as a search in a library of its own would not be.
[[gnu::noinline]] void *search(void *node, const void *probe, Compare compare) {
  while (node != nullptr) {
    const int order = compare(probe, node);
    if (order == 1) {
      return node;
    }
    auto *children = static_cast<Children *>(node);
    node = order == 0 ? children->before : children->after;
  }
  return nullptr;
}

template <typename Entry, typename KeyPart>
Entry *find_entry(void *root, KeyPart key, Compare compare) {
  Entry probe{};
  probe.key = key;
  return static_cast<Entry *>(search(root, &probe, compare));
}

}  // namespace

SharedMemory::SharedMemory(std::size_t bytes) : bytes_(bytes) {
  void *const mapped = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (mapped == MAP_FAILED) {
    std::perror("shared memory");
    std::exit(1);
  }
  begin_ = static_cast<char *>(mapped);
}

SharedMemory::~SharedMemory() {
  munmap(begin_, bytes_);
}

void *SharedMemory::take(std::size_t bytes) {
  taken_ += bytes;
  return taken_ <= bytes_ ? begin_ + taken_ - bytes : throw std::bad_alloc();
}

MutexPair::MutexPair()
    : memory_(sizeof(pthread_mutex_t)), mutex_(static_cast<pthread_mutex_t *>(memory_.take(sizeof(pthread_mutex_t)))) {
  init_mutex(mutex_);
}

Bound::Bound(const Place &, const Workload &workload, Role)
    : memory_(sizeof(pthread_mutex_t) + sizeof(mpls_nh_entry_t) * workload.nh_room() +
              sizeof(mpls_tunnel_entry_t) * workload.tunnel_room),
      mutex_(static_cast<pthread_mutex_t *>(memory_.take(sizeof(pthread_mutex_t)))) {
  init_mutex(mutex_);
}

Found Bound::find(const Key &key) {
  const Guard guard(mutex_);
  const auto *tunnel = find_entry<mpls_tunnel_entry_t>(tunnels_, tunnel_part(key), compare_keys<mpls_tunnel_entry_t>);
  if (tunnel == nullptr) {
    return {};
  }
  const auto *nh = find_entry<mpls_nh_entry_t>(tunnel->nh_root, nh_part(key), compare_keys<mpls_nh_entry_t>);
  return nh == nullptr ? Found{false, true, 0, tunnel->egr_tun} : Found{true, true, nh->nh_index, tunnel->egr_tun};
}

bool Bound::insert(const Encap &encap, bool with_tunnel) {
  const Guard guard(mutex_);
  const Compare by_tunnel = compare_keys<mpls_tunnel_entry_t>;
  int flag = 0;
  if (with_tunnel) {
    auto *entered = new (memory_.take(sizeof(mpls_tunnel_entry_t))) mpls_tunnel_entry_t{};
    entered->key = tunnel_part(encap.key);
    entered->egr_tun = static_cast<std::uint16_t>(encap.tun);
    avl_insert(&tunnels_, entered, &flag, by_tunnel);
  }
  auto *tunnel = find_entry<mpls_tunnel_entry_t>(tunnels_, tunnel_part(encap.key), by_tunnel);
  auto *nh = new (memory_.take(sizeof(mpls_nh_entry_t))) mpls_nh_entry_t{};
  nh->key = nh_part(encap.key);
  nh->nh_index = encap.nh;
  return avl_insert(&tunnel->nh_root, nh, &flag, compare_keys<mpls_nh_entry_t>) != nullptr;
}

}  // namespace encap_bench
