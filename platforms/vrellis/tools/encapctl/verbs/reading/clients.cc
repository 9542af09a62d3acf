// encapctl clients: who uses the database under which name, and what each holds.
#include <fmt/format.h>

#include "holders.h"
#include "verbs.h"
#include "window/daemon.h"

namespace encapctl {
namespace {

using encap_inspect::ClientEntry;

struct ClientsOptions {
  SourceOptions window;
  OutputOptions output;
};

std::string_view state_of(const ClientEntry &client) {
  if (client.closed) {
    return "closed";
  }
  switch (client.liveness) {
    case vrellis::Liveness::kAlive:
      return "alive";
    case vrellis::Liveness::kDead:
      return "dead";
    default:
      return "unknown";
  }
}

Json client_json(const ClientEntry &client) {
  Json fields = {{"name", client.name},
                 {"pid", client.pid},
                 {"state", state_of(client)},
                 {"since_ns", client.since},
                 {"since_death", client.since_death},
                 {"nhs", client.nhs},
                 {"held", client.held},
                 {"stale", client.stale}};
  for (std::size_t call = 0; call < client.calls.size(); ++call) {
    fields["calls"][encap_inspect::kClientCalls[call]] = client.calls[call];
  }
  return fields;
}

void print_table(const Output &out, const std::vector<ClientEntry> &clients) {
  Table table{{"client", Align::left},
              {"process"},
              {"state", Align::left},
              {"since", Align::left},
              {"NHs"},
              {"held"},
              {"stale"},
              {"entered"},
              {"renewed"},
              {"released"},
              {"refreshes"},
              {"refused"}};
  for (const ClientEntry &client : clients) {
    std::vector<std::string> cells = {client.name,
                                      client.pid != 0 ? std::to_string(client.pid) : "-",
                                      std::string(state_of(client)),
                                      time_text(static_cast<std::int64_t>(client.since)),
                                      std::to_string(client.nhs),
                                      std::to_string(client.held),
                                      std::to_string(client.stale)};
    for (const std::uint64_t calls : client.calls) {
      cells.push_back(std::to_string(calls));
    }
    table.row(std::move(cells), state_of(client) == "dead" ? Style::bad : Style::plain);
  }
  table.print(out);
}

std::uint64_t number(const Json &status, const char *key) {
  const Json value = status.value(key, Json());
  return value.is_number_unsigned() ? value.get<std::uint64_t>() : 0;
}

// "fpm: a router is connected, settled; 5000 routes, 10002 messages, lag 310 us; refused: deep 3".
void print_daemon(const Output &out, const std::string &client, const Json &status) {
  std::string refused;
  const Json refusals = status.value("refusals", Json::object());
  for (const auto &[reason, count] : refusals.items()) {
    if (count.is_number_unsigned() && count != 0 && reason != "plain") {
      refused +=
          fmt::format("{}{} {}", refused.empty() ? "; refused: " : ", ", printable(reason), count.get<std::uint64_t>());
    }
  }
  out.line("{}: {}, {}; {} routes, {} messages, lag {}{}", client,
           status.value("connected", Json()) == true ? "a router is connected" : "no router is connected",
           status.value("settled", Json()) == true ? "settled" : "not settled", number(status, "routes"),
           number(status, "messages"), duration_text(number(status, "lag_us") * 1000), refused);
}

int run(ClientsOptions &options) {
  const std::unique_ptr<Window> window = read_database(options.window);
  const std::vector<ClientEntry> &clients = window->clients;
  const Output out(options.output);
  if (out.json()) {
    for (const ClientEntry &client : clients) {
      Json fields = client_json(client);
      fields["daemon"] = daemon_status(options.window, client);
      out.object("client", fields);
    }
    out.object("clients",
               {{"path", window->view.path()}, {"stillness", stillness_name(*window)}, {"shown", clients.size()}});
  } else if (clients.empty()) {
    out.line("no client holds anything");
  } else {
    print_table(out, clients);
    for (const ClientEntry &client : clients) {
      if (const Json status = daemon_status(options.window, client); !status.is_null()) {
        print_daemon(out, client.name, status);
      }
    }
  }
  return kDone;
}

}  // namespace

void add_clients(CLI::App &app, int &status) {
  add_verb<ClientsOptions>(app, status, run, "clients",
                           "The clients of the database, their processes, and what each holds",
                           "  encapctl clients\n"
                           "  encapctl clients --json | jq 'select(.state == \"dead\").name'\n"
                           "`since` is when a live client opened its name, when a closed one closed it, and when the "
                           "death of a dead one was\n"
                           "first noticed by another client.");
}

}  // namespace encapctl
