// encapctl snapshot: a consistent copy of a window, for every reading verb to take in its place.
#include <fcntl.h>
#include <fmt/format.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

#include "verbs.h"
#include "window/window.h"

namespace encapctl {
namespace {

using encap_inspect::Stillness;
using encap_inspect::View;

struct SnapshotOptions {
  WindowOptions window;
  OutputOptions output;
  std::string target;
  double patience = 5;  // seconds
  bool force = false;
  bool unsettled = false;
};

constexpr std::size_t kPage = 4096;

// Reads on until the window is seen between two operations, or patience ends.
View settle(const SnapshotOptions &options) {
  const auto patience =
      std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::duration<double>(options.patience));
  std::string error;
  std::optional<View> view =
      View::open_patiently(options.window.directory.c_str(), options.window.name.c_str(), patience, &error);
  if (!view) {
    throw Failure(error);
  }
  if (!encap_inspect::decode(*view).window.is_window) {
    throw Failure(fmt::format("'{}' is no window: there is nothing to make a snapshot of", options.window.path()));
  }
  return std::move(*view);
}

// A snapshot may replace an ordinary file only: not the window that it is made of, which its processes would go on
// using unseen, and no device, which root could replace by a file.
void require_replaceable(const SnapshotOptions &options) {
  struct stat target {};
  struct stat window {};
  if (lstat(options.target.c_str(), &target) != 0) {
    return;
  }
  if (!options.force) {
    throw Failure(fmt::format("'{}' is there already; --force replaces it", options.target));
  }
  if (!S_ISREG(target.st_mode)) {
    throw Failure(fmt::format("'{}' is no regular file, and nothing else is replaced", options.target));
  }
  if (stat(options.window.path().c_str(), &window) == 0 && window.st_dev == target.st_dev &&
      window.st_ino == target.st_ino) {
    throw Failure(fmt::format("'{}' is the window itself, which is never replaced", options.target));
  }
}

// A new file beside the target that takes its place at once, or leaves no trace.
class Draft {
 public:
  explicit Draft(const std::string &target) : target_(target), path_(fmt::format("{}.{}", target, getpid())) {
    fd_ = open(path_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd_ < 0) {
      fail("write");
    }
  }
  ~Draft() {
    close(fd_);
    if (!kept_) {
      unlink(path_.c_str());
    }
  }
  Draft(const Draft &) = delete;
  Draft &operator=(const Draft &) = delete;

  // Pages of nothing but zero stay holes.
  void write(std::span<const std::uint8_t> bytes) {
    if (ftruncate(fd_, static_cast<off_t>(bytes.size())) != 0) {
      fail("write");
    }
    for (std::size_t at = 0; at < bytes.size(); at += kPage) {
      const std::span<const std::uint8_t> page = bytes.subspan(at, std::min(kPage, bytes.size() - at));
      const bool zero = std::all_of(page.begin(), page.end(), [](std::uint8_t byte) { return byte == 0; });
      if (!zero && pwrite(fd_, page.data(), page.size(), static_cast<off_t>(at)) != static_cast<ssize_t>(page.size())) {
        fail("write");
      }
    }
  }

  void keep(bool replace) {
    if (renameat2(AT_FDCWD, path_.c_str(), AT_FDCWD, target_.c_str(), replace ? 0 : RENAME_NOREPLACE) != 0) {
      fail("make");
    }
    kept_ = true;
  }

  std::uint64_t stored_bytes() const {
    struct stat status {};
    return fstat(fd_, &status) == 0 ? static_cast<std::uint64_t>(status.st_blocks) * 512 : 0;
  }

 private:
  [[noreturn]] void fail(std::string_view action) const {
    const int error = errno;
    throw Failure(error == EEXIST ? fmt::format("'{}' is there already; --force replaces it", target_)
                                  : fmt::format("cannot {} '{}': {}", action, target_, std::strerror(error)));
  }

  std::string target_;
  std::string path_;
  int fd_ = -1;
  bool kept_ = false;
};

int run(SnapshotOptions &options) {
  require_replaceable(options);
  const View view = settle(options);
  const bool still = view.stillness() == Stillness::kStill;
  if (!still && !options.unsettled) {
    throw Failure(fmt::format(
        "window '{}' {} for {} s: no snapshot was made; --unsettled makes one all the same", options.window.path(),
        view.stillness() == Stillness::kHeld ? "was locked" : "would not hold still", options.patience));
  }
  Draft draft(options.target);
  draft.write(view.bytes());
  draft.keep(options.force);
  const Output out(options.output);
  if (out.json()) {
    out.object("snapshot", {{"path", options.window.path()},
                            {"file", options.target},
                            {"consistent", still},
                            {"size", view.size()},
                            {"stored", draft.stored_bytes()}});
  } else {
    out.line("'{}' holds {} as one moment showed it: {}, {} on disk", options.target, options.window.path(),
             bytes_text(view.size()), bytes_text(draft.stored_bytes()));
  }
  return kDone;
}

}  // namespace

void add_snapshot(CLI::App &app, int &status) {
  auto [verb, options] = add_verb<SnapshotOptions>(
      app, status, run, "snapshot", "A consistent copy of the window, which reading verbs take with --file",
      "  encapctl snapshot before.snap && encapctl show nhs --file before.snap\n"
      "No lock is taken. Exit status 2: the window would not hold still, or FILE is there.");
  verb.add_option("file", options.target, "Where to; mode 0600, holes where the window holds nothing")
      ->type_name("FILE")
      ->required();
  verb.add_flag("--force", options.force, "Replace FILE");
  verb.add_flag("--unsettled", options.unsettled, "Keep a copy that shows no single moment, too");
  verb.add_option("--patience", options.patience, "Seconds to wait for a moment between operations")
      ->type_name("SECONDS")
      ->check(CLI::NonNegativeNumber)
      ->capture_default_str();
}

}  // namespace encapctl
