// The clients of a database as a copy of its window shows them, and who holds an NH.
#ifndef ENCAP_INSPECT_HOLDERS_H
#define ENCAP_INSPECT_HOLDERS_H

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "encap_client.h"
#include "process/process.h"
#include "reading/view.h"

namespace encap_inspect {

inline constexpr std::array<const char *, 5> kClientCalls = {"entered", "renewed", "released", "refreshes", "refused"};

struct ClientEntry {
  std::string name;
  std::uint32_t pid = 0;  // of the process that has the name; 0: closed
  bool closed = false;
  vrellis::Liveness liveness = vrellis::Liveness::kUnknown;  // of that process; unknown in a snapshot
  std::uint64_t since = 0;   // nanoseconds since 1970: opened; closed; of a dead one: when its death was first noticed
  bool since_death = false;  // `since` is of the death
  std::uint64_t nhs = 0, held = 0, stale = 0;
  std::array<std::uint64_t, kClientCalls.size()> calls{};
  Address ledger = 0;
};

// The names of the database, in the order in which it keeps them; empty when no client ever opened it, or when the
// records are damaged.
std::vector<ClientEntry> clients_of(const View &view);

struct Holder {
  std::string name;
  std::uint32_t held, stale;
};

// Those of `clients` that hold references on an NH.
std::vector<Holder> holders_of(const View &view, const std::vector<ClientEntry> &clients, std::uint32_t nh);

}  // namespace encap_inspect

#endif
