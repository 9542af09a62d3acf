#include "scenarios.h"

#include <cstdio>
#include <numeric>

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

using Keys = std::vector<egress_encap_key_t>;

// So many labels on one tunnel, or one label on so many tunnels.
Keys labels(std::uint32_t count) {
  Keys keys;
  for (std::uint32_t i = 0; i < count; ++i) {
    keys.push_back(key(100 + i, 100));
  }
  return keys;
}
Keys tunnels(std::uint32_t count) {
  Keys keys;
  for (std::uint32_t i = 0; i < count; ++i) {
    keys.push_back(key(16, 100 + i));
  }
  return keys;
}

// The client has entered the keys, and released the NHs of index kNhStart + one of `released`.
std::function<void(Cast &)> holds(encap_client_t *Cast::*who, const Keys &keys,
                                  const std::vector<std::uint32_t> &released = {}) {
  return [=](Cast &cast) {
    for (const egress_encap_key_t &each : keys) {
      enter(cast.*who, each);
    }
    for (const std::uint32_t number : released) {
      encap_client_release(cast.*who, crash::kNhStart + number, nullptr);
    }
  };
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
  const egress_encap_key_t new_key = key(16, 100);
  const auto call = entering(new_key);
  return {
      {"enter: another client has the NH", holds(&Cast::b, {new_key}), call},
      {"enter: held already", holds(&Cast::a, {new_key}), call},
      {"enter: new NH on a tunnel", holds(&Cast::b, labels(12)), call},
      {"enter: new tunnel", holds(&Cast::b, tunnels(12)), entering(key(16, 99))},
      {"enter: first of all", holds(&Cast::b, {}), call},
      {"enter: first on the null tunnel", holds(&Cast::b, {new_key}), entering(key(16))},
      {"enter: interface new on the null tunnel", holds(&Cast::b, {key(16, 0, 1)}), entering(key(16))},
      {"enter: index that waited longest", holds(&Cast::b, labels(crash::kNhSize), {3, 5}), call},
      {"enter: last index that waited", holds(&Cast::b, labels(crash::kNhSize), {3}), call},
      {"enter: range full", holds(&Cast::b, labels(crash::kNhSize)), call, 28},
      {"enter: tunnel range full", holds(&Cast::b, tunnels(crash::kTunSize)), entering(key(16, 99)), 28},
      {"enter: the ledger grows", holds(&Cast::a, labels(112)), call},
      {"enter: memory full",
       [](Cast &cast) {
         for (std::uint32_t i = 0; encap_client_enter(cast.b, key(100, 0, i), nullptr, nullptr) == 0; ++i) {
         }
       },
       call, 12, 14},
      {"enter: stale reference renewed",
       [](Cast &cast) {
         enter(cast.a, key(16, 100));
         encap_client_refresh_begin(cast.a);
       },
       call},
  };
}

std::vector<Scenario> releases() {
  const egress_encap_key_t known = key(16, 100);
  std::vector<std::uint32_t> first(14);
  std::iota(first.begin(), first.end(), 0);
  return {
      {"release: one of two references", holds(&Cast::a, {known, known}), releasing(0)},
      {"release: NH stays with another client",
       [=](Cast &cast) {
         enter(cast.a, known);
         enter(cast.b, known);
       },
       releasing(0)},
      {"release: last of the NH",
       [](Cast &cast) {
         enter(cast.a, key(106, 100));
         holds(&Cast::b, labels(12), {0})(cast);
       },
       releasing(0)},
      {"release: last of the tunnel", holds(&Cast::a, tunnels(12)), releasing(5)},
      {"release: last of all", holds(&Cast::a, {known}), releasing(0)},
      {"release: null tunnel", holds(&Cast::a, {key(16)}), releasing(0)},
      {"release: the ledger shrinks", holds(&Cast::a, labels(113), first), releasing(20)},
      {"release: not held", holds(&Cast::b, {known}), releasing(0), 2},
  };
}

// A process without a client has entered a key, at the last index of the range.
std::vector<Scenario> beside_another() {
  constexpr std::uint32_t kOtherNh = crash::kNhStart + crash::kNhSize - 1;
  const egress_encap_key_t known = key(16, 100);
  const egress_encap_key_t neighbour = key(17, 100);
  std::vector<Scenario> all = {
      {"enter: a process without a client has the NH", holds(&Cast::a, {}), entering(known)},
      {"enter: a process without a client has the tunnel", holds(&Cast::a, {}), entering(neighbour)},
      {"release: a process without a client has the NH", holds(&Cast::a, {known}), releasing(crash::kNhSize - 1)},
      {"release: a process without a client has the tunnel", holds(&Cast::a, {neighbour}), releasing(0)},
  };
  for (Scenario &each : all) {
    each.given = [=, given = each.given](Cast &cast) {
      egress_encap_info_t info{};
      info.egr_nh = kOtherNh;
      info.egr_tun = crash::kTunStart + crash::kTunSize - 1;
      const int status = vrl_insert_egress_encap(&info, known);
      if (status != 0) {
        crash::give_up("not as given: an insert returned %d", status);
      }
      given(cast);
    };
    each.other_nh = kOtherNh;
  }
  return all;
}

void hold_some(Cast &cast) {
  holds(&Cast::a, {key(16, 100), key(16, 100), key(17, 101), key(18)})(cast);
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
    for (const auto &more : {releases(), beside_another(), sweeps_and_names()}) {
      made.insert(made.end(), more.begin(), more.end());
    }
    return made;
  }();
  return all;
}

}  // namespace client_proof
