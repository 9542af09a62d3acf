#include "trials.h"

#include <map>

namespace crash {
namespace {

constexpr std::uint32_t kOwnNh = kNhStart + kNhSize - 1,
                        kOwnTunnel = kTunStart + kTunSize - 1;  // free in all scenarios

// ----------------------------------------------------------------------------------------------------------- callers

enum class Key { kInterrupted, kBeside, kOfAnother, kNull };
constexpr const char *kKeyNames[] = {"K", "another label on T", "another tunnel's key", "a null tunnel's key"};

egress_encap_key_t key_for(const Expectation &expected, Key which) {
  egress_encap_key_t key = expected.interrupted().front().key;
  if (which == Key::kBeside) {
    key.out_label1 = 999;
  } else if (which != Key::kInterrupted) {
    key = key_of(998, which == Key::kNull ? 0 : 997, 99);
  }
  return key;
}

struct Entry {
  Key key;
  bool at_n, at_t;  // at the interrupted operation's own indexes, where these seem free
  bool gives_back = false;
  Verb verb = Verb::kInsert;
  bool looked_before = false;  // looked the key up before the interrupted operation began
};

std::string name_of(const Entry &entry) {
  return std::string(entry.verb == Verb::kAttach ? "attach " : "enter ") + kKeyNames[static_cast<int>(entry.key)] +
         (entry.looked_before ? ", looked up before the death" : "");
}

// The call that enters the key, with the tunnel as the look-up found it.
Operation call_for(const Survivor &s, const Entry &entry, const egress_encap_info_t &found) {
  const egress_encap_key_t key = key_for(s.expected, entry.key);
  const std::uint32_t tunnel = key.out_label2 == 0 ? 0 : entry.at_t ? s.expected.tunnel() : kOwnTunnel;
  Operation operation = entering(s.expected.before(), key, entry.at_n ? s.interrupted().nh : kOwnNh, tunnel);
  operation.verb = entry.verb;
  operation.count = 3;
  operation.info.tun_found = found.tun_found;
  operation.info.egr_tun = found.tun_found != 0 ? found.egr_tun : tunnel;
  return operation;
}

void enters(Survivor &s, const Entry &entry) {
  if ((entry.at_n && !s.facts.nh_seems_free) || (entry.at_t && !s.facts.tunnel_seems_free)) {
    return;
  }
  Operation look;
  look.key = key_for(s.expected, entry.key);
  encap_test::Model before = s.expected.before();
  const char *name = kKeyNames[static_cast<int>(entry.key)];
  const egress_encap_info_t found = (entry.looked_before ? on_model(before, look) : s.find(name, look.key)).info;
  if (found.nh_found != 0 || (entry.at_t && found.tun_found != 0)) {
    return;
  }
  const Operation operation = call_for(s, entry, found);
  if (s.call(name_of(entry), operation).status != 0) {
    return;
  }
  s.find("the new NH", operation.key);
  s.on_nh(Verb::kRead, "the new NH", operation.nh);
  if (entry.key != Key::kInterrupted) {
    s.find("K beside the new NH", s.interrupted().key);
  }
  if (entry.gives_back) {
    s.on_nh(Verb::kDetach, "the new NH", operation.nh);
    s.find("the NH given back", operation.key);
  } else {
    s.entered.push_back(operation);
  }
}

// The other users of K's tunnel give their NHs back.
void gives_others_back(Survivor &s, Verb verb) {
  for (const auto &[key, nh] : s.expected.untouched()) {
    if (encap_test::tunnel_key(key) == encap_test::tunnel_key(s.interrupted().key)) {
      for (std::uint32_t left = verb == Verb::kDetach ? 1 : s.expected.before().nh(nh).count; left != 0; --left) {
        s.on_nh(verb, "another NH of T", nh);
      }
    }
  }
}

std::vector<Trial> make_trials() {
  std::vector<Trial> all;
  for (const Verb verb : {Verb::kFind, Verb::kFindShare}) {
    all.emplace_back([verb](Survivor &s) { s.find("K", s.interrupted().key, verb); });
  }
  constexpr Verb kOnNh[] = {Verb::kShare,     Verb::kSet,    Verb::kDetach, Verb::kRelease,
                            Verb::kCanDelete, Verb::kUpdate, Verb::kRead};
  for (const Verb verb : kOnNh) {
    all.emplace_back([verb](Survivor &s) { s.on_nh(verb, "N", s.interrupted().nh, 7); });
  }
  all.emplace_back([](Survivor &s) {
    s.on_nh(Verb::kShare, "N", s.interrupted().nh);
    s.on_nh(Verb::kRelease, "N", s.interrupted().nh);
  });
  for (const Verb verb : {Verb::kDetach, Verb::kRelease}) {
    all.emplace_back([verb](Survivor &s) { gives_others_back(s, verb); });
  }
  const auto add = [&all](const Entry &entry) { all.emplace_back([entry](Survivor &s) { enters(s, entry); }); };
  for (unsigned bits = 0; bits < 8; ++bits) {
    for (const Key key : {Key::kInterrupted, Key::kBeside, Key::kOfAnother, Key::kNull}) {
      add({key, (bits & 1) != 0, (bits & 2) != 0, (bits & 4) != 0});
    }
  }
  for (const bool at_t : {false, true}) {
    add({Key::kInterrupted, true, at_t, false, Verb::kAttach});
  }
  for (const Key key : {Key::kInterrupted, Key::kBeside}) {
    add({.key = key, .at_n = false, .at_t = false, .looked_before = true});
  }
  return all;
}

// ------------------------------------------------------------------------------------------------------------- facts

// What the trees hold, by index.
struct Nodes {
  std::map<std::uint32_t, unsigned> tunnels, nhs, riders;  // riders: NH nodes by their tunnel node's index
  const mpls_tunnel_entry_t *tunnel = nullptr;             // the interrupted key's
  const mpls_nh_entry_t *nh = nullptr;
};

Nodes nodes_beside(const egress_encap_key_t &key) {
  Nodes all;
  for (const void *node : encap_test::walk_avl(egress_encap_db->tun_root)) {
    const auto *tunnel = static_cast<const mpls_tunnel_entry_t *>(node);
    const bool on_it = encap_test::bytes_of(tunnel->key) == encap_test::bytes_of(encap_test::tunnel_key(key));
    ++all.tunnels[tunnel->egr_tun];
    all.tunnel = on_it ? tunnel : all.tunnel;
    for (const void *below : encap_test::walk_avl(tunnel->nh_root)) {
      const auto *nh = static_cast<const mpls_nh_entry_t *>(below);
      ++all.nhs[nh->nh_index];
      ++all.riders[tunnel->egr_tun];
      all.nh = on_it && encap_test::bytes_of(nh->key) == encap_test::bytes_of(encap_test::nh_key(key)) ? nh : all.nh;
    }
  }
  return all;
}

bool same_but_for_the_count(const egr_nh_info_t &slot, const encap_test::NhSlot &should) {
  const encap_test::Bytes is = encap_test::bytes_of(slot), image = should.image();
  return std::equal(is.begin() + 4, is.end(), image.begin() + 4);
}

DeathState nh_state(const Expectation &expected, const Nodes &nodes, const egr_nh_info_t &slot, bool uncounted) {
  const std::uint32_t n = expected.interrupted().front().nh;
  if (nodes.nh == nullptr) {
    return slot.valid != 0                    ? DeathState::kNhGone
           : nodes.tunnel->nh_root == nullptr ? DeathState::kTunnelWithoutNh
                                              : DeathState::kWhole;
  }
  if (nodes.nh->nh_index != n || slot.valid == 0) {
    return nodes.nh->nh_index != n ? DeathState::kNhWithoutIndex : DeathState::kNhSlotEmpty;
  }
  if (!same_but_for_the_count(slot, expected.before().nh(n)) && !same_but_for_the_count(slot, expected.after().nh(n))) {
    return DeathState::kNhSlotInPart;
  }
  if (uncounted) {
    return slot.ref_count == 0 ? DeathState::kNothingCounted : DeathState::kTunnelNotCounted;
  }
  return slot.ref_count == 0 ? DeathState::kNhCountZero : DeathState::kWhole;
}

DeathState state_of(const Expectation &expected, const Nodes &nodes, const egr_nh_info_t &nh_slot,
                    const egr_tun_info_t &slot) {
  const std::uint32_t t = expected.tunnel();
  const egress_encap_key_t &key = expected.interrupted().front().key;
  if (nodes.tunnel == nullptr) {
    return t != 0 && slot.valid != 0 && !nodes.tunnels.contains(t) ? DeathState::kTunnelGone : DeathState::kWhole;
  }
  if (nodes.tunnel->egr_tun != t || slot.valid == 0) {
    return nodes.tunnel->egr_tun != t ? DeathState::kTunnelWithoutIndex : DeathState::kTunnelSlotEmpty;
  }
  if (slot.out_label2 != key.out_label2 || slot.out_label3 != key.out_label3) {
    return DeathState::kTunnelSlotInPart;
  }
  const auto riders = nodes.riders.find(t);
  return nh_state(expected, nodes, nh_slot, riders != nodes.riders.end() && slot.ref_count < riders->second);
}

}  // namespace

Facts facts_of(const Expectation &expected) {
  const Operation &op = expected.interrupted().front();
  const std::uint32_t t = expected.tunnel();
  const Nodes nodes = nodes_beside(op.key);
  const egr_nh_info_t &nh_slot = egress_encap_db->nh_info_array[op.nh - kNhStart];
  const egr_tun_info_t &slot = egress_encap_db->tun_info_array[(t == 0 ? kTunStart + kTunSize : t) - kTunStart];
  return {state_of(expected, nodes, nh_slot, slot), nh_slot.valid == 0 || !nodes.nhs.contains(op.nh),
          t != 0 && (slot.valid == 0 || !nodes.tunnels.contains(t))};
}

Answer Survivor::call(std::string name, const Operation &operation) {
  calls.push_back({std::move(name), operation, on_database(operation)});
  return calls.back().is;
}

Answer Survivor::find(const std::string &name, const egress_encap_key_t &key, Verb verb) {
  Operation operation;
  operation.verb = verb;
  operation.key = key;
  return call((verb == Verb::kFind ? "find " : "find and share ") + name, operation);
}

Answer Survivor::on_nh(Verb verb, const std::string &name, std::uint32_t nh, std::uint32_t count) {
  return call(std::string(crash::name_of(verb)) + ' ' + name, crash::on_nh(verb, nh, count));
}

const std::vector<Trial> &trials() {
  static const std::vector<Trial> all = make_trials();
  return all;
}

std::vector<egress_encap_key_t> keys_of_trials(const Expectation &expected) {
  return {key_for(expected, Key::kBeside), key_for(expected, Key::kOfAnother), key_for(expected, Key::kNull)};
}

}  // namespace crash
