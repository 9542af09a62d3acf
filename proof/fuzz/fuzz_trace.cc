// The reader of trace files: any bytes as a file.
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <vector>

#include "fuzz_input.h"
#include "ltrace/reader.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  static std::string path = "/dev/shm/fuzz-trace-XXXXXX";
  static const int fd = mkostemp(path.data(), O_CLOEXEC);
  static const int removed_at_exit = std::atexit([] { unlink(path.c_str()); });
  if (removed_at_exit != 0 || ftruncate(fd, 0) != 0 || pwrite(fd, data, size, 0) != static_cast<ssize_t>(size)) {
    return 0;
  }
  std::string error;
  std::vector<std::unique_ptr<vrellis::TraceFile>> files;
  files.push_back(vrellis::TraceFile::open(path, error));
  if (files.front() == nullptr) {
    if (error.empty()) {
      fuzz::found("a refusal without a reason");
    }
    return 0;
  }
  files.front()->waits();
  files.front()->alive();
  files.front()->component(31);
  const vrellis::TraceMerge merge = vrellis::merge_traces(files);
  for (const vrellis::TraceRecord &event : merge.events) {
    vrellis::render_event(event, {});
  }
  return 0;
}
