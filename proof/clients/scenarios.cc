#include "scenarios.h"

#include <cstdio>

#include "support/window.h"

namespace client_proof {

encap_db_config_t current_config;

namespace {

using Gone = void (*)(const encap_left_t *, void *);

std::uint32_t enter(encap_client_t *client, const egress_encap_key_t &key) {
  encap_entry_t entry{};
  const int status = encap_client_enter(client, key, nullptr, &entry);
  if (status != 0) {
    crash::give_up("not as given: an entry returned %d", status);
  }
  return entry.nh;
}

void enter_many(encap_client_t *client, std::uint32_t count) {
  for (std::uint32_t i = 0; i < count; ++i) {
    enter(client, key(100 + i, 100));
  }
}

// A call that enters a key, or releases the NH of index kNhStart + `number`.
auto entering(const egress_encap_key_t &what) {
  return [what](Cast &cast, Gone, void *) { return encap_client_enter(cast.a, what, nullptr, nullptr); };
}
auto releasing(std::uint32_t number) {
  return [number](Cast &cast, Gone, void *) { return encap_client_release(cast.a, crash::kNhStart + number, nullptr); };
}

void close_a(Cast &cast) {
  encap_client_close(cast.a);
  cast.a = nullptr;
}

int open_a(Cast &cast, Gone, void *) {
  return open_as(current_config, "a", &cast.a);
}

std::vector<Scenario> entries() {
  return {
      {"enter: another client has the NH", [](Cast &cast) { enter(cast.b, key(16, 100)); }, entering(key(16, 100))},
      {"enter: held already", [](Cast &cast) { enter(cast.a, key(16, 100)); }, entering(key(16, 100))},
      {"enter: new NH on a tunnel", [](Cast &cast) { enter_many(cast.b, 12); }, entering(key(16, 100))},
      {"enter: new tunnel",
       [](Cast &cast) {
         for (std::uint32_t i = 0; i < 12; ++i) {
           enter(cast.b, key(16, 100 + i));
         }
       },
       entering(key(16, 99))},
      {"enter: first of all", [](Cast &) {}, entering(key(16, 100))},
      {"enter: first on the null tunnel", [](Cast &cast) { enter(cast.b, key(16, 100)); }, entering(key(16))},
      {"enter: interface new on the null tunnel", [](Cast &cast) { enter(cast.b, key(16, 0, 1)); }, entering(key(16))},
      {"enter: index that waited longest",
       [](Cast &cast) {
         enter_many(cast.b, crash::kNhSize);
         encap_client_release(cast.b, crash::kNhStart + 3, nullptr);
         encap_client_release(cast.b, crash::kNhStart + 5, nullptr);
       },
       entering(key(16, 100))},
      {"enter: last index that waited",
       [](Cast &cast) {
         enter_many(cast.b, crash::kNhSize);
         encap_client_release(cast.b, crash::kNhStart + 3, nullptr);
       },
       entering(key(16, 100))},
      {"enter: range full", [](Cast &cast) { enter_many(cast.b, crash::kNhSize); }, entering(key(16, 100)), 28},
      {"enter: the ledger grows", [](Cast &cast) { enter_many(cast.a, 112); }, entering(key(16, 100))},
      {"enter: memory full",
       [](Cast &cast) {
         for (std::uint32_t i = 0; encap_client_enter(cast.b, key(100, 0, i), nullptr, nullptr) == 0; ++i) {
         }
       },
       entering(key(16, 100)), 12, 14},
      {"enter: stale reference renewed",
       [](Cast &cast) {
         enter(cast.a, key(16, 100));
         encap_client_refresh_begin(cast.a);
       },
       entering(key(16, 100))},
  };
}

std::vector<Scenario> releases() {
  return {
      {"release: one of two references",
       [](Cast &cast) {
         enter(cast.a, key(16, 100));
         enter(cast.a, key(16, 100));
       },
       releasing(0)},
      {"release: NH stays with another client",
       [](Cast &cast) {
         enter(cast.a, key(16, 100));
         enter(cast.b, key(16, 100));
       },
       releasing(0)},
      {"release: last of the NH",
       [](Cast &cast) {
         enter(cast.a, key(106, 100));
         enter_many(cast.b, 12);
         encap_client_release(cast.b, crash::kNhStart, nullptr);
       },
       releasing(0)},
      {"release: last of the tunnel",
       [](Cast &cast) {
         for (std::uint32_t i = 0; i < 12; ++i) {
           enter(cast.a, key(16, 100 + i));
         }
       },
       releasing(5)},
      {"release: last of all", [](Cast &cast) { enter(cast.a, key(16, 100)); }, releasing(0)},
      {"release: null tunnel", [](Cast &cast) { enter(cast.a, key(16)); }, releasing(0)},
      {"release: the ledger shrinks",
       [](Cast &cast) {
         enter_many(cast.a, 113);
         for (std::uint32_t i = 0; i < 14; ++i) {
           encap_client_release(cast.a, crash::kNhStart + i, nullptr);
         }
       },
       releasing(20)},
      {"release: not held", [](Cast &cast) { enter(cast.b, key(16, 100)); }, releasing(0), 2},
  };
}

void hold_some(Cast &cast) {
  enter(cast.a, key(16, 100));
  enter(cast.a, key(16, 100));
  enter(cast.a, key(17, 101));
  enter(cast.a, key(18));
  enter(cast.b, key(18));
}

std::vector<Scenario> sweeps_and_names() {
  const auto refresh_begin = [](Cast &cast, Gone, void *) { return encap_client_refresh_begin(cast.a); };
  const auto refresh_end = [](Cast &cast, Gone gone, void *arg) { return encap_client_refresh_end(cast.a, gone, arg); };
  const auto leave = [](Cast &cast, Gone gone, void *arg) { return encap_client_leave(cast.a, gone, arg); };
  const auto reclaim = [](Cast &cast, Gone gone, void *arg) { return encap_client_reclaim(cast.b, "a", gone, arg); };
  const auto close = [](Cast &cast, Gone, void *) { return encap_client_close(cast.a); };
  const auto close_holding = [](Cast &cast) {
    hold_some(cast);
    close_a(cast);
  };
  return {
      {"refresh: begins", hold_some, refresh_begin},
      {"refresh: stale references swept",
       [](Cast &cast) {
         hold_some(cast);
         encap_client_refresh_begin(cast.a);
         enter(cast.a, key(16, 100));
       },
       refresh_end},
      {"leave", hold_some, leave},
      {"reclaim", close_holding, reclaim, 0, 48, true, false},
      {"close: holding nothing", [](Cast &) {}, close},
      {"close: holding", hold_some, close},
      {"open: a new name", close_a, open_a},
      {"open: a name that holds", close_holding, open_a},
      {"open: the first client of the database", [](Cast &) {}, open_a, 0, 48, false},
  };
}

}  // namespace

int open_as(const encap_db_config_t &config, const char *name, encap_client_t **client) {
  const encap_client_config_t wanted{config, name};
  shmwin_error_t error{};
  const int status = encap_client_open(&wanted, client, &error);
  if (status != 0) {
    std::fprintf(stderr, "client '%s' cannot be opened: %s\n", name, error.text);
  }
  return status;
}

const std::vector<Scenario> &scenarios() {
  static const std::vector<Scenario> all = [] {
    std::vector<Scenario> made = entries();
    for (const auto &more : {releases(), sweeps_and_names()}) {
      made.insert(made.end(), more.begin(), more.end());
    }
    return made;
  }();
  return all;
}

}  // namespace client_proof
