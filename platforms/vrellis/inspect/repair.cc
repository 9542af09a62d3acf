#include "repair.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "avl.h"
#include "lock_word.h"
#include "mend.h"
#include "shmwin.h"

namespace encap_inspect {
namespace {

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
      return sentence_of({FindingKind::kHeaderIdentity, kNoIndex, kNoIndex, 0, found, wanted, kNoNode});
    }
  }
  return "";
}

// What stands against a repair, before the lock is taken. Returns: an empty text when nothing does.
std::string obstacle(const View &window) {
  Faults faults;
  if (!find_window_faults(survey_header(window), true, &faults)) {
    return faults.all.empty() ? "the window cannot be looked at" : sentence_of(faults.all.front());
  }
  for (const Fault &fault : faults.all) {
    if (fault.kind == FindingKind::kLockDamaged || fault.kind == FindingKind::kLockLost ||
        fault.kind == FindingKind::kHeaderIdentity) {
      return sentence_of(fault);
    }
  }
  return "";
}

void add_change(std::vector<Change> *changes, const Fault &fault) {
  changes->push_back({fault.kind, kNoIndex, kNoIndex, 0, mending_of(fault)});
}

class Repair {
 public:
  Repair(const View &window, const RepairOptions &options) : window_(window), options_(options) {}

  // Requires the lock. `lock_and_log`: faults of the lock and the undo log, seen before it was taken.
  RepairResult run(const Faults &lock_and_log) {
    for (const Fault &fault : lock_and_log.all) {
      add_change(&result_.changes, fault);
    }
    if (options_.dry_run) {
      const View settled = window_.settled(nullptr);
      round(settled);
    } else {
      avl_settle(window_.bytes().data());
      for (int number = 0; number < kMostRounds && round(window_); ++number) {
      }
      tell_what_is_left();
    }
    return std::move(result_);
  }

 private:
  // Returns: whether anything was changed, so that there may be more to see.
  bool round(const View &view) {
    const Survey found = survey(view);
    Faults faults;
    find_faults(found, &faults);
    const std::size_t before = result_.changes.size();
    mend(found, faults, options_, &result_.changes);
    result_.after = report_of(faults, true);
    if (!result_.before.looked) {
      result_.before = result_.after;
    }
    return result_.changes.size() != before;
  }

  void tell_what_is_left() {
    if (!result_.after.sound()) {
      result_.status = EIO;
      result_.error = std::to_string(result_.after.faults()) + " faults are left that could not be mended";
    }
  }

  const View &window_;
  const RepairOptions &options_;
  RepairResult result_;
};

// The window's id, as its file has it. Returns: 0 or an errno value.
int read_id(const std::string &path, std::uint32_t *shm_id) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) {
    return errno;
  }
  vrellis::WindowHeader header;
  const ssize_t got = pread(fd, &header, 64, 0);
  close(fd);
  *shm_id = header.shm_id;
  return got == 64 && header.magic == vrellis::kWindowMagic ? 0 : EINVAL;
}

int fail(std::string *error, int status, const std::string &text) {
  if (error != nullptr) {
    *error = text;
  }
  return status;
}

}  // namespace

RepairResult repair(std::uint32_t shm_id, const RepairOptions &options) {
  void *begin = nullptr;
  std::size_t bytes = 0;
  if (shmwin_bounds(shm_id, &begin, &bytes) != 0) {
    return refuse(ENOENT, "window " + std::to_string(shm_id) + " is not attached in this process");
  }
  const View window = View::over(begin, bytes);
  std::string text = obstacle(window);
  if (text.empty()) {
    text = misplaced(window, shm_id, reinterpret_cast<Address>(begin));
  }
  if (!text.empty()) {
    return refuse(EINVAL, std::move(text));
  }
  const LockState before = decode_lock(window);
  auto *const header = static_cast<egress_encap_db_t *>(shmwin_user_area(shm_id));
  const int locked = vrl_egress_encap_db_lock(&header->lock.mutex);
  if (locked != 0) {
    return refuse(locked, "the database's lock cannot be taken: " + std::string(std::strerror(locked)));
  }
  Faults lock_and_log;
  if (before.held && before.owner_died) {
    lock_and_log.all.push_back({FindingKind::kLockDeadOwner});
  }
  bool sound = true;
  window.settled(&sound);
  std::uint64_t words = 0;
  std::memcpy(&words, window.at(offsetof(vrellis::WindowHeader, tree_area), sizeof words), sizeof words);
  if (words != 0) {
    Fault log{sound ? FindingKind::kUndoLogInUse : FindingKind::kUndoLogDamaged};
    log.found = words;
    lock_and_log.all.push_back(log);
  }
  RepairResult result = Repair(window, options).run(lock_and_log);
  const int unlocked = pthread_mutex_unlock(&header->lock.mutex);
  if (unlocked != 0) {
    result.status = unlocked;
    result.error = "the database's lock cannot be given back: " + std::string(std::strerror(unlocked));
  }
  return result;
}

int attach_for_repair(const char *directory, const char *name, std::uint32_t *shm_id, std::string *error) {
  const std::string path = std::string(directory != nullptr ? directory : "/dev/shm") + "/" + name;
  int status = read_id(path, shm_id);
  if (status != 0) {
    return fail(error, status, "'" + path + "' cannot be read as a window: " + std::strerror(status));
  }
  shmwin_config_t config{};
  config.directory = directory;
  config.name = name;
  config.shm_id = *shm_id;
  shmwin_error_t refused{};
  shmwin_claim_t *claim = nullptr;
  int present = 0;
  status = shmwin_claim(&config, &claim, &present, &refused);
  if (status != 0) {
    return fail(error, status, refused.text);
  }
  status = present != 0 ? shmwin_attach(claim, *shm_id, &refused) : ENOENT;
  shmwin_release(claim);
  return status == 0 ? 0 : fail(error, status, present != 0 ? refused.text : "'" + path + "' holds no window");
}

}  // namespace encap_inspect
