#include "model/caller.h"

namespace crash {
namespace {

template <typename Slot, typename Expected>
std::string compare(const char *kind, std::uint32_t index, const Slot &slot, const Expected &expected) {
  const auto *bytes = reinterpret_cast<const std::uint8_t *>(&slot);
  const encap_test::Bytes is(bytes, bytes + sizeof slot);
  return is == expected.image() ? ""
                                : std::string(kind) + " slot " + std::to_string(index) + " is " + encap_test::hex(is) +
                                      ", should be " + encap_test::hex(expected.image()) + '\n';
}

}  // namespace

Caller::Caller(encap_test::Model model, Below below, bool stray)
    : model_(std::move(model)), below_(std::move(below)), stray_(stray) {}

egress_encap_key_t Caller::any_key() {
  egress_encap_key_t key = key_of(16 + below_(6), below_(2) == 0 ? 0 : 200 + below_(4), 1 + below_(3));
  key.te_local_label = below_(2) & 1;
  if (stray_ && below_(40) == 0) {
    key.spare_word2 = 1;
  }
  if (stray_ && below_(40) == 0) {
    key.spare_word0 = 1;
  }
  return key;
}

std::uint32_t Caller::any_nh() {
  return model_.nh_start - 1 + below_(model_.nh_end - model_.nh_start + 2);
}

std::uint32_t Caller::free_nh() const {
  std::uint32_t nh = model_.nh_start;
  while (nh != model_.nh_end && model_.nh(nh).valid != 0) {
    ++nh;
  }
  return nh;
}

std::uint32_t Caller::free_tunnel() const {
  std::uint32_t tunnel = model_.tun_start;
  while (tunnel != model_.tun_end && model_.tunnel(tunnel).valid != 0) {
    ++tunnel;
  }
  return tunnel;
}

Operation Caller::entry(const egress_encap_key_t &key) {
  const std::uint32_t nh = stray_ ? any_nh() : free_nh();
  std::uint32_t tunnel = key.out_label2 == 0 ? 0 : free_tunnel();
  if (stray_ && below_(2) == 0) {
    tunnel = model_.tun_start - 1 + below_(model_.tun_end - model_.tun_start + 2);
  }
  Operation operation = entering(model_, key, nh, tunnel);
  const auto known = model_.tunnels.find(encap_test::tunnel_key(key));
  operation.info.nh_found = known != model_.tunnels.end() && known->second.nhs.contains(encap_test::nh_key(key));
  if (stray_ && below_(8) == 0) {
    operation.info.tun_found = operation.info.tun_found ^ 1u;
  }
  return operation;
}

Operation Caller::next_entry() {
  Operation operation = entry(any_key());
  const bool attach = below_(3) == 0;
  const bool present = operation.info.nh_found != 0;
  operation.count = below_(4);
  // An attach of an NH that is there sets the count of the index in the record: a keeper of the rules names its own.
  operation.verb = attach && (stray_ || !present) ? Verb::kAttach : Verb::kInsert;
  return operation;
}

Operation Caller::next() {
  Operation operation;
  const std::uint32_t kind = below_(16);
  if (kind < 6) {
    return next_entry();
  }
  if (kind == 6 || kind == 7) {
    operation = entry(any_key());
    operation.verb = kind == 6 ? Verb::kFind : Verb::kFindShare;
    return operation;
  }
  constexpr Verb kVerbsOnNh[] = {Verb::kRelease, Verb::kRelease, Verb::kRelease, Verb::kDetach,
                                 Verb::kShare,   Verb::kUpdate,  Verb::kRead,    Verb::kCanDelete};
  operation = on_nh(below_(16) == 0 ? Verb::kSet : kVerbsOnNh[kind - 8], any_nh(), below_(4));
  operation.data.seed_nh = below_(1000);
  if (model_.has_nh(operation.nh)) {
    const encap_test::NhSlot &slot = model_.nh(operation.nh);
    operation.key =
        key_of(slot.label1, model_.has_tunnel(slot.tunnel) ? model_.tunnel(slot.tunnel).label2 : 0, slot.ifh);
  }
  return operation;
}

std::string Caller::compare_slots(const Operation &operation, std::uint32_t tunnel) const {
  std::string wrong;
  const egress_encap_db_t &db = *egress_encap_db;
  if (model_.has_nh(operation.nh)) {
    wrong += compare("NH", operation.nh, db.nh_info_array[operation.nh - model_.nh_start], model_.nh(operation.nh));
  }
  for (const std::uint32_t each : {tunnel, operation.info.egr_tun}) {
    if (model_.has_tunnel(each)) {
      wrong += compare("tunnel", each, db.tun_info_array[model_.tunnel_slot(each)], model_.tunnel(each));
    }
  }
  return wrong;
}

std::string Caller::step() {
  const Operation operation = next();
  const std::uint32_t tunnel = model_.has_nh(operation.nh) ? model_.nh(operation.nh).tunnel : 0;
  const Answer should = on_model(model_, operation);
  const Answer is = on_database(operation);
  std::string wrong;
  if (!(is == should)) {
    wrong = "answers   " + text_of(is) + "\nshould be " + text_of(should) + '\n';
  }
  wrong += compare_slots(operation, tunnel);
  Operation find;
  find.key = operation.key;
  const Answer found = on_database(find);
  const Answer sought = on_model(model_, find);
  if (!(found == sought)) {
    wrong += "finds     " + text_of(found) + "\nshould be " + text_of(sought) + '\n';
  }
  return wrong.empty() ? "" : text_of(operation) + '\n' + wrong;
}

std::string Caller::compare_all() const {
  std::string wrong = encap_test::differences(*egress_encap_db, model_, encap_test::walk_avl);
  return stray_ ? wrong : wrong + encap_test::inconsistency(*egress_encap_db, encap_test::walk_avl);
}

}  // namespace crash
