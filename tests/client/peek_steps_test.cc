// Looks without the lock in a damaged window.
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <random>

#include "peek_fixture.h"

namespace test_support {
namespace {

using PeekStepsTest = PeekTest;

TEST_F(PeekStepsTest, NoDamageMakesALookFault) {
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
  const pid_t child = _Fork();
  if (child == 0) {
    alarm(60);
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
    _exit(0);
  }
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

}  // namespace
}  // namespace test_support
