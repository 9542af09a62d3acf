// encapctl load: enters the encapsulations of an `ip route` listing, creating the database when there is none.
#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <fstream>

#include "encap_db_owner.h"
#include "output/progress.h"
#include "route_file.h"
#include "verbs/verbs.h"
#include "window/window.h"

namespace encapctl {
namespace {

struct LoadOptions {
  WindowOptions window;
  OutputOptions output;
  std::string routes;
  std::optional<std::uint32_t> shm_id, nh_start, nh_size, tun_start, tun_size;
};

struct Loaded {
  std::uint64_t next_hops = 0;
  std::uint64_t new_nhs = 0;
  std::uint64_t shared = 0;
  std::uint64_t new_tunnels = 0;
  std::uint64_t refused = 0;
};

// The database lock, held over several operations: nobody enters the same key, or takes the index, in between.
class LockHold {
 public:
  LockHold() : status_(vrl_egress_encap_db_lock(&egress_encap_db->lock.mutex)) {
    if (status_ != 0) {
      throw Failure(fmt::format("the database's lock cannot be taken: {}", std::strerror(status_)));
    }
  }
  ~LockHold() { pthread_mutex_unlock(&egress_encap_db->lock.mutex); }
  LockHold(const LockHold &) = delete;
  LockHold &operator=(const LockHold &) = delete;

 private:
  int status_;
};

// Gives out free indexes, the lowest first, each search going on where the last one ended. Requires the lock.
template <typename Slot>
class FreeIndexes {
 public:
  FreeIndexes(const Slot *slots, std::uint32_t start, std::uint32_t end, std::uint32_t first)
      : slots_(slots), start_(start), end_(end), next_(first) {}

  std::optional<std::uint32_t> take() {
    for (; next_ < end_; ++next_) {
      if (slots_[next_ - start_].valid == 0) {
        return next_++;
      }
    }
    return std::nullopt;
  }

 private:
  const Slot *slots_;
  std::uint32_t start_;
  std::uint32_t end_;
  std::uint32_t next_;
};

class Loader {
 public:
  void enter(const route_file::Hop &hop) {
    const LockHold hold;
    ++loaded_.next_hops;
    const egress_encap_key_t key = route_file::key_of(hop);
    egress_encap_info_t info{};
    const int found = vrl_find_and_share_egress_encap(&info, key);
    if (found == 0 && info.nh_found != 0) {
      ++loaded_.shared;
    } else if (found != 0 || !insert(hop, key, info)) {
      ++loaded_.refused;
    }
  }

  const Loaded &loaded() const { return loaded_; }

 private:
  bool insert(const route_file::Hop &hop, const egress_encap_key_t &key, egress_encap_info_t &info) {
    const bool new_tunnel = info.tun_found == 0;
    const bool needs_index = new_tunnel && !route_file::on_null_tunnel(hop);
    const std::optional<std::uint32_t> tunnel = needs_index ? tunnels_.take() : std::optional<std::uint32_t>(0);
    // Behind the tunnel's: without an NH index nothing more is entered, so that no tunnel index is lost by it.
    const std::optional<std::uint32_t> nh = tunnel ? nhs_.take() : std::nullopt;
    if (!nh || !tunnel) {
      return false;
    }
    info.egr_nh = *nh;
    info.egr_tun = new_tunnel ? *tunnel : info.egr_tun;
    if (vrl_insert_egress_encap(&info, key) != 0) {
      return false;
    }
    ++loaded_.new_nhs;
    loaded_.new_tunnels += new_tunnel ? 1 : 0;
    return true;
  }

  const egress_encap_db_t &db_ = *egress_encap_db;
  FreeIndexes<egr_nh_info_t> nhs_{db_.nh_info_array, db_.nh_start, db_.nh_end, db_.nh_start};
  // Index 0 is the null tunnel's, also where the range begins with it.
  FreeIndexes<egr_tun_info_t> tunnels_{db_.tun_info_array, db_.tun_start, db_.tun_end,
                                       db_.tun_start == 0 ? 1 : db_.tun_start};
  Loaded loaded_;
};

route_file::RouteFile read_routes(const std::string &path) {
  std::ifstream in(path);
  if (!in) {
    throw Failure(fmt::format("cannot read '{}': {}", path, std::strerror(errno)));
  }
  route_file::RouteFile routes = route_file::read_routes(in);
  for (const route_file::Fault &fault : routes.faults) {
    warn(fmt::format("{}: {}", path, route_file::sentence(fault)));
  }
  return routes;
}

// What is not said is as the database has it that is there, or else a default.
encap_db_config_t config_of(const LoadOptions &options) {
  encap_db_config_t config{};
  config.directory = options.window.directory.c_str();
  config.name = options.window.name.c_str();
  encap_inspect::Database there;
  std::string error;
  const auto view = encap_inspect::View::open_live(config.directory, config.name, &error);
  if (view) {
    there = encap_inspect::decode(*view);
  }
  const bool exists = view && there.usable;
  config.shm_id = options.shm_id.value_or(exists ? there.window.shm_id : 1);
  config.nh_start = options.nh_start.value_or(exists ? there.nh_start : 1000);
  config.nh_size = options.nh_size.value_or(exists ? there.nh_end - there.nh_start : 65536);
  config.tun_start = options.tun_start.value_or(exists ? there.tun_start : 1);
  config.tun_size = options.tun_size.value_or(exists ? there.tun_end - there.tun_start : 16384);
  return config;
}

void print(const LoadOptions &options, bool created, const route_file::RouteFile &routes, const Loaded &loaded) {
  const Output out(options.output);
  if (out.json()) {
    out.object("load", {{"path", options.window.path()},
                        {"created", created},
                        {"labelled_routes", routes.labelled_routes},
                        {"plain_routes", routes.plain_routes},
                        {"refused_lines", routes.faults.size()},
                        {"next_hops", loaded.next_hops},
                        {"new_nhs", loaded.new_nhs},
                        {"shared", loaded.shared},
                        {"new_tunnels", loaded.new_tunnels},
                        {"refused", loaded.refused}});
    return;
  }
  out.fact("window", fmt::format("{}, {}", options.window.path(), created ? "created" : "was there"));
  out.fact("routes", fmt::format("{} labelled, {} plain ones skipped, {} lines refused", routes.labelled_routes,
                                 routes.plain_routes, routes.faults.size()));
  out.fact("next hops", fmt::format("{} entered: {} on new NHs, {} share an NH; {} refused",
                                    loaded.next_hops - loaded.refused, loaded.new_nhs, loaded.shared, loaded.refused));
  out.fact("tunnels", fmt::format("{} new", loaded.new_tunnels));
}

int run(LoadOptions &options) {
  const route_file::RouteFile routes = read_routes(options.routes);
  const encap_db_config_t config = config_of(options);
  shmwin_error_t error{};
  int created = 0;
  if (encap_db_open(&config, &created, &error) != 0) {
    throw Failure(error.text);
  }
  Loaded loaded;
  {
    Loader loader;
    Progress progress("entering routes", routes.hops.size());
    for (const route_file::Hop &hop : routes.hops) {
      loader.enter(hop);
      progress.advance();
    }
    loaded = loader.loaded();
  }
  encap_db_close();
  print(options, created != 0, routes, loaded);
  return loaded.refused == 0 && routes.faults.empty() ? kDone : kFindings;
}

}  // namespace

void add_load(CLI::App &app, int &status) {
  auto [verb, options] = add_verb<LoadOptions>(
      app, status, run, "load", "Enter the encapsulations of an `ip route` listing",
      "  ip route > routes.txt; ip -6 route >> routes.txt\n"
      "  encapctl load routes.txt --dir /tmp --name lab\n"
      "Each labelled next hop adds one reference. Ranges are those of the database that is there;\n"
      "the defaults are for a new one. Exit status 1: some lines or next hops were refused.");
  verb.add_option("file", options.routes, "The listing")->type_name("FILE")->required();
  verb.add_option("--shm-id", options.shm_id, "Id of the window (default: 1)")->type_name("ID");
  verb.add_option("--nh-start", options.nh_start, "First NH index (default: 1000)")->type_name("N");
  verb.add_option("--nh-size", options.nh_size, "NH indexes (default: 65536)")->type_name("N");
  verb.add_option("--tun-start", options.tun_start, "First tunnel index (default: 1)")->type_name("N");
  verb.add_option("--tun-size", options.tun_size, "Tunnel indexes (default: 16384)")->type_name("N");
}

}  // namespace encapctl
