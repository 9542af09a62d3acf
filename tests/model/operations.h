// One call of the database as data: made on the library and on the model, with answers that compare.
#ifndef ENCAP_TESTS_OPERATIONS_H
#define ENCAP_TESTS_OPERATIONS_H

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "model/model.h"
#include "mpls_egress_encap_db.h"

namespace crash {

enum class Verb : std::uint8_t {
  kFind,
  kFindShare,
  kShare,
  kInsert,
  kAttach,
  kSet,
  kDetach,
  kRelease,
  kCanDelete,
  kUpdate,
  kRead,
};
inline constexpr unsigned kVerbs = 11;
const char *name_of(Verb verb);

struct Operation {
  Verb verb = Verb::kFind;
  egress_encap_key_t key{};
  egress_encap_info_t info{};
  std::uint32_t nh = 0;
  std::uint32_t count = 0;  // of attach and set
  egr_nh_data_t data{};
};

// Everything that a call tells its caller; what it leaves alone keeps its preset.
struct Answer {
  int status = 0;
  encap_test::Outs outs;
  egress_encap_info_t info{};
  egress_encap_aux_data_t aux{};
  egress_encap_key_t key{};

  bool operator==(const Answer &other) const {
    return status == other.status && outs == other.outs && std::memcmp(&info, &other.info, sizeof info) == 0 &&
           std::memcmp(&aux, &other.aux, sizeof aux) == 0 && std::memcmp(&key, &other.key, sizeof key) == 0;
  }
};

// Requires an open database.
Answer on_database(const Operation &operation);
Answer on_model(encap_test::Model &model, const Operation &operation);

std::string text_of(const Operation &operation);
std::string text_of(const Answer &answer);

egress_encap_key_t key_of(std::uint32_t label1, std::uint32_t label2, std::uint32_t ifh);

// The insert that a caller makes who has just looked `key` up in `model`; auxiliary data derived from `nh`.
Operation entering(const encap_test::Model &model, const egress_encap_key_t &key, std::uint32_t nh,
                   std::uint32_t tunnel);
Operation on_nh(Verb verb, std::uint32_t nh, std::uint32_t count = 0);

}  // namespace crash

#endif
