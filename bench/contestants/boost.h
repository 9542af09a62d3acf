// What the Boost.Interprocess contestants share: a managed segment, the NH record, and the lock around each call.
//
// Three builds of a segment. Comparisons are function objects on integers, which the compiler inlines, in all of them.
//   Documented    as the documentation's example of a map in a segment: default allocator, default segment
//   Pooled        as it advises for containers of nodes under a lock of one's own: node allocators, whose pool lies in
//                 the segment, and null_mutex_family, since the segment's own mutex would be a second one (and, not
//                 being robust, could not survive its holder)
//   PooledFixed   the same at one address in all processes, which lets the containers use plain pointers
#ifndef ENCAP_BENCH_BOOST_H
#define ENCAP_BENCH_BOOST_H

#include <boost/interprocess/allocators/allocator.hpp>
#include <boost/interprocess/allocators/node_allocator.hpp>
#include <boost/interprocess/indexes/iset_index.hpp>
#include <boost/interprocess/managed_mapped_file.hpp>
#include <boost/interprocess/mem_algo/rbtree_best_fit.hpp>
#include <boost/interprocess/sync/mutex_family.hpp>
#include <cstring>

#include "contestants/contestant.h"
#include "contestants/lock.h"

namespace encap_bench {

namespace ipc = boost::interprocess;

template <typename MutexFamily, typename Pointer>
using SegmentOf = ipc::basic_managed_mapped_file<char, ipc::rbtree_best_fit<MutexFamily, Pointer>, ipc::iset_index>;

struct Documented {
  static constexpr const char *kName = "";
  static constexpr bool kFixed = false;
  using Segment = SegmentOf<ipc::mutex_family, ipc::offset_ptr<void>>;
  template <typename T>
  using Allocator = ipc::allocator<T, Segment::segment_manager>;
};

struct Pooled {
  static constexpr const char *kName = ", pooled";
  static constexpr bool kFixed = false;
  using Segment = SegmentOf<ipc::null_mutex_family, ipc::offset_ptr<void>>;
  template <typename T>
  using Allocator = ipc::node_allocator<T, Segment::segment_manager>;
};

struct PooledFixed {
  static constexpr const char *kName = ", pooled, fixed address";
  static constexpr bool kFixed = true;
  using Segment = SegmentOf<ipc::null_mutex_family, void *>;
  template <typename T>
  using Allocator = ipc::node_allocator<T, Segment::segment_manager>;
};

template <typename Build>
using SegmentManager = typename Build::Segment::segment_manager;

struct NhRecord {
  std::uint32_t nh;
  std::uint32_t users;
  std::uint32_t seed_nh;
  std::uint32_t failover_nh;
  std::uint16_t tun;
  std::uint16_t failover;  // id, protected
};

inline NhRecord record_of(const Encap &encap, std::uint32_t users) {
  return {encap.nh, users, seed_of(encap.nh), 0, static_cast<std::uint16_t>(encap.tun), 0};
}

inline std::uint64_t two_words(const void *bytes) {
  std::uint64_t value;
  std::memcpy(&value, bytes, sizeof value);
  return value;
}

struct NhLess {
  bool operator()(const mpls_nh_key_t &a, const mpls_nh_key_t &b) const { return two_words(&a) < two_words(&b); }
};

struct TunnelLess {
  bool operator()(const mpls_tunnel_key_t &a, const mpls_tunnel_key_t &b) const {
    const std::uint64_t labels_a = two_words(&a);
    const std::uint64_t labels_b = two_words(&b);
    return labels_a != labels_b ? labels_a < labels_b : a.ifh < b.ifh;
  }
};

/*
 * `Store<Build>` lies in the segment and has
 *   static constexpr const char *kName;
 *   explicit Store(SegmentManager<Build> *, const Workload &);
 *   Found look(const Key &key, NhRecord *&record);   record: nullptr on a miss
 *   bool enter(const Encap &encap, std::uint32_t users);
 *   bool leave(const Encap &encap, bool at_once);    else one user less, and gone with the last
 */
template <template <typename> typename StoreOf, typename Build>
class BoostContestant {
 public:
  using Store = StoreOf<Build>;
  inline static const std::string kName = std::string(Store::kName) + Build::kName;

  BoostContestant(const Place &place, const Workload &workload, Role role) : file_(place.file(kName)), role_(role) {
    if (role == Role::creator) {
      segment_ = typename Build::Segment(ipc::create_only, file_.c_str(), segment_bytes(workload), address());
      root_ = segment_.template construct<Root>("root")(segment_.get_segment_manager(), workload);
      init_mutex(&root_->mutex);
    } else {
      segment_ = typename Build::Segment(ipc::open_only, file_.c_str(), address());
      root_ = segment_.template find<Root>("root").first;
    }
  }
  ~BoostContestant() {
    if (role_ == Role::creator) {
      ipc::file_mapping::remove(file_.c_str());
    }
  }
  BoostContestant(const BoostContestant &) = delete;
  BoostContestant &operator=(const BoostContestant &) = delete;

  Found find(const Key &key) {
    const Guard guard(&root_->mutex);
    NhRecord *record;
    return root_->store.look(key, record);
  }

  Found share(const Key &key) {
    const Guard guard(&root_->mutex);
    NhRecord *record;
    const Found found = root_->store.look(key, record);
    if (record != nullptr) {
      ++record->users;
    }
    return found;
  }

  bool insert(const Encap &encap, bool /*with_tunnel*/) { return attach(encap, 1); }

  bool attach(const Encap &encap, std::uint32_t users) {
    const Guard guard(&root_->mutex);
    return root_->store.enter(encap, users);
  }

  bool release(const Encap &encap) {
    const Guard guard(&root_->mutex);
    return root_->store.leave(encap, false);
  }

  bool detach(const Encap &encap) {
    const Guard guard(&root_->mutex);
    return root_->store.leave(encap, true);
  }

  bool read_back(const Encap &encap, Data &data) {
    const Guard guard(&root_->mutex);
    NhRecord *record;
    root_->store.look(encap.key, record);
    if (record == nullptr) {
      return false;
    }
    data = {record->seed_nh, record->failover_nh, record->tun};
    return true;
  }

  std::uint64_t bytes() const { return segment_.get_size() - segment_.get_free_memory(); }

 private:
  struct Root {
    Root(SegmentManager<Build> *manager, const Workload &workload) : store(manager, workload) {}
    pthread_mutex_t mutex;
    Store store;
  };

  // The file is sparse: what is never touched costs nothing.
  static std::uint64_t segment_bytes(const Workload &workload) {
    return (std::uint64_t{8} << 20) + std::uint64_t{256} * workload.nh_room() +
           std::uint64_t{512} * workload.tunnel_room;
  }

  static const void *address() {
    constexpr std::uintptr_t kFixedAddress = 0x540000000000;
    return Build::kFixed ? reinterpret_cast<const void *>(kFixedAddress) : nullptr;
  }

  std::string file_;
  Role role_;
  typename Build::Segment segment_;
  Root *root_;
};

}  // namespace encap_bench

#endif
