// Writes small corpora to begin from: make_seeds DIRECTORY makes a directory for each target.
#include <filesystem>
#include <fstream>
#include <iostream>

#include "ltrace.h"

namespace {

namespace fs = std::filesystem;

void write(const fs::path &path, const std::string &bytes) {
  fs::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << bytes;
}

void write_queries(const fs::path &directory) {
  constexpr const char *kQueries[] = {
      "+p",
      "func port_* +p; id 3 -t",
      "  category\tevent   +s ",
      "line 110-200 =pst",
      "text \"memory: rc\" component lib* +q\nid 0-1 =_",
      "func",
      "line 9-1 +p",
      "text \"open",
  };
  int number = 0;
  for (const char *query : kQueries) {
    write(directory / std::to_string(number++), query);
  }
}

// A trace file of this process's own, with a ring of the smallest size.
bool write_trace(const fs::path &directory) {
  constexpr std::uint64_t kRecord = std::uint64_t{1} << 31;
  ltrace_name_component(1, "seed");
  for (std::uint64_t i = 0; i < 20; ++i) {
    _ltrace_1(0, kRecord | (i + 1), i);
    _ltrace_3(0, kRecord | (i + 2), i, i, i);
  }
  const char *path = ltrace_path();
  if (path == nullptr || path[0] == '\0') {
    return false;
  }
  fs::create_directories(directory);
  return fs::copy_file(path, directory / "trace", fs::copy_options::overwrite_existing) && fs::remove(path);
}

}  // namespace

int main(int argc, char **argv) {
  if (argc != 2) {
    std::cerr << "usage: make_seeds DIRECTORY\n";
    return 2;
  }
  const fs::path directory = argv[1];
  setenv("LTRACE_DIR", (directory / "trace-files").c_str(), 1);
  setenv("LTRACE_RING_KIB", "8", 1);
  unsetenv("LTRACE");
  write_queries(directory / "fuzz_query");
  fs::create_directories(directory / "fuzz_window");  // finds its way from nothing
  fs::create_directories(directory / "fuzz_fpm");     // its seeds are recorded streams
  if (!write_trace(directory / "fuzz_trace")) {
    std::cerr << "no trace file was made\n";
    return 1;
  }
  return 0;
}
