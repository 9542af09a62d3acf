// Every instruction of a database's making: single-steps the owner that creates one, and opens the database anew from
// each state in which its death would leave the file; then again for a second owner that dies over what the first left.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <optional>

#include "check/check.h"
#include "model/operations.h"
#include "shmwin/layout.h"
#include "support/driver.h"
#include "support/stepper.h"

namespace crash {
namespace {

using vrellis::WindowHeader;
using FileState = std::optional<Image>;  // nothing: there is no file

// The window's file, looked at after each instruction.
class WatchedFile {
 public:
  explicit WatchedFile(std::string path) : path_(std::move(path)) { changed(); }
  ~WatchedFile() { unmap(); }
  WatchedFile(const WatchedFile &) = delete;
  WatchedFile &operator=(const WatchedFile &) = delete;

  // The state now, if it is another than at the last look.
  std::optional<FileState> changed() {
    struct stat now {};
    if (stat(path_.c_str(), &now) != 0) {
      now = {};
    }
    if (now.st_ino != inode_ || static_cast<std::size_t>(now.st_size) != size_) {
      remap(now);
    } else if (size_ == 0 || std::memcmp(map_, last_->data(), size_) == 0) {
      return std::nullopt;
    }
    last_ = inode_ == 0 ? FileState() : Image(map_, map_ + size_);
    return last_;
  }

 private:
  void remap(const struct stat &now) {
    unmap();
    inode_ = now.st_ino;
    size_ = static_cast<std::size_t>(now.st_size);
    if (size_ != 0) {
      const int fd = open(path_.c_str(), O_RDONLY | O_CLOEXEC);
      map_ = static_cast<std::uint8_t *>(mmap(nullptr, size_, PROT_READ, MAP_SHARED, fd, 0));
      close(fd);
    }
  }

  void unmap() {
    if (size_ != 0) {
      munmap(map_, size_);
    }
  }

  std::string path_;
  std::uint8_t *map_ = nullptr;
  std::size_t size_ = 0;
  ino_t inode_ = 0;  // 0: there is no file
  FileState last_;
};

void put_file(const std::string &path, const FileState &state) {
  unlink(path.c_str());
  if (state) {
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char *>(state->data()), static_cast<std::streamsize>(state->size()));
  }
}

// The stopped owner is alive still and stands in the table: after its death its entry names no living process. The
// time of making differs from run to run.
void bury_owner(FileState &state, pid_t pid) {
  if (!state || state->size() < sizeof(WindowHeader)) {
    return;
  }
  auto &header = *reinterpret_cast<WindowHeader *>(state->data());
  for (std::uint64_t &entry : header.process) {
    if (static_cast<pid_t>(entry & ((1u << 22) - 1)) == pid) {
      entry = std::uint64_t{1} << 22 | 1;  // process 1 never started at that tick
    }
  }
}

struct Walked {
  std::vector<FileState> states;
  std::uint64_t instructions = 0;
  std::uint64_t changes = 0;
};

bool open_database(const encap_db_config_t &config, std::string &wrong) {
  shmwin_error_t error{};
  const int status = encap_db_open(&config, nullptr, &error);
  wrong = status != 0 ? "open answers " + std::to_string(status) + ": " + error.text : "";
  return status == 0;
}

Walked walk_owner(const encap_db_config_t &config, const std::string &path) {
  Walked walked;
  std::unordered_set<std::uint64_t> seen;
  const auto add = [&](FileState state, pid_t pid) {
    bury_owner(state, pid);
    Image key = state.value_or(Image{1});
    if (key.size() >= sizeof(WindowHeader)) {
      reinterpret_cast<WindowHeader *>(key.data())->created = 0;
    }
    if (seen.insert(hash_of(key) + key.size()).second) {
      walked.states.push_back(std::move(state));
    }
  };
  WatchedFile file(path);
  Stepper stepper([&config] {
    std::string wrong;
    if (!open_database(config, wrong)) {
      _exit(1);
    }
  });
  while (stepper.step()) {
    if (const std::optional<FileState> state = file.changed()) {
      ++walked.changes;
      add(*state, stepper.pid());
    }
  }
  walked.instructions = stepper.instructions();
  return walked;
}

// The next owner: opens the database, which is empty, and uses it.
std::string next_owner(const encap_db_config_t &config) {
  std::string wrong;
  if (!open_database(config, wrong)) {
    return wrong;
  }
  encap_test::Model model(config.nh_start, config.nh_size, config.tun_start, config.tun_size);
  wrong = encap_test::differences(*egress_encap_db, model);
  for (const std::uint32_t label2 : {0u, 200u}) {
    const Operation enter = entering(model, key_of(16, label2, 1), config.nh_start + label2 % 7, label2 == 0 ? 0 : 10);
    if (!(on_database(enter) == on_model(model, enter))) {
      wrong += "an insert is refused\n";
    }
  }
  wrong += encap_test::differences(*egress_encap_db, model);
  void *begin = nullptr;
  std::size_t bytes = 0;
  shmwin_bounds(config.shm_id, &begin, &bytes);
  const encap_inspect::Report report = encap_inspect::check(encap_inspect::View::over(begin, bytes));
  for (const encap_inspect::Finding &finding : report.findings) {
    wrong += finding.text + '\n';
  }
  return wrong;
}

// Returns the number of failures.
std::uint64_t play(const encap_db_config_t &config, const std::string &path, const std::vector<FileState> &states) {
  std::uint64_t failures = 0;
  for (std::size_t i = 0; i < states.size(); ++i) {
    put_file(path, states[i]);
    const std::string ended = run_in_child(60, [&] {
      const std::string wrong = next_owner(config);
      std::printf("%s", wrong.c_str());
      return wrong.empty();
    });
    if (!ended.empty()) {
      std::printf("FAILED state %zu: %s\n", i, ended.c_str());
      ++failures;
    }
  }
  return failures;
}

// The first state of each kind that owners tell apart: no file, an empty one, no complete window, no database yet.
std::vector<FileState> kinds_of(const std::vector<FileState> &states) {
  std::vector<FileState> kinds;
  std::uint64_t seen = 0;
  for (const FileState &state : states) {
    unsigned kind = !state ? 0 : state->empty() ? 1 : 2;
    if (kind == 2) {
      const auto &header = *reinterpret_cast<const WindowHeader *>(state->data());
      const auto &db = *reinterpret_cast<const egress_encap_db_t *>(header.user_area);
      kind += header.complete != 0 ? (db.is_initialized != 0 ? 3u : db.nh_info_array != nullptr ? 2u : 1u) : 0u;
    }
    if ((seen & 1u << kind) == 0) {
      seen |= 1u << kind;
      kinds.push_back(state);
    }
  }
  return kinds;
}

int run() {
  const Stopwatch time;
  const Directory directory;
  const std::string path = directory.path() + "/window";
  encap_db_config_t config = config_in(directory);
  config.nh_size = 24;
  const Walked first = walk_owner(config, path);
  std::uint64_t failures = play(config, path, first.states);
  std::vector<FileState> starts = kinds_of(first.states);
  starts.emplace_back(std::nullopt);
  std::uint64_t instructions = first.instructions, second_states = 0;
  for (const FileState &start : starts) {
    put_file(path, start);
    const Walked second = walk_owner(config, path);
    instructions += second.instructions;
    second_states += second.states.size();
    failures += play(config, path, second.states);
  }
  std::printf("first making: %" PRIu64 " instructions, %" PRIu64 " changes, %zu distinct states of the file\n",
              first.instructions, first.changes, first.states.size());
  std::printf("over what it left: %zu kinds of states, %" PRIu64 " instructions in all, %" PRIu64 " states\n",
              starts.size(), instructions, second_states);
  std::printf("%" PRIu64 " failures, %.1f s\n", failures, time.seconds());
  return failures == 0 && !first.states.empty() ? 0 : 1;
}

}  // namespace
}  // namespace crash

int main(int argc, char **argv) {
  crash::parse(argc, argv, {});
  return crash::run();
}
