// encapctl: see into an MPLS egress encapsulation database, alive or dead.
#include <fmt/format.h>

#include <cstdio>
#include <exception>

#include "verbs.h"

namespace {

constexpr char kDescription[] =
    "Sees into an MPLS egress encapsulation database, whether its daemons live or not.\n"
    "Verbs that read copy the window, take no lock and need no daemon.";

constexpr char kFooter[] =
    "Exit status: 0 done, and check found it sound; 1 findings, or nothing found; 2 could not look or do, or bad\n"
    "usage. A reading verb that says \"the database would not hold still\" goes on with what it has, and exits as if\n"
    "it had held still; check exits with 2 then.\n"
    "Environment: ENCAPCTL_DIR and ENCAPCTL_NAME stand for --dir and --name, LTRACE_DIR for --trace-dir; NO_COLOR.\n"
    "`encapctl VERB --help` tells of a verb, with an example.";

using Add = void (*)(CLI::App &, int &);
constexpr Add kVerbs[] = {
    encapctl::add_status, encapctl::add_show,     encapctl::add_summary, encapctl::add_find,
    encapctl::add_check,  encapctl::add_trace,    encapctl::add_debug,   encapctl::add_repair,
    encapctl::add_load,   encapctl::add_snapshot, encapctl::add_destroy,
};

int run(int argc, char **argv) {
  int status = encapctl::kDone;
  CLI::App app(kDescription, "encapctl");
  app.footer(kFooter);
  app.set_version_flag("--version", ENCAPCTL_VERSION);
  app.require_subcommand(1);
  for (const Add add : kVerbs) {
    add(app, status);
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError &error) {
    return app.exit(error) == 0 ? encapctl::kDone : encapctl::kUnable;
  }
  return status;
}

}  // namespace

int main(int argc, char **argv) {
  try {
    return run(argc, argv);
  } catch (const std::exception &error) {
    std::fflush(stdout);
    fmt::print(stderr, "encapctl: {}\n", error.what());
    return encapctl::kUnable;
  }
}
