// encapctl metrics: the database, its clients and the waits for its lock, as OpenMetrics text.
#include <fmt/format.h>

#include "trace/window_traces.h"
#include "verbs.h"
#include "window/daemon.h"

namespace encapctl {
namespace {

using encap_inspect::ClientEntry;
using encap_inspect::Database;

struct MetricsOptions {
  SourceOptions window;
  TraceDirectory traces;
  OutputOptions output;
};

// One family after the other, each with its type and help, as the format wants them.
class Metrics {
 public:
  explicit Metrics(const Output &out) : out_(out) {}

  void family(std::string_view name, std::string_view type, std::string_view help) const {
    out_.line("# TYPE {} {}", name, type);
    out_.line("# HELP {} {}", name, help);
  }
  template <typename Value>
  void sample(std::string_view name, const std::string &labels, Value value) const {
    out_.line("{}{} {}", name, labels.empty() ? "" : "{" + labels + "}", value);
  }
  template <typename Value>
  void gauge(std::string_view name, std::string_view help, Value value) const {
    family(name, "gauge", help);
    sample(name, "", value);
  }
  void end() const { out_.line("# EOF"); }

 private:
  const Output &out_;
};

void print_database(const Metrics &metrics, const Database &db) {
  std::uint64_t references = 0;
  for (std::uint32_t index = db.nh_start; index < db.nh_end; ++index) {
    const egr_nh_info_t &slot = *db.nh_slot(index);
    references += slot.valid != 0 ? slot.ref_count : 0;
  }
  metrics.gauge("encap_nhs", "NHs in the trees.", db.nhs.size());
  metrics.gauge("encap_nh_indexes", "NH indexes of the range.", db.nh_end - db.nh_start);
  metrics.gauge("encap_tunnels", "Tunnels in the tree, null tunnels included.", db.tunnels.size());
  metrics.gauge("encap_tunnel_indexes", "Tunnel indexes of the range.", db.tun_end - db.tun_start);
  metrics.gauge("encap_references", "References on all NHs.", references);
  metrics.gauge("encap_pages", "Pages of the window.", db.heap.pages);
  metrics.gauge("encap_free_pages", "Pages that hold nothing.", db.heap.free_pages);
}

void print_lock(const Metrics &metrics, const Window &window, const TraceDirectory &traces) {
  const Attached attached = attached_to(window);
  const std::vector<LockWait> waits = lock_waits(window, traces_of(attached, traces));
  std::uint64_t live = 0;
  for (const auto &process : window.db.processes) {
    live += process.liveness == encap_inspect::Liveness::kAlive ? 1 : 0;
  }
  metrics.gauge("encap_processes", "Live processes that have the window attached.", live);
  metrics.gauge("encap_lock_held", "1: a thread holds the lock.", window.db.lock.held ? 1 : 0);
  metrics.gauge("encap_lock_waiting", "Threads that wait for the lock.", waits.size());
  metrics.gauge("encap_lock_longest_wait_seconds", "The longest of these waits.",
                waits.empty() ? 0.0 : static_cast<double>(waits.front().waited_ns) / 1e9);
}

// What stands in a label holds no character that would have to be escaped, unless the window or the file is damaged.
std::string unquoted(std::string_view text) {
  std::string plain = printable(text);
  std::erase_if(plain, [](char each) { return each == '"' || each == '\\'; });
  return plain;
}

std::string label_of(const ClientEntry &client) {
  return fmt::format("client=\"{}\"", unquoted(client.name));
}

void print_clients(const Metrics &metrics, const std::vector<ClientEntry> &clients) {
  struct Gauge {
    std::string_view name, help;
    std::uint64_t (*value)(const ClientEntry &);
  };
  static constexpr Gauge kGauges[] = {
      {"encap_client_up", "1: the client's process is alive.",
       [](const ClientEntry &client) {
         return std::uint64_t{!client.closed && client.liveness == vrellis::Liveness::kAlive};
       }},
      {"encap_client_nhs", "NHs on which the client holds references.",
       [](const ClientEntry &client) { return client.nhs; }},
      {"encap_client_references", "References that the client holds.",
       [](const ClientEntry &client) { return client.held; }},
      {"encap_client_stale_references", "Of these: not renewed since it began its refresh.",
       [](const ClientEntry &client) { return client.stale; }},
  };
  for (const Gauge &gauge : kGauges) {
    metrics.family(gauge.name, "gauge", gauge.help);
    for (const ClientEntry &client : clients) {
      metrics.sample(gauge.name, label_of(client), gauge.value(client));
    }
  }
  metrics.family("encap_client_calls", "counter",
                 "References entered, renewed and released; refreshes; refused calls.");
  for (const ClientEntry &client : clients) {
    for (std::size_t call = 0; call < client.calls.size(); ++call) {
      metrics.sample("encap_client_calls_total",
                     fmt::format("{},call=\"{}\"", label_of(client), encap_inspect::kClientCalls[call]),
                     client.calls[call]);
    }
  }
}

// What the status of an encapd holds, as docs/encapd.md lists it.
struct DaemonMetric {
  std::string_view key, type, help;
};
constexpr DaemonMetric kDaemonMetrics[] = {
    {"connected", "gauge", "1: a router is connected."},
    {"settled", "gauge", "1: nothing is stale that is going to be released."},
    {"routes", "gauge", "Routes with labels or with a nexthop object."},
    {"nexthop_objects", "gauge", "Nexthop objects of the router."},
    {"encapsulations", "gauge", "Encapsulations that routes or objects name."},
    {"references", "gauge", "References held for the present routes."},
    {"waiting", "gauge", "References that are needed and refused by the database so far."},
    {"lag_us", "gauge", "Longest time in the last second from the arrival of bytes until the database had them."},
    {"unread_bytes", "gauge", "Bytes that the system received and encapd has not read."},
    {"connections", "counter", "Connections of routers."},
    {"bytes", "counter", "Bytes received."},
    {"messages", "counter", "Netlink messages received."},
    {"other_messages", "counter", "Messages that tell nothing of routes."},
    {"malformed_messages", "counter", "Messages skipped because a length is wrong."},
    {"swept", "counter", "Stale references that were released."},
};

void print_daemons(const Metrics &metrics, const std::vector<std::pair<std::string, Json>> &daemons) {
  const auto number = [](const Json &value) {
    return value.is_boolean() ? value.get<bool>() : value.is_number_unsigned() ? value.get<std::uint64_t>() : 0;
  };
  for (const DaemonMetric &metric : kDaemonMetrics) {
    const std::string name = fmt::format("encapd_{}", metric.key);
    metrics.family(name, metric.type, metric.help);
    for (const auto &[label, status] : daemons) {
      metrics.sample(name + (metric.type == "counter" ? "_total" : ""), label,
                     number(status.value(metric.key, Json())));
    }
  }
  const auto reasons = [&](std::string_view name, std::string_view type, const char *key, std::string_view help) {
    metrics.family(name, type, help);
    for (const auto &[label, status] : daemons) {
      const Json counts = status.value(key, Json::object());
      for (const auto &[reason, count] : counts.items()) {
        if (reason == "plain") {
          continue;  // a path without labels is not refused
        }
        metrics.sample(fmt::format("{}{}", name, type == "counter" ? "_total" : ""),
                       fmt::format("{},reason=\"{}\"", label, unquoted(reason)), number(count));
      }
    }
  };
  reasons("encapd_refusals", "counter", "refusals", "References and paths refused since encapd started, by reason.");
  reasons("encapd_refused_paths", "gauge", "refused_now", "Paths of the present routes that are refused, by reason.");
}

int run(MetricsOptions &options) {
  if (options.output.json) {
    throw Failure("metrics are OpenMetrics text and have no JSON; `encapctl status --json` and `clients --json` have");
  }
  const std::unique_ptr<Window> window = read_database(options.window);
  const Output out(options.output);
  const Metrics metrics(out);
  print_database(metrics, window->db);
  print_lock(metrics, *window, options.traces);
  print_clients(metrics, window->clients);
  std::vector<std::pair<std::string, Json>> daemons;
  for (const ClientEntry &client : window->clients) {
    if (Json status = daemon_status(options.window, client); !status.is_null()) {
      daemons.emplace_back(label_of(client), std::move(status));
    }
  }
  if (!daemons.empty()) {
    print_daemons(metrics, daemons);
  }
  metrics.end();
  return kDone;
}

}  // namespace

void add_metrics(CLI::App &app, int &status) {
  add_verb<MetricsOptions>(app, status, run, "metrics",
                           "The database, its clients and the waits for its lock, as OpenMetrics text",
                           "  encapctl metrics > /var/lib/prometheus/node-exporter/encap.prom");
}

}  // namespace encapctl
