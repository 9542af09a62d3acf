// The demo: two clients enter the routes of a file into one database, one of them dies and returns, dies and never
// returns, and all is withdrawn again.
#include <fmt/format.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <string_view>
#include <vector>

#include "acts.h"
#include "guard.h"

namespace {

constexpr unsigned kLimitSeconds = 60;
constexpr unsigned kLookingLimitSeconds = 3600;
constexpr int kFailed = 1;
constexpr int kBadInput = 2;

constexpr std::string_view kUsage =
    "Usage: encap_demo [--dir DIRECTORY] [--look] ROUTE-FILE\n"
    "\n"
    "Shows the MPLS egress encapsulation database at work. Two processes enter the routes of\n"
    "ROUTE-FILE, as `ip route` and `ip -6 route` print them, into one shared-memory window and\n"
    "share each other's encapsulations. One is killed in the middle of a call, the other takes\n"
    "the lock over, and a new process takes up what the dead one held. Then it is killed for\n"
    "good, what it held is reclaimed, and all routes are withdrawn.\n"
    "Each count is compared with what the route file says.\n"
    "\n"
    "  --dir DIRECTORY  where the window and the traces are kept meanwhile (default: /dev/shm)\n"
    "  --look           stop after each act, for a look at the window with encapctl, until Enter\n"
    "  --help           this text\n"
    "\n"
    "Exit status: 0 every expectation was met; 1 not so; 2 bad arguments or a bad route file.\n";

struct Arguments {
  std::string directory = "/dev/shm";
  std::string route_file;
  bool look = false;
};

// Returns: false when the words are no arguments of this program.
bool parse(const std::vector<std::string> &words, Arguments &arguments) {
  std::size_t at = 0;
  for (; at < words.size() && words[at].starts_with("--"); ++at) {
    if (words[at] == "--look") {
      arguments.look = true;
    } else if (words[at] == "--dir" && at + 1 < words.size()) {
      arguments.directory = words[++at];
    } else {
      return false;
    }
  }
  if (words.size() != at + 1 || words[at].empty()) {
    return false;
  }
  arguments.route_file = words[at];
  return true;
}

bool wants_colour() {
  return isatty(STDOUT_FILENO) == 1 && std::getenv("NO_COLOR") == nullptr;
}

void introduce(const demo::Plan &plan, demo::Report &report) {
  const route_file::RouteFile &routes = plan.routes;
  report.line("routes    {}", plan.route_file);
  report.line("          {} labelled routes with {} next hops over {} interfaces; {} plain routes skipped",
              routes.labelled_routes, routes.hops.size(), routes.interfaces.size(), routes.plain_routes);
  report.line("window    {}/{}", plan.directory, demo::kWindowName);
}

// Waits for Enter, or the end of the input, with the window as the act left it.
void let_look(const demo::Plan &plan, demo::Report &report) {
  report.line("look      LTRACE_DIR={}/trace encapctl status --dir {} --name {}", plan.directory, plan.directory,
              demo::kWindowName);
  report.line("          (or show nhs, summary, check, trace ...); Enter goes on");
  for (int byte = std::getchar(); byte != '\n' && byte != EOF;) {
    byte = std::getchar();
  }
}

int supervise(const demo::Plan &plan, bool look) {
  std::signal(SIGPIPE, SIG_IGN);
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  demo::Report report(wants_colour());
  report.heading("MPLS egress encapsulation database: two processes, one window");
  introduce(plan, report);
  try {
    demo::Stage stage(plan, report);
    for (const auto act : {&demo::Stage::enter_routes, &demo::Stage::lose_a_process, &demo::Stage::reclaim_a_client,
                           &demo::Stage::withdraw_routes}) {
      (stage.*act)();
      if (look) {
        let_look(plan, report);
      }
    }
  } catch (const std::exception &error) {
    report.fail(error.what());
  }
  report.heading(report.failures() == 0
                     ? fmt::format("All {} expectations met", report.expectations())
                     : fmt::format("{} of {} expectations FAILED", report.failures(), report.expectations()));
  return report.failures() == 0 ? EXIT_SUCCESS : kFailed;
}

int run_demo(const Arguments &arguments) {
  demo::Plan plan = demo::make_plan(arguments.route_file, "");
  const unsigned limit = arguments.look ? kLookingLimitSeconds : kLimitSeconds;
  return demo::run_guarded(arguments.directory, limit, [&](const std::string &directory) {
    unsetenv("LTRACE");  // the traces are part of what it shows
    setenv("LTRACE_DIR", (directory + "/trace").c_str(), 1);
    plan.directory = directory;
    return supervise(plan, arguments.look);
  });
}

}  // namespace

int main(int argc, char **argv) {
  const std::vector<std::string> words(argv + 1, argv + argc);
  try {
    if (words.size() == 4 && words[0] == "--worker") {  // started by the supervisor: number, directory, route file
      return demo::run_worker(demo::make_plan(words[3], words[2]), words[1] == "0" ? demo::kA : demo::kB);
    }
    if (words.size() == 1 && (words[0] == "--help" || words[0] == "-h")) {
      fmt::print("{}", kUsage);
      return EXIT_SUCCESS;
    }
    Arguments arguments;
    if (!parse(words, arguments)) {
      fmt::print(stderr, "encap_demo: needs one route file; see encap_demo --help\n");
      return kBadInput;
    }
    return run_demo(arguments);
  } catch (const std::exception &error) {
    fmt::print(stderr, "encap_demo: {}\n", error.what());
    return kBadInput;
  }
}
