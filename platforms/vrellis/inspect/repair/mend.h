// Changing a window, one fault after the other. For the inspector alone.
#ifndef ENCAP_INSPECT_MEND_H
#define ENCAP_INSPECT_MEND_H

#include <atomic>
#include <cstring>

#include "avl.h"
#include "check/faults.h"
#include "repair.h"

namespace encap_inspect {

// Mends what it can of `faults` in the window that `survey` looks at, as it lies in this process, under the lock; a
// rehearsal only tells the changes. What depends on what is mended here, the next round finds.
enum class Deed { kMend, kRehearse };
void mend(const Survey &survey, const Faults &faults, const RepairOptions &options, Deed deed,
          std::vector<Change> *changes);

// What stands against a repair, before the lock is taken. Returns: an empty text when nothing does. Out: *kind.
std::string obstacle(const View &window, FindingKind *kind);

// Whether the finding is that no thread will ever give the lock back.
bool is_lost_lock(FindingKind kind);

// Makes the pages' bookkeeping right. For mend() alone.
void mend_block_not_taken(const Survey &survey, const Fault &fault);
void mend_page(const Survey &survey, const Fault &fault);
void mend_hint(const Survey &survey, const Fault &fault);
void mend_page_count(const Survey &survey, const Fault &fault);

// The window's bytes, to be written. Requires the record to be inside: the address was found by the survey.
template <typename Record>
Record *writable(const Survey &survey, Address address) {
  return const_cast<Record *>(survey.view().record<Record>(address));
}

// The nodes' orders, as the tree service wants them told: keys by their memory image.
inline constexpr std::size_t kKeyOffset = 24;

template <std::size_t Bytes>
int compare_keys(const void *a, const void *b) {
  const int order =
      std::memcmp(static_cast<const char *>(a) + kKeyOffset, static_cast<const char *>(b) + kKeyOffset, Bytes);
  return order < 0 ? 0 : order == 0 ? 1 : 2;
}
inline constexpr avl_compare_fn kCompareNhs = compare_keys<sizeof(mpls_nh_key_t)>;
inline constexpr avl_compare_fn kCompareTunnels = compare_keys<sizeof(mpls_tunnel_key_t)>;

// Keeps the compiler from moving a store across: a repair that dies leaves exactly the steps that it had done.
inline void end_of_step() {
  std::atomic_signal_fence(std::memory_order_seq_cst);
}

// Works through the faults of one round.
class Mender {
 public:
  Mender(const Survey &survey, const Faults &faults, const RepairOptions &options, Deed deed,
         std::vector<Change> *changes)
      : survey_(survey), db_(survey.db), faults_(faults), options_(options), deed_(deed), changes_(*changes) {}

  void run();

 private:
  using Mend = void (Mender::*)(const Fault &);
  struct Step {
    FindingKind kind;
    Mend mend;
  };
  static const Step kBeforeTrees[];
  static const Step kBehindTrees[];

  template <std::size_t Count>
  void work_through(const Step (&steps)[Count]);
  void work_off(Fault fault, Mend mend);
  void rebuild_broken_trees();
  bool is_wanted(const Fault &fault) const;

  template <void (*Function)(const Survey &, const Fault &)>
  void in_heap(const Fault &fault) {
    Function(survey_, fault);
  }

  egr_nh_info_t *nh_slot(std::uint32_t index) { return const_cast<egr_nh_info_t *>(db_.nh_slot(index)); }
  egr_tun_info_t *tunnel_slot(std::uint32_t index) { return const_cast<egr_tun_info_t *>(db_.tunnel_slot(index)); }
  mpls_tunnel_entry_t *tunnel_node(std::uint32_t number) {
    return writable<mpls_tunnel_entry_t>(survey_, db_.tunnels[number].address);
  }
  void **tunnel_root() {
    auto *header =
        writable<egress_encap_db_t>(survey_, db_.window.address + offsetof(vrellis::WindowHeader, user_area));
    return &header->tun_root;
  }

  void clear_nh_slot(const Fault &fault) { std::memset(nh_slot(fault.nh_index), 0, sizeof(egr_nh_info_t)); }
  void clear_tunnel_slot(const Fault &fault) { std::memset(tunnel_slot(fault.tunnel), 0, sizeof(egr_tun_info_t)); }
  void take_out_nh(const Fault &fault);
  void take_out_half_filled(const Fault &fault);
  void drop_nh(const Fault &fault);
  void rewrite_nh_slot(const Fault &fault);
  void rewrite_tunnel_index(const Fault &fault);
  void rewrite_labels(const Fault &fault);
  void mend_tunnel(const Fault &fault);
  void take_out_tunnel(const Fault &fault);
  void unlink_tunnel(std::uint32_t number, bool slot_goes, std::uint32_t index);
  void move_tunnel(const Fault &fault);
  void take_out_given_back(const Fault &fault);
  void set_count(const Fault &fault);
  void zero_residue(const Fault &fault);
  void free_block(const Fault &fault);
  void bring_back(const Fault &fault);
  Fault fault_of_nh(std::uint32_t n) const;
  mpls_tunnel_entry_t *home_of(const egr_nh_info_t &slot, std::uint32_t number);

  const Survey &survey_;
  const Database &db_;
  const Faults &faults_;
  const RepairOptions &options_;
  const Deed deed_;
  std::vector<Change> &changes_;
  bool waits_ = false;  // the fault at hand cannot be mended for want of memory
};

}  // namespace encap_inspect

#endif
