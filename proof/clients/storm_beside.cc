#include <algorithm>

#include "storm_journal.h"
#include "support/window.h"

namespace client_proof {
namespace {

// A process that uses the operations, looks keys up and chooses free indexes itself, under the lock.
class OtherProcess : Member {
 public:
  OtherProcess(Journal &journal, std::uint64_t seed) : Member(journal, kOther, seed) {}

  void live() {
    crash::work_in_steps(journal_.herd, kOther, [this] {
      const std::uint32_t nh = crash::kNhStart + below(kStormNhs);
      const std::uint32_t number = below(kSharedKeys + kOtherKeys);  // none that is a client's own
      return held_on(nh) != 0 ? release(nh) : take(number < kSharedKeys ? number : number + kKeys - kSharedKeys);
    });
    for (std::uint32_t nh = crash::kNhStart; nh < crash::kNhStart + kStormNhs; ++nh) {
      while (held_on(nh) != 0 && release(nh)) {
      }
    }
  }

 private:
  std::atomic<std::uint32_t> &held_on(std::uint32_t nh) { return journal_.other_held[nh - crash::kNhStart]; }

  bool release(std::uint32_t nh) {
    std::uint32_t tunnel = 0;
    std::uint32_t nh_gone = 0;
    std::uint32_t tunnel_gone = 0;
    const int status = vrl_delete_and_free_egress_encap_with_nh_key(nh, &tunnel, &nh_gone, &tunnel_gone);
    --held_on(nh);
    return status == 0 || fail("a release of NH %u without a client returned %d", nh, status);
  }

  bool take(std::uint32_t number) {
    if (vrl_egress_encap_db_lock(&egress_encap_db->lock.mutex) != 0) {
      return fail("no lock");
    }
    egress_encap_info_t info{};
    int status = vrl_find_and_share_egress_encap(&info, storm_key(number));
    bool taken = status == 0 && info.nh_found != 0;
    if (status == 0 && !taken && number >= kKeys && choose_indexes(info, storm_key(number).out_label2 == 0)) {
      status = vrl_insert_egress_encap(&info, storm_key(number));
      taken = status == 0;
    }
    if (taken) {
      ++held_on(info.egr_nh);
    }
    pthread_mutex_unlock(&egress_encap_db->lock.mutex);
    return status == 0 || fail("an entry of key %u without a client returned %d", number, status);
  }

  bool choose_indexes(egress_encap_info_t &info, bool on_null_tunnel) {
    const egr_nh_info_t *const nhs = egress_encap_db->nh_info_array;
    const auto *const nh = std::find_if(nhs, nhs + kStormNhs, [](const auto &slot) { return slot.valid == 0; });
    info.egr_nh = crash::kNhStart + static_cast<std::uint32_t>(nh - nhs);
    bool found = nh != nhs + kStormNhs;
    if (info.tun_found == 0 && !on_null_tunnel) {
      const egr_tun_info_t *const tunnels = egress_encap_db->tun_info_array;
      const auto *const tunnel =
          std::find_if(tunnels, tunnels + kStormTunnels, [](const auto &slot) { return slot.valid == 0; });
      info.egr_tun = crash::kTunStart + static_cast<std::uint32_t>(tunnel - tunnels);
      found = found && tunnel != tunnels + kStormTunnels;
    }
    return found;
  }
};

}  // namespace

void live_beside_clients(Journal &journal, std::uint64_t seed) {
  OtherProcess(journal, seed).live();
}

}  // namespace client_proof
