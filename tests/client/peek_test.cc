// Looks without the lock: what they answer, also beside a writer at full speed and in a damaged window.
#include <atomic>
#include <cstring>
#include <random>
#include <thread>
#include <utility>

#include "client_fixture.h"

namespace test_support {
namespace {

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
  std::atomic<std::uint32_t> looks{0};
  std::thread reader([&] {
    while (!stop) {
      const Answer there = peek(b, key(16, 100));
      const Answer other = peek(b, key(16, 101));
      EXPECT_EQ(there, (Answer{0, stays.nh, stays.tunnel}));
      EXPECT_TRUE(other.status == 0 ? other.nh != UINT32_MAX && other.tunnel != UINT32_MAX
                                    : other.status == 2 && other.nh == UINT32_MAX && other.tunnel == UINT32_MAX)
          << other.status << ' ' << other.nh << ' ' << other.tunnel;
      ++looks;
    }
  });
  const std::uint32_t rounds = 20000;
  for (std::uint32_t i = 0; i < rounds || looks == 0; ++i) {
    release(a, enter(a, key(16, 101)).nh);
  }
  stop = true;
  reader.join();
}

TEST_F(PeekTest, NoDamageMakesALookFault) {
  encap_client_t *const a = client("a");
  for (std::uint32_t i = 0; i < 40; ++i) {
    enter(a, key(16 + i, 100 + i % 5));
  }
  void *begin = nullptr;
  std::size_t size = 0;
  ASSERT_EQ(shmwin_bounds(config_.shm_id, &begin, &size), 0);
  std::vector<std::uint64_t> whole(size / 8);
  std::memcpy(whole.data(), begin, size);
  const auto words = reinterpret_cast<std::uint64_t *>(begin);
  EXPECT_EQ(in_copy([&] {
              std::mt19937_64 random(7);
              for (int trial = 0; trial < 2000; ++trial) {
                for (int i = 0; i < 64; ++i) {
                  const std::size_t place = random() % (trial % 2 == 0 ? whole.size() : 4096);
                  const bool is_lock = place >= (1024 + 48) / 8 && place < (1024 + 184) / 8;
                  words[is_lock ? 0 : place] = random() % 2 == 0 ? random() : whole[random() % whole.size()];
                }
                for (std::uint32_t i = 0; i < 40; ++i) {
                  peek(a, key(16 + i, 100 + i % 5));
                  read(a, kNhStart + i);
                }
                std::memcpy(begin, whole.data(), size);
              }
            }),
            0);
}

}  // namespace
}  // namespace test_support
