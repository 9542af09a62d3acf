// Looks without the lock: what they answer, also beside a writer at full speed.
#include <atomic>
#include <thread>

#include "peek_fixture.h"

namespace test_support {
namespace {

TEST_F(PeekTest, AnswersAsTheDatabaseDoes) {
  encap_client_t *const a = client("a");
  EXPECT_EQ(peek(a, key(16, 100)), (Answer{2, UINT32_MAX, UINT32_MAX}));
  const encap_entry_t entry = enter(a, key(16, 100));
  EXPECT_EQ(peek(a, key(16, 100)), (Answer{0, entry.nh, entry.tunnel}));
  EXPECT_EQ(peek(a, key(17, 100)), (Answer{2, UINT32_MAX, entry.tunnel}));
  EXPECT_EQ(peek(a, key(16, 101)), (Answer{2, UINT32_MAX, UINT32_MAX}));
  const encap_entry_t lone = enter(a, key(16));
  EXPECT_EQ(peek(a, key(16)), (Answer{0, lone.nh, 0}));
  enter(a, key(16, 100));
  EXPECT_EQ(read(a, entry.nh), (std::pair<int, std::uint32_t>{0, 2}));
  EXPECT_EQ(read(a, lone.nh + 1).first, 2);
  EXPECT_EQ(read(a, kNhStart - 1).first, 22);
  EXPECT_EQ(read(a, kNhStart + 400).first, 22);
}

// One thread enters and releases an encapsulation on a tunnel of its own; the others must see both or neither.
TEST_F(PeekTest, BesideABusyWriterEveryAnswerIsOneOfTwo) {
  encap_client_t *const a = client("a");
  encap_client_t *const b = client("b");
  const encap_entry_t stays = enter(a, key(16, 100));
  std::atomic<bool> stop{false};
  std::atomic<std::uint32_t> most{0};
  std::thread reader([&] {
    while (!stop) {
      const Answer there = peek(b, key(16, 100));
      const Answer other = peek(b, key(16, 101));
      EXPECT_EQ(there, (Answer{0, stays.nh, stays.tunnel}));
      EXPECT_TRUE(other.status == 0 ? other.nh != UINT32_MAX && other.tunnel != UINT32_MAX
                                    : other.status == 2 && other.nh == UINT32_MAX && other.tunnel == UINT32_MAX)
          << other.status << ' ' << other.nh << ' ' << other.tunnel;
      most = most + 1;
    }
  });
  const std::uint32_t rounds = 20000;
  for (std::uint32_t i = 0; i < rounds; ++i) {
    release(a, enter(a, key(16, 101)).nh);
  }
  stop = true;
  reader.join();
  EXPECT_GT(most, 0U);
}

}  // namespace
}  // namespace test_support
