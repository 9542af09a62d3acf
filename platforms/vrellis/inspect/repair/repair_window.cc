// A repair of the window that a configuration names: attached for that time, its lock made anew if it is lost.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>

#include "mend.h"
#include "reading/lock_word.h"
#include "shmwin.h"

namespace encap_inspect {
namespace {

std::string path_of(const encap_db_config_t &config) {
  return std::string(config.directory != nullptr ? config.directory : "/dev/shm") + "/" + config.name;
}

// The window's id, as its file has it; 0 when the file is no window.
std::uint32_t id_in(const std::string &path) {
  const std::optional<View> head = View::open_head(path.c_str(), nullptr);
  vrellis::WindowHeader header{};
  if (head) {
    std::memcpy(&header, head->bytes().data(), std::min<std::size_t>(head->size(), 64));
  }
  return header.magic == vrellis::kWindowMagic ? header.shm_id : 0;
}

// Whether this process has the file at `path` attached as window `shm_id`.
bool is_attached(std::uint32_t shm_id, const std::string &path) {
  void *begin = nullptr;
  std::size_t bytes = 0;
  return shmwin_bounds(shm_id, &begin, &bytes) == 0 &&
         MappedFile(path).at(getpid(), reinterpret_cast<Address>(begin)) == vrellis::Mapped::kYes;
}

struct GiveBack {
  void operator()(shmwin_claim_t *claim) const { shmwin_release(claim); }
};

class Attachment {
 public:
  explicit Attachment(std::uint32_t shm_id) : shm_id_(shm_id) {}
  ~Attachment() { shmwin_detach(shm_id_); }
  Attachment(const Attachment &) = delete;
  Attachment &operator=(const Attachment &) = delete;

 private:
  std::uint32_t shm_id_;
};

// Makes a lock anew that no thread will ever give back. Requires the claim, so that no process attaches the window
// meanwhile. Out: *result, with the change. Returns: 0; 16 (EBUSY) when another process has the window attached.
int renew_lost_lock(std::uint32_t shm_id, RepairResult *result) {
  void *begin = nullptr;
  std::size_t bytes = 0;
  shmwin_bounds(shm_id, &begin, &bytes);
  const View window = View::over(begin, bytes);
  FindingKind kind{};
  const std::string sentence = obstacle(window, &kind);
  if (sentence.empty() || !is_lost_lock(kind)) {
    return 0;
  }
  for (const AttachedProcess &process : decode_processes(window)) {
    if (process.pid != getpid() && process.liveness != Liveness::kDead) {
      char who[vrellis::kProcessTextBytes];
      vrellis::describe_process(process.pid, who);
      result->error = sentence + "; its lock can be made anew when " + who + " has ended, which has it attached";
      return EBUSY;
    }
  }
  result->before.findings.push_back({kind, kNoIndex, kNoIndex, 0, sentence});
  ++result->before.count[static_cast<std::size_t>(kind)];
  result->changes.push_back({kind, kNoIndex, kNoIndex, 0, mending_of({kind})});
  return eencap_lock_init(&static_cast<egress_encap_db_t *>(shmwin_user_area(shm_id))->lock);
}

// Puts what was done to the lock before what was done to the database.
void put_first(const RepairResult &lock, RepairResult *result) {
  result->changes.insert(result->changes.begin(), lock.changes.begin(), lock.changes.end());
  Report &before = result->before;
  before.findings.insert(before.findings.begin(), lock.before.findings.begin(), lock.before.findings.end());
  for (std::size_t kind = 0; kind < kFindingKinds; ++kind) {
    before.count[kind] += lock.before.count[kind];
  }
}

}  // namespace

RepairResult repair_window(const encap_db_config_t &config, const RepairOptions &options) {
  RepairResult result;
  const std::string path = path_of(config);
  struct stat file {};
  if (lstat(path.c_str(), &file) != 0 || (S_ISREG(file.st_mode) && file.st_size == 0)) {
    result.status = ENOENT;  // a claim would make the file, or remove the empty one
    result.error = "there is no window '" + path + "'";
    return result;
  }
  const std::uint32_t shm_id = id_in(path);
  if (is_attached(shm_id, path)) {
    return repair(shm_id, options);
  }
  shmwin_config_t window{};
  window.directory = config.directory;
  window.name = config.name;
  window.shm_id = shm_id;
  window.mode = config.mode;
  window.named = config.named;
  window.user = config.user;
  window.group = config.group;
  shmwin_error_t refused{};
  shmwin_claim_t *claimed = nullptr;
  int present = 0;
  result.status = shmwin_claim(&window, &claimed, &present, &refused);
  std::unique_ptr<shmwin_claim_t, GiveBack> claim(claimed);
  if (result.status == 0) {
    result.status = present != 0 ? shmwin_attach(claim.get(), shm_id, &refused) : ENOENT;
  }
  if (result.status != 0) {
    result.error = result.status == ENOENT ? "'" + path + "' holds no window" : refused.text;
    return result;
  }
  const Attachment attachment(shm_id);
  result.status = renew_lost_lock(shm_id, &result);
  claim.reset();
  if (result.status != 0) {
    return result;
  }
  RepairResult repaired = repair(shm_id, options);
  put_first(result, &repaired);
  return repaired;
}

RepairResult rehearse_window(const encap_db_config_t &config, const RepairOptions &options) {
  RepairResult result;
  const std::optional<View> view = View::open_patiently(config.directory, config.name, options.patience, &result.error);
  if (!view) {
    result.status = access(path_of(config).c_str(), R_OK) != 0 ? errno : EINVAL;
    return result;
  }
  return rehearse(*view, options);
}

}  // namespace encap_inspect
