// encapctl load: enters the encapsulations of an `ip route` listing, creating the database when there is none.
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sstream>

#include "database_options.h"
#include "encap_db_owner.h"
#include "load/as_client.h"
#include "load/interfaces.h"
#include "load/loader.h"
#include "output/progress.h"
#include "verbs.h"

namespace encapctl {
namespace {

constexpr std::size_t kMaxListing = std::size_t{1} << 28;
constexpr std::size_t kFaultsTold = 20;

struct LoadOptions {
  OwnedWindowOptions window;
  OutputOptions output;
  std::string routes;
  std::vector<std::string> interfaces;
  std::string client;
  encap_inspect::Ranges ranges;
};

// All of a listing, within bounds. Throws Failure for what is none: a directory, a device, or something without an end.
std::string read_listing(const std::string &path) {
  const bool standard_input = path == "-";
  struct stat status {};
  if ((standard_input ? fstat(STDIN_FILENO, &status) : stat(path.c_str(), &status)) != 0) {
    throw Failure(fmt::format("cannot read '{}': {}", path, std::strerror(errno)));
  }
  if (!standard_input && !S_ISREG(status.st_mode) && !S_ISFIFO(status.st_mode)) {
    throw Failure(fmt::format("'{}' is neither a file nor a pipe, so it is no listing", path));
  }
  const std::string name = standard_input ? "/dev/fd/0" : path;
  const std::unique_ptr<std::FILE, int (*)(std::FILE *)> file(std::fopen(name.c_str(), "re"), &std::fclose);
  std::string text;
  std::vector<char> part(std::size_t{1} << 16);
  for (std::size_t got = 1; file != nullptr && got != 0 && text.size() <= kMaxListing;) {
    got = std::fread(part.data(), 1, part.size(), file.get());
    text.append(part.data(), got);
  }
  if (file == nullptr || std::ferror(file.get()) != 0) {
    throw Failure(fmt::format("cannot read '{}': {}", path, std::strerror(errno)));
  }
  if (text.size() > kMaxListing) {
    throw Failure(fmt::format("'{}' is larger than {}, so it is no listing", path, bytes_text(kMaxListing)));
  }
  return text;
}

route_file::RouteFile read_routes(const std::string &path) {
  std::istringstream in(read_listing(path));
  route_file::RouteFile routes = route_file::read_routes(in);
  const std::size_t told = std::min(routes.faults.size(), kFaultsTold);
  for (std::size_t i = 0; i < told; ++i) {
    warn(fmt::format("{}: {}", path, route_file::sentence(routes.faults[i])));
  }
  if (routes.refused > told) {
    warn(fmt::format("{}: {} more lines were refused", path, routes.refused - told));
  }
  return routes;
}

// Gives each hop the number that its interface has in every listing.
void number_interfaces(const LoadOptions &options, Interfaces &interfaces, route_file::RouteFile &routes) {
  for (const std::string &pair : options.interfaces) {
    interfaces.set(pair);
  }
  for (route_file::Hop &hop : routes.hops) {
    hop.ifh = interfaces.number_of(hop.dev);
  }
}

void print(const LoadOptions &options, bool created, const route_file::RouteFile &routes, const Loaded &loaded) {
  const Output out(options.output);
  Json refusals = Json::array();
  for (const auto &[reason, count] : loaded.refusals) {
    refusals.push_back({{"reason", reason}, {"count", count}});
  }
  if (out.json()) {
    out.object("load", {{"path", options.window.path()},
                        {"created", created},
                        {"labelled_routes", routes.labelled_routes},
                        {"plain_routes", routes.plain_routes},
                        {"refused_lines", routes.refused},
                        {"next_hops", loaded.next_hops},
                        {"new_nhs", loaded.new_nhs},
                        {"shared", loaded.shared},
                        {"new_tunnels", loaded.new_tunnels},
                        {"renewed", loaded.renewed},
                        {"given_back", loaded.given_back},
                        {"refused", loaded.refused},
                        {"refusals", refusals}});
    return;
  }
  out.fact("window", fmt::format("{}, {}", options.window.path(), created ? "created" : "was there"));
  out.fact("routes", fmt::format("{} labelled, {} plain ones skipped, {} lines refused", routes.labelled_routes,
                                 routes.plain_routes, routes.refused));
  out.fact("next hops", fmt::format("{} entered: {} on new NHs, {} share an NH; {} refused",
                                    loaded.next_hops - loaded.refused, loaded.new_nhs, loaded.shared, loaded.refused));
  for (const auto &[reason, count] : loaded.refusals) {
    out.fact("", out.styled(Style::bad, fmt::format("{} refused: {}", count, reason)));
  }
  out.fact("tunnels", fmt::format("{} new", loaded.new_tunnels));
  if (!options.client.empty()) {
    out.fact("client", fmt::format("{}: {} renewed, {} given back", options.client, loaded.renewed, loaded.given_back));
  }
}

// The numbers are stored once the database is open: a refused one leaves no file of numbers behind.
Loaded enter_all(const LoadOptions &options, Interfaces &interfaces, const std::vector<route_file::Hop> &hops,
                 int *created) {
  const encap_db_config_t config = encap_inspect::config_of(
      options.window.directory.c_str(), options.window.name.c_str(), options.ranges, options.window.owner);
  shmwin_error_t error{};
  if (encap_db_open(&config, created, &error) != 0) {
    throw Failure(error.text);
  }
  interfaces.save();
  Loader loader;
  Progress progress("entering routes", hops.size());
  for (const route_file::Hop &hop : hops) {
    loader.enter(hop);
    progress.advance();
  }
  encap_db_close();
  return loader.loaded();
}

int run(LoadOptions &options) {
  route_file::RouteFile routes = read_routes(options.routes);
  Interfaces interfaces(options.window.path(), options.window.owner);
  number_interfaces(options, interfaces, routes);
  int created = 0;
  Loaded loaded;
  if (options.client.empty()) {
    loaded = enter_all(options, interfaces, routes.hops, &created);
  } else {
    created = access(options.window.path().c_str(), F_OK) != 0 ? 1 : 0;
    const AsClient client(options.window, options.ranges, options.client);
    interfaces.save();
    loaded = load_as(client.get(), routes.hops);
  }
  print(options, created != 0, routes, loaded);
  return loaded.refused == 0 && routes.refused == 0 ? kDone : kFindings;
}

}  // namespace

void add_load(CLI::App &app, int &status) {
  auto [verb, options] =
      add_verb<LoadOptions>(app, status, run, "load", "Enter the encapsulations of a listing that `ip` prints",
                            "  encapctl load routes.txt --dir /tmp --name lab\n"
                            "  (ip nexthop; ip route; ip -6 route; ip -f mpls route) | encapctl load -\n"
                            "  ip -j route | encapctl load - --interface eth1=0x2000001\n"
                            "Each labelled next hop adds one reference. Ranges are those of the database that exists; "
                            "the defaults are for a\n"
                            "new one. The numbers of the interfaces are kept in NAME.interfaces beside the window.\n"
                            "Exit status 1: some lines or next hops were refused.");
  verb.add_option("file", options.routes, "The listing, also as JSON; - for stdin")->type_name("FILE")->required();
  verb.add_option("--interface", options.interfaces, "The number of an interface (default: the first free one)")
      ->type_name("NAME=NUMBER")
      ->expected(1);
  verb.add_option(
          "--client", options.client,
          "Enter it as this client: what it held before is renewed, what the listing does not name is given back")
      ->type_name("NAME");
  vrellis_tools::add_range_options(verb, options.ranges);
}

}  // namespace encapctl
