// encapctl destroy: removes a window that no live process uses.
#include <fmt/format.h>
#include <unistd.h>

#include "encap_db_owner.h"
#include "load/interfaces.h"
#include "output/output.h"
#include "verbs.h"

namespace encapctl {
namespace {

struct DestroyOptions {
  WindowOptions window;
  OutputOptions output;
  bool force = false;
};

int run(DestroyOptions &options) {
  shmwin_error_t error{};
  if (encap_db_destroy(options.window.directory.c_str(), options.window.name.c_str(), options.force ? 1 : 0, &error) !=
      0) {
    throw Failure(error.text);
  }
  unlink(Interfaces::path_of(options.window.path()).c_str());
  const Output out(options.output);
  if (out.json()) {
    out.object("destroy", {{"path", options.window.path()}, {"forced", options.force}});
  } else {
    out.line("window '{}' is gone", options.window.path());
  }
  return kDone;
}

}  // namespace

void add_destroy(CLI::App &app, int &status) {
  auto [verb, options] =
      add_verb<DestroyOptions>(app, status, run, "destroy", "Remove the window, unless a live process has it attached",
                               "  encapctl destroy --dir /tmp --name lab\n"
                               "Exit status 2: a live process has it attached, there is none, or it is no window.");
  verb.add_flag("--force", options.force, "Also with live processes, which keep what they have mapped");
}

}  // namespace encapctl
