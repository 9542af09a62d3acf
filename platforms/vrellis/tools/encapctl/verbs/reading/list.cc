// encapctl list: the databases in a directory.
#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "shmwin/layout.h"
#include "verbs.h"

namespace encapctl {
namespace {

struct ListOptions {
  DirectoryOptions window;
  OutputOptions output;
};

// Whether the file begins as a window does. Symbolic links, devices and pipes are not opened, or not followed.
bool looks_like_window(const std::string &path) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW);
  struct stat status {};
  std::uint64_t magic = 0;
  const bool is_window = fd >= 0 && fstat(fd, &status) == 0 && S_ISREG(status.st_mode) &&
                         pread(fd, &magic, sizeof magic, 0) == sizeof magic && magic == vrellis::kWindowMagic;
  close(fd);
  return is_window;
}

std::vector<std::string> windows_in(const std::string &directory) {
  const std::unique_ptr<DIR, int (*)(DIR *)> listing(opendir(directory.c_str()), &closedir);
  if (listing == nullptr) {
    throw Failure(fmt::format("cannot read the directory '{}': {}", directory, std::strerror(errno)));
  }
  std::vector<std::string> names;
  while (const dirent *entry = readdir(listing.get())) {
    if (looks_like_window(directory + "/" + entry->d_name)) {
      names.emplace_back(entry->d_name);
    }
  }
  std::sort(names.begin(), names.end());
  return names;
}

int run(ListOptions &options) {
  const std::string &directory = options.window.directory;
  const Output out(options.output);
  Table table{{"window", Align::left}, {"id"}, {"size"}, {"NHs"}, {"tunnels"}, {"processes"}, {"lock", Align::left}};
  const std::vector<std::string> names = windows_in(directory);
  for (const std::string &name : names) {
    const encap_inspect::Database db = look_at({{{directory}, name}, {}})->db;
    const auto alive = std::count_if(db.processes.begin(), db.processes.end(), [](const auto &process) {
      return process.liveness == encap_inspect::Liveness::kAlive;
    });
    if (out.json()) {
      out.object("database", {{"path", directory + "/" + name},
                              {"shm_id", db.window.shm_id},
                              {"size", db.window.size},
                              {"usable", db.usable},
                              {"nhs", db.nhs.size()},
                              {"tunnels", db.tunnels.size()},
                              {"processes", alive},
                              {"lock", lock_word(db.lock)}});
    } else {
      table.row({name, fmt::format("{}", db.window.shm_id), bytes_text(db.window.size),
                 fmt::format("{}", db.nhs.size()), fmt::format("{}", db.tunnels.size()), fmt::format("{}", alive),
                 db.usable ? std::string(lock_word(db.lock)) : "no database that can be read"});
    }
  }
  if (names.empty()) {
    warn(fmt::format("'{}' holds no window", directory));
  } else if (!out.json()) {
    table.print(out);
  }
  return names.empty() ? kFindings : kDone;
}

}  // namespace

void add_list(CLI::App &app, int &status) {
  add_verb<ListOptions>(app, status, run, "list", "The databases in a directory",
                        "  encapctl list\n"
                        "  encapctl list --dir /dev/shm/encap-demo-1 --json\n"
                        "`processes` counts those alive. Exit status 1: the directory holds no window.");
}

}  // namespace encapctl
