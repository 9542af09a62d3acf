// The reader of trace files: a sound file in which some words are written over, at times cut short.
#include <cstdlib>

#include "directory.h"
#include "fuzz_input.h"
#include "ltrace.h"
#include "ltrace/file.h"
#include "ltrace/reader.h"

namespace {

const test_support::Directory directory;

// A trace file of this process's own, with a ring of the smallest size.
std::string sound_file() {
  constexpr std::uint64_t kRecord = std::uint64_t{1} << 31;
  setenv("LTRACE_DIR", directory.path().c_str(), 1);
  setenv("LTRACE_RING_KIB", "8", 1);
  unsetenv("LTRACE");
  ltrace_name_component(1, "seed");
  for (std::uint64_t i = 0; i < 20; ++i) {
    _ltrace_1(0, kRecord | (i + 1), i);
    _ltrace_3(0, kRecord | (i + 2), i, i, i);
  }
  return test_support::content_of(ltrace_path()).substr(0, vrellis::kRingHeaderBytes + 2 * vrellis::kMinRingKib * 1024);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  static const std::string sound = sound_file();
  static const std::string path = directory.path() + "/damaged";
  fuzz::Input input(data, size);
  const auto cut = input.take<std::uint8_t>();
  std::string bytes = sound.substr(0, cut < 240 ? sound.size() : sound.size() * (cut - 240U) / 16 + cut % 7);
  for (unsigned changes = 0; !input.empty() && !bytes.empty() && changes < 24; ++changes) {
    const auto where = input.take<std::uint16_t>();
    const std::size_t offset = (where % 2 == 0 ? where / 2U : where) % bytes.size();
    const auto value = input.take<std::uint64_t>();
    std::memcpy(bytes.data() + offset, &value, std::min(std::size_t{1} << input.below(4), bytes.size() - offset));
  }
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
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
