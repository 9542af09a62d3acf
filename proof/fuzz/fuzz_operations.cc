// Sequences of calls on a real window beside the model; the first byte chooses whether the caller keeps the rules.
#include "fuzz_input.h"
#include "model/caller.h"
#include "support/window.h"

namespace {

crash::Window *window;
crash::Image empty_window;
encap_db_config_t config;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int * /*argc*/, char *** /*argv*/) {
  static const crash::Directory directory;
  config = crash::config_in(directory);
  config.nh_size = 16;
  config.tun_size = 4;
  static crash::Window opened(directory, config);
  window = &opened;
  empty_window = opened.image();
  directory.remove();  // the mapping stays; a fuzzer may end without a word
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  fuzz::Input input(data, size);
  const bool stray = (input.take<std::uint8_t>() & 1) != 0;
  window->put(empty_window);
  crash::Caller caller(
      encap_test::Model(config.nh_start, config.nh_size, config.tun_start, config.tun_size),
      [&input](std::uint32_t limit) { return input.below(limit); }, stray);
  std::string wrong;
  for (unsigned steps = 0; !input.empty() && steps < 400 && wrong.empty(); ++steps) {
    wrong = caller.step();
  }
  wrong += caller.compare_all();
  if (!stray) {
    wrong += crash::findings_in(*window);
  }
  if (!wrong.empty()) {
    fuzz::found(wrong);
  }
  return 0;
}
