#include "model/caller.h"

namespace crash {
Caller::Caller(encap_test::Model model, std::uint64_t seed, bool stray)
    : model_(std::move(model)), random_(seed), stray_(stray) {}

egress_encap_key_t Caller::any_key() {
  egress_encap_key_t key = key_of(16 + below(6), below(2) == 0 ? 0 : 200 + below(4), 1 + below(3));
  key.te_local_label = below(2) & 1;
  if (stray_ && below(40) == 0) {
    key.spare_word2 = 1;
  }
  if (stray_ && below(40) == 0) {
    key.spare_word0 = 1;
  }
  return key;
}

std::uint32_t Caller::any_nh() {
  return model_.nh_start - 1 + below(model_.nh_end - model_.nh_start + 2);
}

Operation Caller::entry(const egress_encap_key_t &key) {
  const std::uint32_t nh = stray_ ? any_nh() : model_.free_nh();
  std::uint32_t tunnel = key.out_label2 == 0 ? 0 : model_.free_tunnel();
  if (stray_ && below(2) == 0) {
    tunnel = model_.tun_start - 1 + below(model_.tun_end - model_.tun_start + 2);
  }
  Operation operation = entering(model_, key, nh, tunnel);
  const auto known = model_.tunnels.find(encap_test::tunnel_key(key));
  operation.info.nh_found = known != model_.tunnels.end() && known->second.nhs.contains(encap_test::nh_key(key));
  if (stray_ && below(8) == 0) {
    operation.info.tun_found = operation.info.tun_found ^ 1u;
  }
  return operation;
}

Operation Caller::next_entry() {
  Operation operation = entry(any_key());
  const bool attach = below(3) == 0;
  const bool present = operation.info.nh_found != 0;
  operation.count = below(4);
  // An attach of an NH that is there sets the count of the index in the record: a keeper of the rules names its own.
  operation.verb = attach && (stray_ || !present) ? Verb::kAttach : Verb::kInsert;
  return operation;
}

Operation Caller::next() {
  Operation operation;
  const std::uint32_t kind = below(16);
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
  operation = on_nh(below(16) == 0 ? Verb::kSet : kVerbsOnNh[kind - 8], any_nh(), below(4));
  operation.data.seed_nh = below(1000);
  if (model_.has_nh(operation.nh)) {
    const encap_test::NhSlot &slot = model_.nh(operation.nh);
    operation.key =
        key_of(slot.label1, model_.has_tunnel(slot.tunnel) ? model_.tunnel(slot.tunnel).label2 : 0, slot.ifh);
  }
  return operation;
}

std::string Caller::step() {
  const Operation operation = next();
  const Answer should = on_model(model_, operation);
  const Answer is = on_database(operation);
  std::string wrong;
  if (!(is == should)) {
    wrong = "answers   " + text_of(is) + "\nshould be " + text_of(should) + '\n';
  }
  wrong += encap_test::differences(*egress_encap_db, model_);
  wrong += stray_ ? "" : encap_test::inconsistency(*egress_encap_db);
  return wrong.empty() ? "" : text_of(operation) + '\n' + wrong;
}

}  // namespace crash
