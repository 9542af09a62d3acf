#include "support/operations.h"

namespace crash {
namespace {

using encap_test::Model;

constexpr const char *kNames[kVerbs] = {"find",   "find_share", "share",      "insert", "attach", "set",
                                        "detach", "release",    "can_delete", "update", "read"};

}  // namespace

const char *name_of(Verb verb) {
  return kNames[static_cast<unsigned>(verb)];
}

Answer on_database(const Operation &operation) {
  Answer answer;
  answer.info = operation.info;
  encap_test::Outs &outs = answer.outs;
  switch (operation.verb) {
    case Verb::kFind:
      answer.status = vrl_find_egress_encap(&answer.info, operation.key);
      break;
    case Verb::kFindShare:
      answer.status = vrl_find_and_share_egress_encap(&answer.info, operation.key);
      break;
    case Verb::kShare:
      answer.status = vrl_find_and_share_egress_nh(operation.nh);
      break;
    case Verb::kInsert:
      answer.status = vrl_insert_egress_encap(&answer.info, operation.key);
      break;
    case Verb::kAttach:
      answer.status = vrl_egress_encap_nh_insert_attach(&answer.info, operation.count, operation.key);
      break;
    case Verb::kSet:
      answer.status = vrl_find_and_set_egress_nh_ref(operation.nh, operation.count);
      break;
    case Verb::kDetach:
      answer.status = vrl_egress_encap_nh_detach(operation.nh, &outs.first, &outs.second, &outs.third);
      break;
    case Verb::kRelease:
      answer.status =
          vrl_delete_and_free_egress_encap_with_nh_key(operation.nh, &outs.first, &outs.second, &outs.third);
      break;
    case Verb::kCanDelete:
      answer.status = vrl_can_delete_egr_nh_data_from_encap_db(operation.nh);
      break;
    case Verb::kUpdate:
      answer.status = vrl_update_egr_nh_data_in_encap_db(operation.nh, operation.data);
      break;
    case Verb::kRead:
      answer.status = vrl_get_encap_key_and_aux_data_from_nh(operation.nh, &answer.aux, &answer.key);
      break;
  }
  return answer;
}

Answer on_model(Model &model, const Operation &operation) {
  Answer answer;
  answer.info = operation.info;
  switch (operation.verb) {
    case Verb::kFind:
    case Verb::kFindShare:
      answer.status = model.find(answer.info, operation.key, operation.verb == Verb::kFindShare);
      break;
    case Verb::kShare:
      answer.status = model.share(operation.nh);
      break;
    case Verb::kInsert:
      answer.status = model.insert(answer.info, operation.key);
      break;
    case Verb::kAttach:
      answer.status = model.attach(answer.info, operation.count, operation.key);
      break;
    case Verb::kSet:
      answer.status = model.set(operation.nh, operation.count);
      break;
    case Verb::kDetach:
      answer.status = model.detach(operation.nh, answer.outs);
      break;
    case Verb::kRelease:
      answer.status = model.release(operation.nh, answer.outs);
      break;
    case Verb::kCanDelete:
      answer.status = model.can_delete(operation.nh);
      break;
    case Verb::kUpdate:
      answer.status = model.update(operation.nh, operation.data);
      break;
    case Verb::kRead:
      answer.status = model.read(operation.nh, answer.aux, answer.key);
      break;
  }
  return answer;
}

std::string text_of(const Operation &operation) {
  const egress_encap_info_t &info = operation.info;
  const auto *key = reinterpret_cast<const std::uint8_t *>(&operation.key);
  return std::string(name_of(operation.verb)) + " nh " + std::to_string(operation.nh) + " count " +
         std::to_string(operation.count) + " record{egr_nh " + std::to_string(info.egr_nh) + " egr_tun " +
         std::to_string(info.egr_tun) + " nh_found " + std::to_string(info.nh_found) + " tun_found " +
         std::to_string(info.tun_found) + "} key " + encap_test::hex({key, key + sizeof operation.key});
}

std::string text_of(const Answer &answer) {
  const egress_encap_info_t &info = answer.info;
  const auto *key = reinterpret_cast<const std::uint8_t *>(&answer.key);
  return "status " + std::to_string(answer.status) + " outs " + std::to_string(answer.outs.first) + ' ' +
         std::to_string(answer.outs.second) + ' ' + std::to_string(answer.outs.third) + " record{egr_nh " +
         std::to_string(info.egr_nh) + " egr_tun " + std::to_string(info.egr_tun) + " nh_found " +
         std::to_string(info.nh_found) + " tun_found " + std::to_string(info.tun_found) + "} key " +
         encap_test::hex({key, key + sizeof answer.key});
}

egress_encap_key_t key_of(std::uint32_t label1, std::uint32_t label2, std::uint32_t ifh) {
  egress_encap_key_t key{};
  key.out_label1 = label1 & 0x1fffff;
  key.out_label2 = label2 & 0x1fffff;
  key.ifh = ifh;
  return key;
}

Operation entering(const Model &model, const egress_encap_key_t &key, std::uint32_t nh, std::uint32_t tunnel) {
  Operation operation;
  operation.verb = Verb::kInsert;
  operation.key = key;
  operation.nh = nh;
  operation.info.seed_nh = 7 * nh + 1;
  operation.info.failover_nh = 3 * nh + 2;
  operation.info.failover_id = nh & 0xfff;
  operation.info.is_protected_te_nh = nh & 1;
  operation.info.egr_nh = nh;
  const auto known = model.tunnels.find(encap_test::tunnel_key(key));
  operation.info.tun_found = known != model.tunnels.end();
  operation.info.egr_tun = known != model.tunnels.end() ? known->second.index : tunnel;
  return operation;
}

Operation on_nh(Verb verb, std::uint32_t nh, std::uint32_t count) {
  Operation operation;
  operation.verb = verb;
  operation.nh = nh;
  operation.count = count;
  operation.data = {nh + 1, nh + 2, (nh + 3) & 0xfff, ~nh & 1, 0};
  return operation;
}

encap_test::Model model_of(const egress_encap_db_t &header) {
  Model model(header.nh_start, header.nh_end - header.nh_start, header.tun_start, header.tun_end - header.tun_start);
  for (void *tunnel_node : encap_test::walk_avl(header.tun_root)) {
    const auto &tunnel = *static_cast<const mpls_tunnel_entry_t *>(tunnel_node);
    egress_encap_key_t key{};
    std::memcpy(reinterpret_cast<std::uint8_t *>(&key) + sizeof(mpls_nh_key_t), &tunnel.key, sizeof tunnel.key);
    model.add_tunnel(tunnel.egr_tun, key);
    for (void *nh_node : encap_test::walk_avl(tunnel.nh_root)) {
      const auto &nh = *static_cast<const mpls_nh_entry_t *>(nh_node);
      std::memcpy(static_cast<void *>(&key), &nh.key, sizeof nh.key);
      const egr_nh_info_t &slot = header.nh_info_array[nh.nh_index - header.nh_start];
      egress_encap_info_t info{};
      info.egr_nh = nh.nh_index;
      info.egr_tun = tunnel.egr_tun;
      info.seed_nh = slot.seed_nh;
      info.failover_nh = slot.failover_nh;
      info.failover_id = slot.failover_id;
      info.is_protected_te_nh = slot.is_protected_te_nh;
      model.add_nh(info, key);
      model.nh(nh.nh_index).count = slot.ref_count;
    }
  }
  for (std::uint32_t i = 0; i <= header.tun_end - header.tun_start; ++i) {
    const egr_tun_info_t &slot = header.tun_info_array[i];
    const bool null_tunnel = i == header.tun_end - header.tun_start;
    if (slot.valid != 0) {
      encap_test::TunnelSlot &copy = model.tunnel(null_tunnel ? 0 : header.tun_start + i);
      copy = {slot.ref_count, slot.out_label2, slot.out_label3, 1};
    }
  }
  return model;
}

}  // namespace crash
