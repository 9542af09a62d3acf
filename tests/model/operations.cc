#include "model/operations.h"

namespace crash {
namespace {

using encap_test::Model;

struct Call {
  const char *name;
  int (*database)(const Operation &, Answer &);
  int (*model)(Model &, const Operation &, Answer &);
};

// By verb.
constexpr Call kCalls[kVerbs] = {
    {"find", [](auto &of, auto &is) { return vrl_find_egress_encap(&is.info, of.key); },
     [](auto &model, auto &of, auto &is) { return model.find(is.info, of.key, false); }},
    {"find_share", [](auto &of, auto &is) { return vrl_find_and_share_egress_encap(&is.info, of.key); },
     [](auto &model, auto &of, auto &is) { return model.find(is.info, of.key, true); }},
    {"share", [](auto &of, auto &) { return vrl_find_and_share_egress_nh(of.nh); },
     [](auto &model, auto &of, auto &) { return model.share(of.nh); }},
    {"insert", [](auto &of, auto &is) { return vrl_insert_egress_encap(&is.info, of.key); },
     [](auto &model, auto &of, auto &is) { return model.insert(is.info, of.key); }},
    {"attach", [](auto &of, auto &is) { return vrl_egress_encap_nh_insert_attach(&is.info, of.count, of.key); },
     [](auto &model, auto &of, auto &is) { return model.attach(is.info, of.count, of.key); }},
    {"set", [](auto &of, auto &) { return vrl_find_and_set_egress_nh_ref(of.nh, of.count); },
     [](auto &model, auto &of, auto &) { return model.set(of.nh, of.count); }},
    {"detach",
     [](auto &of, auto &is) {
       return vrl_egress_encap_nh_detach(of.nh, &is.outs.first, &is.outs.second, &is.outs.third);
     },
     [](auto &model, auto &of, auto &is) { return model.detach(of.nh, is.outs); }},
    {"release",
     [](auto &of, auto &is) {
       return vrl_delete_and_free_egress_encap_with_nh_key(of.nh, &is.outs.first, &is.outs.second, &is.outs.third);
     },
     [](auto &model, auto &of, auto &is) { return model.release(of.nh, is.outs); }},
    {"can_delete", [](auto &of, auto &) { return vrl_can_delete_egr_nh_data_from_encap_db(of.nh); },
     [](auto &model, auto &of, auto &) { return model.can_delete(of.nh); }},
    {"update", [](auto &of, auto &) { return vrl_update_egr_nh_data_in_encap_db(of.nh, of.data); },
     [](auto &model, auto &of, auto &) { return model.update(of.nh, of.data); }},
    {"read", [](auto &of, auto &is) { return vrl_get_encap_key_and_aux_data_from_nh(of.nh, &is.aux, &is.key); },
     [](auto &model, auto &of, auto &is) { return model.read(of.nh, is.aux, is.key); }},
};

const Call &call_of(Verb verb) {
  return kCalls[static_cast<unsigned>(verb)];
}

std::string text_of(const egress_encap_info_t &info, const egress_encap_key_t &key) {
  return " record{egr_nh " + std::to_string(info.egr_nh) + " egr_tun " + std::to_string(info.egr_tun) + " nh_found " +
         std::to_string(info.nh_found) + " tun_found " + std::to_string(info.tun_found) + "} key " +
         encap_test::hex(encap_test::bytes_of(key));
}

}  // namespace

const char *name_of(Verb verb) {
  return call_of(verb).name;
}

Answer on_database(const Operation &operation) {
  Answer answer;
  answer.info = operation.info;
  answer.status = call_of(operation.verb).database(operation, answer);
  return answer;
}

Answer on_model(Model &model, const Operation &operation) {
  Answer answer;
  answer.info = operation.info;
  answer.status = call_of(operation.verb).model(model, operation, answer);
  return answer;
}

std::string text_of(const Operation &operation) {
  return std::string(name_of(operation.verb)) + " nh " + std::to_string(operation.nh) + " count " +
         std::to_string(operation.count) + text_of(operation.info, operation.key);
}

std::string text_of(const Answer &answer) {
  const encap_test::Outs &outs = answer.outs;
  return "status " + std::to_string(answer.status) + " outs " + std::to_string(outs.first) + ' ' +
         std::to_string(outs.second) + ' ' + std::to_string(outs.third) + text_of(answer.info, answer.key);
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

}  // namespace crash
