// Looks without the lock, as one value each.
#ifndef PEEK_FIXTURE_H
#define PEEK_FIXTURE_H

#include <utility>

#include "client_fixture.h"

namespace test_support {

class PeekTest : public ClientTest {
 protected:
  struct Answer {
    int status = 0;
    std::uint32_t nh = 0, tunnel = 0;
    bool operator==(const Answer &) const = default;
  };

  static Answer peek(encap_client_t *client, const egress_encap_key_t &key) {
    Answer answer;
    answer.status = encap_client_peek(client, key, &answer.nh, &answer.tunnel);
    return answer;
  }

  // Status and references.
  static std::pair<int, std::uint32_t> read(encap_client_t *client, std::uint32_t nh) {
    egress_encap_key_t key{};
    egress_encap_aux_data_t aux{};
    std::uint32_t count = 0;
    const int status = encap_client_read(client, nh, &key, &aux, &count);
    return {status, count};
  }
};

}  // namespace test_support

#endif
