#include "aftermath.h"

#include <cstring>
#include <map>

#include "shmwin/layout.h"

namespace crash {
namespace {

using encap_inspect::Finding;
using encap_inspect::FindingKind;
using encap_inspect::Report;
using encap_inspect::Severity;
using encap_test::NhSlot;

// The kind of the page that a block lies in.
vrellis::PageKind page_of(const Window &window, std::uint64_t block) {
  const vrellis::WindowShape shape = vrellis::shape_of_size(window.size());
  const std::uint64_t page =
      (block - reinterpret_cast<std::uintptr_t>(window.bytes()) - shape.heap) / vrellis::kPageBytes;
  vrellis::PageDescriptor descriptor;
  std::memcpy(&descriptor, window.bytes() + shape.descriptors + page * sizeof descriptor, sizeof descriptor);
  return vrellis::page_kind(descriptor.state);
}

// One block of a kind is out of reach a death, at most.
std::string lost_blocks(const Window &window, const Report &report, unsigned deaths) {
  std::map<vrellis::PageKind, unsigned> lost;
  for (const Finding &finding : report.findings) {
    if (finding.kind == FindingKind::kBlockUnreachable) {
      ++lost[page_of(window, finding.address)];
    }
  }
  std::string wrong;
  for (const auto &[kind, count] : lost) {
    if (count > deaths) {
      wrong += std::to_string(count) + " blocks of page kind " + std::to_string(kind) + " are out of reach\n";
    }
  }
  return wrong;
}

// Before the repair: only named states, and of the interrupted operation alone.
std::string faults_before(const Report &report, const Expectation &expected) {
  for (const Finding &finding : report.findings) {
    const Severity severity = encap_inspect::severity_of(finding.kind);
    const bool others =
        (finding.nh_index != encap_inspect::kNoIndex && finding.nh_index != 0 &&
         !expected.touches_nh(finding.nh_index)) ||
        (finding.tunnel != encap_inspect::kNoIndex && finding.tunnel != 0 && !expected.touches_tunnel(finding.tunnel));
    if (severity == Severity::kDamage || (severity == Severity::kPartial && others)) {
      return "no state of this death: " + std::string(encap_inspect::name_of(finding.kind)) + ": " + finding.text +
             '\n';
    }
  }
  return "";
}

// Under the lock: what was complete is found as ever, before any repair.
std::string find_others(const Expectation &expected) {
  for (const auto &[key, nh] : expected.untouched()) {
    egress_encap_info_t info{};
    if (vrl_find_egress_encap(&info, key) != 0 || info.nh_found == 0 || info.egr_nh != nh) {
      return "NH " + std::to_string(nh) + " is not found any more\n";
    }
  }
  egress_encap_info_t info{};
  vrl_find_egress_encap(&info, key_of(1, 1, 1));  // also an empty database lets its services recover
  return "";
}

// Goes on: the interrupted operation's own NH again, a new tunnel, the null tunnel; all of it withdrawn at last.
std::string go_on(const Expectation &expected) {
  encap_test::Model model = encap_test::model_of(*egress_encap_db);
  std::string wrong;
  const auto both = [&](const Operation &operation) {
    const Answer is = on_database(operation);
    const Answer should = on_model(model, operation);
    if (!(is == should)) {
      wrong += text_of(operation) + "\n  answers   " + text_of(is) + "\n  should be " + text_of(should) + '\n';
    }
  };
  std::vector<std::uint32_t> entered;
  const auto enter = [&](const egress_encap_key_t &key, std::uint32_t nh, std::uint32_t tunnel) {
    both(entering(model, key, nh, tunnel));
    entered.push_back(nh);
  };
  for (const Operation &operation : expected.interrupted()) {
    if (model.nh(operation.nh).valid != 0) {
      both(on_nh(Verb::kRead, operation.nh));
      both(on_nh(Verb::kShare, operation.nh));
      both(on_nh(Verb::kDetach, operation.nh));
    } else if (operation.verb == Verb::kInsert || operation.verb == Verb::kAttach) {
      enter(operation.key, operation.nh, operation.info.egr_tun);
    }
  }
  enter(key_of(900, 901, 9), kNhStart + kNhSize - 1, kTunStart + kTunSize - 1);
  enter(key_of(901, 901, 9), kNhStart + kNhSize - 2, kTunStart + kTunSize - 1);
  enter(key_of(900, 0, 99), kNhStart + kNhSize - 3, 0);
  wrong += encap_test::differences(*egress_encap_db, model);
  for (const std::uint32_t nh : entered) {
    both(on_nh(Verb::kRelease, nh));
  }
  return wrong + encap_test::differences(*egress_encap_db, model);
}

std::string recover(const Expectation &expected) {
  pthread_mutex_t *mutex = &egress_encap_db->lock.mutex;
  const int locked = vrl_egress_encap_db_lock(mutex);
  if (locked != 0) {
    return "the lock answers " + std::to_string(locked) + '\n';
  }
  const std::string wrong = find_others(expected);
  return pthread_mutex_unlock(mutex) == 0 ? wrong : wrong + "the unlock fails\n";
}

bool one_of(std::uint32_t value, std::uint32_t a, std::uint32_t b) {
  return value == a || value == b;
}

// An NH that stays after its operation was cut off and repaired: an identity as before or after, field by field of the
// data old or new, a count that the operation passes through. A new NH that is not counted yet may lack some of its
// data.
bool is_between(const NhSlot &slot, const NhSlot &before, const NhSlot &after) {
  const NhSlot &shape = after.valid != 0 ? after : before;
  NhSlot is = shape;
  is.count = slot.count;
  is.seed = slot.seed;
  is.failover_nh = slot.failover_nh;
  is.failover_id = slot.failover_id;
  is.is_protected = slot.is_protected;
  const NhSlot unfilled{};
  const NhSlot &old = before.valid != 0 ? before : is.count == 0 ? unfilled : after;
  const bool counted =
      one_of(is.count, old.count, shape.count) || is.count == 0 || (before.valid == 0 && is.count == 1);
  return slot.image() == is.image() && counted && one_of(is.seed, old.seed, shape.seed) &&
         one_of(is.failover_nh, old.failover_nh, shape.failover_nh) &&
         one_of(is.failover_id, old.failover_id, shape.failover_id) &&
         one_of(is.is_protected, old.is_protected, shape.is_protected);
}

egress_encap_key_t full_key(const encap_test::TunnelKey &tunnel, const encap_test::NhKey &nh) {
  egress_encap_key_t key;
  auto *bytes = reinterpret_cast<std::uint8_t *>(&key);
  std::memcpy(bytes, nh.data(), nh.size());
  std::memcpy(bytes + nh.size(), tunnel.data(), tunnel.size());
  return key;
}

}  // namespace

Expectation::Expectation(const Scenario &scenario, encap_test::Model before)
    : before_(std::move(before)), after_(before_), interrupted_(scenario.when) {
  for (const Operation &operation : scenario.when) {
    on_model(after_, operation);
    nhs_.insert(operation.nh);
    if (operation.verb == Verb::kInsert || operation.verb == Verb::kAttach) {
      tunnels_.insert(operation.info.egr_tun);
    } else {
      tunnels_.insert(before_.nh(operation.nh).tunnel);
    }
  }
  for (const auto &[tunnel_key, tunnel] : before_.tunnels) {
    for (const auto &[nh_key, nh] : tunnel.nhs) {
      if (!interrupted_.empty() && nh == interrupted_.front().nh) {
        interrupted_.front().key = full_key(tunnel_key, nh_key);
      }
      if (!touches_nh(nh)) {
        untouched_.emplace_back(full_key(tunnel_key, nh_key), nh);
      }
    }
  }
}

std::string Expectation::difference(const egress_encap_db_t &header) const {
  std::string wrong = encap_test::inconsistency(header);
  const encap_test::Model now = encap_test::model_of(header);
  const auto expect = [&wrong](bool right, const char *kind, std::uint32_t index, const auto &is, const auto &was) {
    if (!right) {
      wrong += kind + (" slot " + std::to_string(index)) + " is " + encap_test::hex(is.image()) + ", was " +
               encap_test::hex(was.image()) + '\n';
    }
  };
  for (std::uint32_t nh = before_.nh_start; nh != before_.nh_end; ++nh) {
    const NhSlot &is = now.nh(nh), &was = before_.nh(nh);
    const bool right = touches_nh(nh) ? is.valid == 0 || is_between(is, was, after_.nh(nh)) : is.image() == was.image();
    expect(right, "NH", nh, is, was);
  }
  for (std::uint32_t tunnel = before_.tun_start; tunnel <= before_.tun_end; ++tunnel) {
    const std::uint32_t index = tunnel == before_.tun_end ? 0 : tunnel;
    const encap_test::TunnelSlot &is = now.tunnel(index), &was = before_.tunnel(index);
    expect(touches_tunnel(index) || is.image() == was.image(), "tunnel", index, is, was);
  }
  return wrong;
}

std::string bad_releases() {
  shmwin_stat_t stat{};
  shmwin_stat(kWindowId, &stat);
  return stat.bad_releases == 0 ? "" : std::to_string(stat.bad_releases) + " bad releases\n";
}

std::string aftermath(const Window &window, const Expectation &expected, unsigned deaths, ChangeLog *log) {
  const Report found = look_at(window);
  std::string wrong = faults_before(found, expected) + lost_blocks(window, found, deaths);
  if (!wrong.empty()) {
    return wrong;
  }
  if (log != nullptr) {
    watch_writes(window.bytes(), window.size(), log);
  }
  wrong = recover(expected);
  const encap_inspect::RepairResult repaired = encap_inspect::repair(kWindowId);
  if (log != nullptr) {
    unwatch_writes();
  }
  if (!wrong.empty() || repaired.status != 0) {
    return wrong + "repair: status " + std::to_string(repaired.status) + ": " + repaired.error + '\n';
  }
  if (!repaired.after.sound()) {
    return "before the repair\n" + text_of(repaired.before) + "after it\n" + text_of(repaired.after);
  }
  wrong = expected.difference(*egress_encap_db) + bad_releases();
  if (!wrong.empty()) {
    return "found\n" + text_of(found) + "repaired\n" + text_of(repaired.before) + wrong;
  }
  wrong = go_on(expected) + bad_releases();
  const Report last = look_at(window);
  return last.sound() ? wrong : wrong + "at last\n" + text_of(last);
}

}  // namespace crash
