// Looks without the lock, beside a writer that is stopped at every instruction, and in a damaged window.
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <random>

#include "peek_fixture.h"

namespace test_support {
namespace {

class PeekStepsTest : public PeekTest {
 protected:
  // All that a reader can ask for.
  static std::vector<Answer> look_at_all(encap_client_t *client) {
    std::vector<Answer> all;
    for (std::uint32_t i = 0; i < 6; ++i) {
      all.push_back(peek(client, key(16, 100 + i)));
      const auto [status, count] = read(client, kNhStart + i);
      all.push_back({status, count, 0});
    }
    return all;
  }

  // Stops `call` of a child at every instruction: the answers are those before it until they are those after it.
  template <typename Call>
  void step_through(encap_client_t *reader, Call call) {
    const std::vector<Answer> before = look_at_all(reader);
    const pid_t child = _Fork();
    if (child == 0) {
      ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
      raise(SIGSTOP);
      call();
      _exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    std::vector<std::vector<Answer>> seen{before};
    while (ptrace(PTRACE_SINGLESTEP, child, nullptr, nullptr) == 0 && waitpid(child, &status, 0) == child &&
           WIFSTOPPED(status)) {
      std::vector<Answer> now = look_at_all(reader);
      if (now != seen.back()) {
        seen.push_back(std::move(now));
      }
    }
    EXPECT_TRUE(WIFEXITED(status));
    ASSERT_EQ(seen.size(), 2U) << "answers change once";
    EXPECT_EQ(seen.back(), look_at_all(reader));
  }
};

TEST_F(PeekStepsTest, AWriterStoppedAtAnyInstructionIsNotWaitedForAndNotHalfSeen) {
  encap_client_t *const a = client("a");
  encap_client_t *const b = client("b");
  for (std::uint32_t i = 0; i < 4; ++i) {
    enter(a, key(16, 100 + i));
  }
#if defined(ENCAP_SANITIZED)
  GTEST_SKIP() << "stepping would go through the sanitizer's own code";
#endif
  step_through(b, [&] { encap_client_enter(a, key(16, 104), nullptr, nullptr); });
  step_through(b, [&] { encap_client_enter(a, key(16, 101), nullptr, nullptr); });
  step_through(b, [&] { encap_client_release(a, kNhStart + 1, nullptr); });
  step_through(b, [&] { encap_client_release(a, kNhStart + 1, nullptr); });
  step_through(b, [&] { encap_client_release(a, kNhStart + 2, nullptr); });
}

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
