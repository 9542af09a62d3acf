#include "repair.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "avl.h"
#include "mend.h"
#include "reading/lock_word.h"
#include "shmwin.h"

namespace encap_inspect {
namespace {

using Kind = FindingKind;

// Damage can hide damage: what is mended shows what lies behind it. No chain of it is longer than this.
constexpr int kMostRounds = 8;

RepairResult refuse(int status, std::string error) {
  RepairResult result;
  result.status = status;
  result.error = std::move(error);
  return result;
}

// Services go by where and as what the window is attached, the inspector by what its header records: they must agree.
std::string misplaced(const View &window, std::uint32_t shm_id, Address begin) {
  vrellis::WindowHeader header;
  std::memcpy(&header, window.bytes().data(), 64);
  const std::uint64_t pairs[][2] = {{header.shm_id, shm_id}, {header.address, begin}, {header.size, window.size()}};
  for (const auto &[found, wanted] : pairs) {
    if (found != wanted) {
      return "the window's header contradicts itself: it records " + std::to_string(found) + " where " +
             std::to_string(wanted) + " belongs";
    }
  }
  return "";
}

void add_change(std::vector<Change> *changes, const Fault &fault) {
  changes->push_back({fault.kind, kNoIndex, kNoIndex, 0, mending_of(fault)});
}

// Names the process that has kept the lock for so long.
RepairResult refuse_held(const View &window, const RepairOptions &options) {
  const pid_t holder = decode_lock(window).owner_pid;
  char who[vrellis::kProcessTextBytes] = "a process that cannot be told from here";
  if (holder != 0) {
    vrellis::describe_process(holder, who);
  }
  RepairResult result = refuse(
      ETIMEDOUT, "the database's lock was held for " + std::to_string(options.patience.count()) + " ms by " + who);
  result.holder = holder;
  return result;
}

// The database's lock, given back at the latest when the object goes.
class Lock {
 public:
  explicit Lock(pthread_mutex_t &mutex) : mutex_(mutex) {}
  ~Lock() { release(); }
  Lock(const Lock &) = delete;
  Lock &operator=(const Lock &) = delete;

  // Waits in slices, since the kernel may have woken a waiter that died before it took the lock.
  // Returns: 0; 110 (ETIMEDOUT); the lock's code.
  int take(std::chrono::milliseconds patience) {
    constexpr long kSliceNs = 50'000'000;
    const auto end = std::chrono::steady_clock::now() + patience;
    int status = ETIMEDOUT;
    do {
      timespec until{};
      clock_gettime(CLOCK_REALTIME, &until);
      until.tv_nsec += kSliceNs;
      until.tv_sec += until.tv_nsec / 1'000'000'000;
      until.tv_nsec %= 1'000'000'000;
      status = pthread_mutex_timedlock(&mutex_, &until);
    } while (status == ETIMEDOUT && std::chrono::steady_clock::now() < end);
    if (status == EOWNERDEAD) {
      status = pthread_mutex_consistent(&mutex_);
    }
    held_ = status == 0;
    return status;
  }

  int release() {
    const bool held = held_;
    held_ = false;
    return held ? pthread_mutex_unlock(&mutex_) : 0;
  }

 private:
  pthread_mutex_t &mutex_;
  bool held_ = false;
};

class Repair {
 public:
  Repair(const View &window, const RepairOptions &options) : window_(window), options_(options) {}

  // Requires the lock. `owner_died`: it was taken over from a dead thread.
  RepairResult run(bool owner_died) {
    Faults lock_and_log;
    if (owner_died) {
      lock_and_log.all.push_back({Kind::kLockDeadOwner});
    }
    add_undo_log(&lock_and_log);
    for (const Fault &fault : lock_and_log.all) {
      add_change(&result_.changes, fault);
    }
    avl_settle(window_.bytes().data());
    for (int number = 0; number < kMostRounds && round(lock_and_log); ++number) {
      lock_and_log.all.clear();
    }
    if (!result_.after.sound()) {
      result_.status = EIO;
      result_.error = std::to_string(result_.after.faults()) + " faults are left that could not be mended";
    }
    return std::move(result_);
  }

 private:
  void add_undo_log(Faults *faults) {
    std::uint64_t words = 0;
    std::memcpy(&words, window_.at(offsetof(vrellis::WindowHeader, tree_area), sizeof words), sizeof words);
    if (words != 0) {
      bool sound = true;
      window_.settled(&sound);
      faults->all.push_back({sound ? Kind::kUndoLogInUse : Kind::kUndoLogDamaged, kNoIndex, kNoIndex, 0, words});
    }
  }

  // `before`: what was found beside the database itself. Returns: whether anything was changed, so that there may be
  // more to see.
  bool round(const Faults &before) {
    const Survey found = survey(window_);
    Faults faults;
    find_faults(found, &faults);
    const std::size_t changes = result_.changes.size();
    mend(found, faults, options_, Deed::kMend, &result_.changes);
    result_.after = report_of(faults, true);
    if (!result_.before.looked) {
      faults.all.insert(faults.all.end(), before.all.begin(), before.all.end());
      result_.before = report_of(faults, true);
    }
    return result_.changes.size() != changes;
  }

  const View &window_;
  const RepairOptions &options_;
  RepairResult result_;
};

// What the first report found of the lock and of an undo log, as changes.
bool is_of_lock_or_log(Kind kind) {
  return kind == Kind::kLockDeadOwner || kind == Kind::kUndoLogInUse || kind == Kind::kUndoLogDamaged ||
         is_lost_lock(kind);
}

}  // namespace

bool is_lost_lock(FindingKind kind) {
  return kind == Kind::kLockLost || kind == Kind::kLockDamaged;
}

std::string obstacle(const View &window, FindingKind *kind) {
  Faults faults;
  const bool usable = find_window_faults(survey_header(window), true, &faults);
  const auto stands = [&](const Fault &fault) {
    return !usable || is_lost_lock(fault.kind) || fault.kind == Kind::kOtherNamespace;
  };
  const auto found = std::find_if(faults.all.begin(), faults.all.end(), stands);
  if (found == faults.all.end()) {
    return usable ? "" : "the window cannot be looked at";
  }
  *kind = found->kind;
  return sentence_of(faults, *found);
}

RepairResult repair(std::uint32_t shm_id, const RepairOptions &options) {
  void *begin = nullptr;
  std::size_t bytes = 0;
  if (shmwin_bounds(shm_id, &begin, &bytes) != 0) {
    return refuse(ENOENT, "window " + std::to_string(shm_id) + " is not attached in this process");
  }
  const View window = View::over(begin, bytes);
  FindingKind kind{};
  std::string text = obstacle(window, &kind);
  if (text.empty()) {
    text = misplaced(window, shm_id, reinterpret_cast<Address>(begin));
  }
  if (!text.empty()) {
    return refuse(EINVAL, std::move(text));
  }
  const LockState before = decode_lock(window);
  Lock lock(static_cast<egress_encap_db_t *>(shmwin_user_area(shm_id))->lock.mutex);
  const int locked = lock.take(options.patience);
  if (locked == ETIMEDOUT) {
    return refuse_held(window, options);
  }
  if (locked != 0) {
    return refuse(locked, "the database's lock cannot be taken: " + std::string(std::strerror(locked)));
  }
  RepairResult result = Repair(window, options).run(before.held && before.owner_died);
  const int unlocked = lock.release();
  if (unlocked != 0) {
    result.status = unlocked;
    result.error = "the database's lock cannot be given back: " + std::string(std::strerror(unlocked));
  }
  return result;
}

RepairResult rehearse(const View &view, const RepairOptions &options) {
  if (view.stillness() == Stillness::kHeld) {
    return refuse_held(view, options);
  }
  RepairResult result;
  result.before = result.after = check(view);
  if (view.stillness() == Stillness::kMoving) {
    return refuse(EAGAIN, "the window would not hold still while it was read");
  }
  if (!result.before.looked) {
    return refuse(EINVAL, result.before.findings.empty() ? "the window cannot be looked at"
                                                         : result.before.findings.front().text);
  }
  for (const Finding &finding : result.before.findings) {
    if (is_of_lock_or_log(finding.kind)) {
      Fault fault{finding.kind};
      fault.found = survey_header(view).db.undo_count;
      add_change(&result.changes, fault);
    }
  }
  const View settled = view.settled(nullptr);
  const Survey found = survey(settled);
  Faults faults;
  find_faults(found, &faults);
  mend(found, faults, options, Deed::kRehearse, &result.changes);
  return result;
}

}  // namespace encap_inspect
