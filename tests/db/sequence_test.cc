// Operations that follow each other: what one leaves is what the next one finds.
#include <cstdlib>
#include <iostream>
#include <random>

#include "doubles/fixture.h"
#include "model/caller.h"

namespace encap_test {
namespace {

using SequenceTest = DbTest;

TEST_F(SequenceTest, TunnelLeftByAFailureIsFoundAndUsed) {
  order("malloc2=12");
  EXPECT_EQ(make(entry(Verb::kInsert, record(kNh, kTunnel))).status, 22);
  EXPECT_EQ(enter(full_key(), kNh, 8), 0);  // the index found decides, not the one offered
  EXPECT_EQ(tunnel_slot(kTunnel).ref_count, 1u);
}

// A range that passes 16 bits cuts the index on its way into slot and node; what comes back is refused by every road.
TEST_F(SequenceTest, TunnelIndexPast16BitsIsCutAndThenRefused) {
  open(kNhStart, kNhSize, 65530, 20);
  EXPECT_EQ(enter(label(16).out_of(1), 100, 65535), 0);
  EXPECT_EQ(make(crash::on_nh(Verb::kRead, 100)).aux.egr_tun, 65535u);
  EXPECT_EQ(make(entry(Verb::kInsert, record(kNh, 65540))).status, 0);
  EXPECT_EQ(make(entry(Verb::kInsert, record(106, 4, true))).status, 22);
  for (const Verb verb : {Verb::kRead, Verb::kRelease, Verb::kDetach}) {
    EXPECT_EQ(make(crash::on_nh(verb, kNh)).status, 22);
  }
}

// A process that dies between linking an NH's node and storing its index leaves the index 0: such an index has no slot.
TEST_F(SequenceTest, AnIndexOutOfRangeInANodeIsAnsweredLikeASlotThatIsNotValid) {
  enter(full_key(), kNh, kTunnel);
  auto &tunnel = *static_cast<mpls_tunnel_entry_t *>(db().tun_root);
  auto &nh = *static_cast<mpls_nh_entry_t *>(tunnel.nh_root);
  for (const std::uint32_t index : {0U, kNhStart - 1, kNhStart + kNhSize, UINT32_MAX}) {
    nh.nh_index = index;
    egress_encap_info_t info{};
    EXPECT_EQ(vrl_find_and_share_egress_encap(&info, full_key()), 22);
    EXPECT_TRUE(info.nh_found == 1 && info.egr_nh == index && info.egr_tun == kTunnel);
    const std::string told = journal().take();
    EXPECT_NE(told.find("vrl_mem_increment_egr_nh_ref_count"), std::string::npos) << told;
  }
  nh.nh_index = kNh;
}

// ------------------------------------------------------------------------------------------------------------- random

// Random operations, journals and all; ENCAP_SEED replays a run.
void go(DbTest &db, bool stray) {
  const char *chosen = std::getenv("ENCAP_SEED");
  const std::uint64_t seed = chosen != nullptr ? std::strtoull(chosen, nullptr, 0) : std::random_device{}();
  std::cout << "ENCAP_SEED=" << seed << std::endl;
  for (unsigned run = 0; run < 8; ++run) {
    db.open();
    crash::Caller caller(db.model, seed + run, stray);
    for (unsigned i = 0; i < 500 && !DbTest::HasFailure(); ++i) {
      EXPECT_EQ(caller.step(), "") << "operation " << i;
      EXPECT_EQ(journal().take(), db.story.take()) << "operation " << i;
    }
  }
}

TEST_F(SequenceTest, CallersThatKeepTheRules) {
  go(*this, false);
}

// Indexes in use, flags that are wrong: the database follows the model all the same.
TEST_F(SequenceTest, CallersThatDoNot) {
  go(*this, true);
}

}  // namespace
}  // namespace encap_test
