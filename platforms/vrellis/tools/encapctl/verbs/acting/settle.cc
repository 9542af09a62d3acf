// encapctl settle: tells the daemon of a client that its router is complete.
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <limits>

#include "verbs.h"

extern "C" {  // the header of glibc 2.36 declares C functions without saying so
#include <sys/pidfd.h>
}

namespace encapctl {
namespace {

using encap_inspect::ClientEntry;

struct SettleOptions {
  SourceOptions window;
  OutputOptions output;
  std::string client;
};

// The live process of the client. Throws Failure when there is none.
pid_t process_of(const SettleOptions &options) {
  const std::unique_ptr<Window> window = read_database(options.window);
  const auto client = std::find_if(window->clients.begin(), window->clients.end(),
                                   [&](const ClientEntry &each) { return each.name == options.client; });
  if (client == window->clients.end()) {
    throw Failure(fmt::format("there is no client '{}'; `encapctl clients` lists them", printable(options.client)));
  }
  if (client->closed || client->liveness != vrellis::Liveness::kAlive) {
    throw Failure(fmt::format("client '{}' has no process that is alive", printable(options.client)));
  }
  return static_cast<pid_t>(client->pid);
}

// Whether the process catches, reads or ignores SIGUSR1. Another one would end by it.
bool expects_signal(pid_t pid) {
  std::ifstream lines(fmt::format("/proc/{}/status", pid));
  constexpr std::uint64_t kBit = std::uint64_t{1} << (SIGUSR1 - 1);
  for (std::string name, value; lines >> name >> value;
       lines.ignore(std::numeric_limits<std::streamsize>::max(), '\n')) {
    const bool is_mask = name == "SigBlk:" || name == "SigIgn:" || name == "SigCgt:";
    if (is_mask && (std::strtoull(value.c_str(), nullptr, 16) & kBit) != 0) {
      return true;
    }
  }
  return false;
}

int run(SettleOptions &options) {
  const pid_t pid = process_of(options);
  if (!expects_signal(pid)) {
    throw Failure(fmt::format("process {} of client '{}' does not expect SIGUSR1 and would end by it: it is no encapd",
                              pid, printable(options.client)));
  }
  // The descriptor keeps the process from being taken for another one that gets its id: it is the client's when the
  // client still has it after the descriptor was opened.
  const int fd = pidfd_open(pid, 0);
  const bool sent = fd >= 0 && process_of(options) == pid && pidfd_send_signal(fd, SIGUSR1, nullptr, 0) == 0;
  const int error = errno;
  if (fd >= 0) {
    close(fd);
  }
  if (!sent) {
    throw Failure(fmt::format("process {} of client '{}' cannot be told: {}", pid, printable(options.client),
                              std::strerror(error)));
  }
  const Output out(options.output);
  if (out.json()) {
    out.object("settle", {{"client", options.client}, {"pid", pid}});
  } else {
    out.line("process {} of client '{}' was told that its router is complete", pid, options.client);
  }
  return kDone;
}

}  // namespace

void add_settle(CLI::App &app, int &status) {
  auto [verb, options] = add_verb<SettleOptions>(
      app, status, run, "settle", "Tell encapd that its router is complete: what is stale is given back",
      "  encapctl settle fpm\n"
      "Sends SIGUSR1 to the process of that client. A process that does not expect the signal is left alone.");
  verb.add_option("client", options.client, "The client's name")->type_name("NAME")->required();
}

}  // namespace encapctl
