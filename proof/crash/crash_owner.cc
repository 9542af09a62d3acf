// Every instruction of a database's making: single-steps the owner that creates one, and opens the database anew from
// each state in which its death would leave the file; then again for a second owner that dies over what the first left.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <fstream>

#include "check/check.h"
#include "model/operations.h"
#include "shmwin/layout.h"
#include "support/driver.h"
#include "support/stepper.h"

namespace crash {
namespace {

using vrellis::WindowHeader;
// The bytes of a file; one byte stands for no file.
const Image kNoFile{0};

// The window's file, looked at after each instruction.
class WatchedFile {
 public:
  explicit WatchedFile(std::string path) : path_(std::move(path)) { changed(); }
  ~WatchedFile() { unmap(); }
  WatchedFile(const WatchedFile &) = delete;
  WatchedFile &operator=(const WatchedFile &) = delete;

  // Whether image() is another than at the last look.
  bool changed() {
    struct stat now {};
    if (stat(path_.c_str(), &now) != 0) {
      now = {};
    }
    if (now.st_ino != inode_ || static_cast<std::size_t>(now.st_size) != size_) {
      remap(now);
    } else if (size_ == 0 || std::memcmp(map_, image_.data(), size_) == 0) {
      return false;
    }
    image_ = inode_ == 0 ? kNoFile : Image(map_, map_ + size_);
    return true;
  }
  const Image &image() const { return image_; }

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
  Image image_;
};

void put_file(const std::string &path, const Image &image) {
  unlink(path.c_str());
  if (image != kNoFile) {
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char *>(image.data()), static_cast<std::streamsize>(image.size()));
  }
}

// The stopped owner is alive still and stands in the table: after its death its entry names no living process. The
// time of making differs from run to run.
Image buried(Image image, pid_t pid) {
  if (image.size() >= sizeof(WindowHeader)) {
    auto &header = *reinterpret_cast<WindowHeader *>(image.data());
    header.created = 0;
    for (std::uint64_t &entry : header.process) {
      if (static_cast<pid_t>(entry & ((1u << 22) - 1)) == pid) {
        entry = std::uint64_t{1} << 22 | 1;  // process 1 never started at that tick
      }
    }
  }
  return image;
}

bool open_database(const encap_db_config_t &config, std::string &wrong) {
  shmwin_error_t error{};
  const int status = encap_db_open(&config, nullptr, &error);
  wrong = status != 0 ? "open answers " + std::to_string(status) + ": " + error.text : "";
  return status == 0;
}

Walk walk_owner(const encap_db_config_t &config, const std::string &path) {
  Walk walk;
  WatchedFile file(path);
  Stepper stepper([&config] {
    std::string wrong;
    if (!open_database(config, wrong)) {
      _exit(1);
    }
  });
  while (stepper.step()) {
    if (file.changed()) {
      ++walk.changes;
      walk.states.add(buried(file.image(), stepper.pid()));
    }
  }
  walk.instructions = stepper.instructions();
  return walk;
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
  return wrong + text_of(encap_inspect::check(encap_inspect::View::over(begin, bytes)));
}

// Returns the number of failures.
std::uint64_t play(const encap_db_config_t &config, const std::string &path, const std::vector<Image> &states) {
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
std::vector<Image> kinds_of(const std::vector<Image> &states) {
  std::vector<Image> kinds{kNoFile};
  std::uint64_t seen = 0;
  for (const Image &state : states) {
    unsigned kind = 0;
    if (state.size() > sizeof(WindowHeader)) {
      const auto &header = *reinterpret_cast<const WindowHeader *>(state.data());
      const auto &db = *reinterpret_cast<const egress_encap_db_t *>(header.user_area);
      kind = header.complete == 0 ? 1 : db.is_initialized != 0 ? 2 : db.nh_info_array != nullptr ? 3 : 4;
    }
    if (state != kNoFile && (seen & 1u << kind) == 0) {
      seen |= 1u << kind;
      kinds.push_back(state);
    }
  }
  return kinds;
}

}  // namespace
}  // namespace crash

int main(int argc, char **argv) {
  using namespace crash;
  parse(argc, argv, {});
  const Stopwatch time;
  const Directory directory;
  const std::string path = directory.path() + "/window";
  encap_db_config_t config = config_in(directory);
  config.nh_size = 24;
  const Walk first = walk_owner(config, path);
  std::uint64_t failures = play(config, path, first.states.all());
  const std::vector<Image> starts = kinds_of(first.states.all());
  std::uint64_t instructions = first.instructions, second_states = 0;
  for (const Image &start : starts) {
    put_file(path, start);
    const Walk second = walk_owner(config, path);
    instructions += second.instructions;
    second_states += second.states.all().size();
    failures += play(config, path, second.states.all());
  }
  std::printf("first making: %" PRIu64 " instructions, %" PRIu64 " changes, %zu distinct states of the file\n",
              first.instructions, first.changes, first.states.all().size());
  std::printf("over what it left: %zu kinds of states, %" PRIu64 " instructions in all, %" PRIu64 " states\n",
              starts.size(), instructions, second_states);
  std::printf("%" PRIu64 " failures, %.1f s\n", failures, time.seconds());
  return failures == 0 && !first.states.all().empty() ? 0 : 1;
}
