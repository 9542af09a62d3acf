#include "check.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "faults.h"
#include "shmwin/file.h"

namespace encap_inspect {
namespace {

using Kind = FindingKind;

void add(Faults *faults, Kind kind, std::uint64_t found = 0, std::uint64_t wanted = 0, Address address = 0) {
  faults->all.push_back({kind, kNoIndex, kNoIndex, address, found, wanted});
}

constexpr std::uint64_t kIdentityBytes = offsetof(vrellis::WindowHeader, heap_pages);

FindingKind kind_of_refusal(const vrellis::FileContent &content, int status) {
  const vrellis::WindowHeader &header = content.header;
  if (header.magic != vrellis::kWindowMagic || content.bytes < kIdentityBytes) {
    return Kind::kNotAWindow;
  }
  if (header.version != vrellis::kLayoutVersion) {
    return Kind::kLayoutVersion;
  }
  if (header.complete != vrellis::kWindowComplete) {
    return Kind::kNotAWindow;
  }
  if (status == EXDEV) {
    return Kind::kOtherNamespace;
  }
  return header.size > content.bytes ? Kind::kTruncated : Kind::kHeaderIdentity;
}

// Enters what an attach would say of the window's header. Ids mean nothing in a snapshot.
// Returns: whether the database can be looked at.
bool find_identity_faults(const Survey &survey, Faults *faults) {
  const View &view = survey.view();
  vrellis::FileContent content;
  content.bytes = view.file_size();
  std::memcpy(&content.header, view.bytes().data(), std::min<std::uint64_t>(view.size(), sizeof content.header));
  if (!view.is_live()) {
    content.header.pid_namespace = vrellis::own_pid_namespace();
  }
  const std::uint32_t shm_id = content.header.shm_id;
  const std::string name =
      view.path().empty() ? std::to_string(shm_id) : view.path().substr(view.path().rfind('/') + 1);
  shmwin_error_t said{};
  const int status = vrellis::preflight(content, name.c_str(), shm_id, &said);
  if (status != 0) {
    faults->refusal = view.size() < kIdentityBytes ? "the file ends in a window's header" : said.text;
    add(faults, kind_of_refusal(content, status));
  }
  return survey.shape.pages != 0 && (status == 0 || status == EXDEV);
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
    return false;  // no owner opens it
  }
  return db.usable;
}

void find_lock_faults(const LockState &lock, Faults *faults) {
  const auto owner = static_cast<std::uint64_t>(lock.owner_tid);
  if (!lock.recognised) {
    add(faults, Kind::kLockDamaged);
  } else if (lock.held && lock.owner_died) {
    add(faults, Kind::kLockDeadOwner, owner);
  } else if (lock.lost()) {
    add(faults, Kind::kLockLost, owner);
  }
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

std::uint64_t Report::of(Severity severity) const {
  std::uint64_t found = 0;
  for (std::size_t kind = 0; kind < kFindingKinds; ++kind) {
    found += severity_of(static_cast<FindingKind>(kind)) == severity ? count[kind] : 0;
  }
  return found;
}

std::uint64_t Report::faults() const {
  return of(Severity::kPartial) + of(Severity::kDamage);
}

Report report_of(Faults &faults, bool looked) {
  std::stable_sort(faults.all.begin(), faults.all.end(),
                   [](const Fault &a, const Fault &b) { return a.kind < b.kind; });
  Report report;
  report.looked = looked;
  for (const Fault &fault : faults.all) {
    if (report.count[static_cast<std::size_t>(fault.kind)]++ < Report::kKeptOfAKind) {
      report.findings.push_back({fault.kind, fault.nh_index, fault.tunnel, fault.address, sentence_of(faults, fault)});
    }
  }
  return report;
}

Report check(const View &view) {
  if (view.stillness() == Stillness::kMoving) {
    Report report;
    report.stillness = Stillness::kMoving;
    return report;
  }
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
  Report report = report_of(faults, usable);
  report.stillness = view.stillness();
  return report;
}

}  // namespace encap_inspect
