// encapctl reclaim and unload: give back what clients hold that have no process.
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>

#include "holders.h"
#include "load/as_client.h"
#include "verbs.h"

namespace encapctl {
namespace {

struct ReclaimOptions {
  OwnedWindowOptions window;
  OutputOptions output;
  std::string name;
  bool dead = false;
  double older_than = 0;  // seconds
};

struct UnloadOptions {
  OwnedWindowOptions window;
  OutputOptions output;
  std::string client;
};

// Requires that the window is there: a verb that gives back must not make a database.
std::unique_ptr<Window> require_database(const WindowOptions &window) {
  SourceOptions source;
  static_cast<WindowOptions &>(source) = window;
  return read_database(source);
}

std::vector<std::string> names_of_dead(const AsClient &client, double older_than) {
  encap_client_info_t info[ENCAP_CLIENT_MAX];
  std::uint32_t count = 0;
  require_ok(encap_client_list(client.get(), info, ENCAP_CLIENT_MAX, &count), "the clients cannot be listed");
  using Nanoseconds = std::chrono::duration<double, std::nano>;
  const double now = Nanoseconds(std::chrono::system_clock::now().time_since_epoch()).count();
  std::vector<std::string> names;
  for (std::uint32_t i = 0; i < std::min<std::uint32_t>(count, ENCAP_CLIENT_MAX); ++i) {
    if (info[i].state == ENCAP_CLIENT_DEAD && now - static_cast<double>(info[i].since) >= older_than * 1e9) {
      names.emplace_back(info[i].name);
    }
  }
  return names;
}

Swept reclaim(const AsClient &client, const std::string &name) {
  Swept swept;
  const int status = encap_client_reclaim(client.get(), name.c_str(), Swept::add, &swept);
  if (status == ENOENT) {
    throw Failure(fmt::format("there is no client '{}'; `encapctl clients` lists them", printable(name)));
  }
  if (status == EBUSY) {
    throw Failure(fmt::format("the process of client '{}' lives, or cannot be looked at from here", printable(name)));
  }
  require_ok(status, fmt::format("client '{}' cannot be reclaimed", printable(name)));
  return swept;
}

void print(const Output &out, std::string_view kind, const std::string &client, const Swept &swept) {
  if (out.json()) {
    out.object(kind, {{"client", client},
                      {"references", swept.references},
                      {"nhs_left", swept.nhs},
                      {"tunnels_left", swept.tunnels}});
  } else {
    out.line("{}: {} given back; {} and {} left the database", client, counted(swept.references, "reference"),
             counted(swept.nhs, "NH"), counted(swept.tunnels, "tunnel"));
  }
}

int run_reclaim(ReclaimOptions &options) {
  if (options.name.empty() != options.dead) {
    throw Failure("name the client to reclaim, or say --dead for all whose process died");
  }
  require_database(options.window);
  AsClient client(options.window, {}, fmt::format("encapctl-{}", getpid()));
  const std::vector<std::string> names =
      options.dead ? names_of_dead(client, options.older_than) : std::vector<std::string>{options.name};
  const Output out(options.output);
  try {
    for (const std::string &name : names) {
      print(out, "reclaim", name, reclaim(client, name));
    }
  } catch (...) {
    client.leave();
    throw;
  }
  client.leave();
  if (names.empty()) {
    warn("no client died that long ago");
  }
  return names.empty() ? kFindings : kDone;
}

int run_unload(UnloadOptions &options) {
  const std::unique_ptr<Window> window = require_database(options.window);
  const auto is_named = [&](const auto &client) { return client.name == options.client; };
  if (std::none_of(window->clients.begin(), window->clients.end(), is_named)) {
    warn(fmt::format("there is no client '{}'; `encapctl clients` lists them", printable(options.client)));
    return kFindings;
  }
  print(Output(options.output), "unload", options.client, AsClient(options.window, {}, options.client).leave());
  return kDone;
}

}  // namespace

void add_reclaim(CLI::App &app, int &status) {
  auto [verb, options] = add_verb<ReclaimOptions>(
      app, status, run_reclaim, "reclaim", "Give back what a client holds whose process died or closed",
      "  encapctl reclaim bgpd\n"
      "  encapctl reclaim --dead --older-than 5m\n"
      "The time counts from the moment at which another client first noticed the death.\n"
      "Exit status 1: no client died that long ago; 2: there is no such client, or its process lives.");
  verb.add_option("client", options.name, "The client's name")->type_name("NAME");
  verb.add_flag("--dead", options.dead, "All clients whose process died");
  add_time_option(verb, "--older-than", options.older_than, "With --dead: of these, who died that long ago")
      ->needs("--dead");
}

void add_unload(CLI::App &app, int &status) {
  auto [verb, options] =
      add_verb<UnloadOptions>(app, status, run_unload, "unload", "Take back what `load --client` entered",
                              "  encapctl unload --client lab\n"
                              "Exit status 1: there is no such client; 2: a live process has the name.");
  verb.add_option("--client", options.client, "The client's name")->type_name("NAME")->required();
}

}  // namespace encapctl
