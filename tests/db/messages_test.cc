// The six error messages, byte for byte.
#include "oxa_errmsg.h"
#include "support/fixture.h"

namespace encap_test {
namespace {

constexpr const char *kKeyFormat =
    "%s: label1 %d label2 %d label3 %d te_local_label %d is_failover_nh %d protocol %d IFH 0x%x nh_idx %d tun_idx %d "
    "seed_nh %d";

struct Message {
  const oxa_msg_rec_t &record;
  oxa_msg_limit_t &limit;
  const char *name;
  const char *format;
};

#define MESSAGE(symbol, name, format)                                                                      \
  Message {                                                                                                \
    oxa_msg_rec_mpls_encap_db_##symbol##_error, oxa_msg_limit_mpls_encap_db_##symbol##_error, name, format \
  }

TEST(MessagesTest, RecordsAndLimits) {
  const Message messages[] = {
      MESSAGE(nh_notfound, "NH_NOTFOUND_ERROR", kKeyFormat),
      MESSAGE(nh_notvalid, "NH_NOTVALID_ERROR", "%s: nh_idx %d ref_count %d"),
      MESSAGE(nh_refcount, "NH_REFCOUNT_ERROR", kKeyFormat),
      MESSAGE(tun_notfound, "TUN_NOTFOUND_ERROR", kKeyFormat),
      MESSAGE(tun_notvalid, "TUN_NOTVALID_ERROR", "%s: tun_if %d tun_idx %d ref_cnt %d"),
      MESSAGE(tun_refcount, "TUN_REFCOUNT_ERROR", kKeyFormat),
  };
  std::uint64_t id = 0x1ac90000;
  for (const Message &message : messages) {
    SCOPED_TRACE(message.name);
    std::uint64_t words[9];
    static_assert(sizeof words == sizeof(oxa_msg_rec_t));
    std::memcpy(words, &message.record, sizeof words);
    const auto text = [&](std::size_t word) { return reinterpret_cast<const char *>(words[word]); };
    EXPECT_EQ(words[0], 0u);
    EXPECT_STREQ(text(1), message.format);
    EXPECT_EQ(words[2], reinterpret_cast<std::uint64_t>(&message.limit));
    EXPECT_STREQ(text(3), "MPLS_ENCAP_DB");
    EXPECT_STREQ(text(4), "PLATFORM");
    EXPECT_STREQ(text(5), message.name);
    EXPECT_EQ(words[6], 0x20001u);
    EXPECT_EQ(words[7], 0u);
    EXPECT_EQ(words[8], id++);
    std::uint32_t limit[8];
    static_assert(sizeof limit == sizeof(oxa_msg_limit_t));
    std::memcpy(limit, &message.limit, sizeof limit);
    EXPECT_EQ(limit[0], 10u);
    for (std::size_t i = 1; i < 8; ++i) {
      EXPECT_EQ(limit[i], 0u);
    }
  }
}

}  // namespace
}  // namespace encap_test
