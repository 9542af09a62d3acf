#include "check.h"

#include <algorithm>

#include "faults.h"

namespace encap_inspect {
namespace {

using Kind = FindingKind;

void add(Faults *faults, Kind kind, std::uint64_t found = 0, std::uint64_t wanted = 0, Address address = 0) {
  faults->all.push_back({kind, kNoIndex, kNoIndex, address, found, wanted, kNoNode});
}

// Returns: whether the window's own header can be believed.
bool find_identity_faults(const Survey &survey, Faults *faults) {
  const Database &db = survey.db;
  const View &view = survey.view();
  if (!db.window.is_window) {
    add(faults, Kind::kNotAWindow, view.size());
    return false;
  }
  if (db.window.size > view.size()) {
    add(faults, Kind::kTruncated, view.size(), db.window.size);
    return false;
  }
  if (survey.shape.pages == 0) {
    add(faults, Kind::kHeaderIdentity, db.window.size, 0, db.window.address);
    return false;
  }
  return true;
}

bool find_header_faults(const Survey &survey, Faults *faults) {
  const Database &db = survey.db;
  if (!db.initialised) {
    add(faults, Kind::kNotInitialised);
  } else if (db.nh_end < db.nh_start || db.tun_end < db.tun_start) {
    add(faults, Kind::kHeaderRange);
  } else if (!db.usable) {
    add(faults, Kind::kHeaderArray, db.nh_array, db.tun_array);
  } else if (db.shm_id != db.window.shm_id) {
    add(faults, Kind::kHeaderIdentity, db.shm_id, db.window.shm_id);
  }
  return db.usable;
}

void find_lock_faults(const LockState &lock, Faults *faults) {
  const auto owner = static_cast<std::uint64_t>(lock.owner_tid);
  if (!lock.recognised) {
    add(faults, Kind::kLockDamaged);
  } else if (lock.held && lock.owner_died) {
    add(faults, Kind::kLockDeadOwner, owner);
  } else if (lock.held && lock.owner == Liveness::kDead) {
    add(faults, Kind::kLockLost, owner);
  }
}

Finding finding_of(const Fault &fault) {
  return {fault.kind, fault.nh_index, fault.tunnel, fault.address, sentence_of(fault)};
}

}  // namespace

bool find_window_faults(const Survey &survey, bool log_sound, Faults *faults) {
  if (!find_identity_faults(survey, faults) || !find_header_faults(survey, faults)) {
    return false;
  }
  find_lock_faults(survey.db.lock, faults);
  if (!log_sound) {
    add(faults, Kind::kUndoLogDamaged, survey.db.undo_count);
  } else if (survey.db.undo_count != 0 && !(survey.db.lock.held && survey.db.lock.owner == Liveness::kAlive)) {
    add(faults, Kind::kUndoLogInUse, survey.db.undo_count);
  }
  return true;
}

void find_tree_faults(const Survey &survey, Faults *faults) {
  for (const Flaw &flaw : survey.flaws) {
    const std::uint32_t tunnel = flaw.tree == kNoNode ? kNoIndex : survey.believed[flaw.tree];
    faults->all.push_back({flaw.kind, kNoIndex, tunnel, flaw.address, 0, 0, flaw.tree});
  }
}

std::uint64_t Report::faults() const {
  std::uint64_t faults = 0;
  for (std::size_t kind = 0; kind < kFindingKinds; ++kind) {
    faults += severity_of(static_cast<FindingKind>(kind)) == Severity::kNote ? 0 : count[kind];
  }
  return faults;
}

Report report_of(Faults &faults, bool looked) {
  std::stable_sort(faults.all.begin(), faults.all.end(),
                   [](const Fault &a, const Fault &b) { return a.kind < b.kind; });
  Report report;
  report.looked = looked;
  for (const Fault &fault : faults.all) {
    if (report.count[static_cast<std::size_t>(fault.kind)]++ < Report::kKeptOfAKind) {
      report.findings.push_back(finding_of(fault));
    }
  }
  return report;
}

Report check(const View &view) {
  Faults faults;
  bool log_sound = true;
  const View settled = view.settled(&log_sound);
  Survey looked = survey(settled);
  if (const auto *count = static_cast<const std::uint64_t *>(
          view.at(offsetof(vrellis::WindowHeader, tree_area), sizeof(std::uint64_t), 8))) {
    looked.db.undo_count = *count;
  }
  const bool usable = find_window_faults(looked, log_sound, &faults);
  if (usable) {
    find_faults(looked, &faults);
  }
  return report_of(faults, usable);
}

}  // namespace encap_inspect
