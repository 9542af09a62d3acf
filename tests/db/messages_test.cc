// The six error messages, byte for byte.
#include "doubles/fixture.h"
#include "oxa_errmsg.h"

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

#define MESSAGE(symbol, name, format) \
  Message { oxa_msg_rec_mpls_encap_db_##symbol##_error, oxa_msg_limit_mpls_encap_db_##symbol##_error, name, format }

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
    static_assert(sizeof words == sizeof(oxa_msg_rec_t) && sizeof message.limit == 32);
    std::memcpy(words, &message.record, sizeof words);
    const auto text = [&](std::size_t word) { return std::string(reinterpret_cast<const char *>(words[word])); };
    EXPECT_EQ(text(1), message.format);
    EXPECT_EQ(words[2], reinterpret_cast<std::uint64_t>(&message.limit));
    EXPECT_EQ(text(3) + " " + text(4) + " " + text(5), std::string("MPLS_ENCAP_DB PLATFORM ") + message.name);
    EXPECT_TRUE(words[0] == 0 && words[6] == 0x20001 && words[7] == 0);
    EXPECT_EQ(words[8], id++);
    Bytes limit(32);
    limit[0] = 10;
    EXPECT_EQ(bytes_of(message.limit), limit);
  }
}

}  // namespace
}  // namespace encap_test
