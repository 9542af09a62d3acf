// Words overwritten at random: looked at without a fault or an end, and mended or refused.
#include <chrono>
#include <cstdlib>

#include "inspect_fixture.h"

namespace inspect_tests {
namespace {

// ENCAP_ROUNDS makes a run longer.
std::uint32_t rounds(std::uint32_t usual) {
  const char *text = std::getenv("ENCAP_ROUNDS");
  return text != nullptr ? static_cast<std::uint32_t>(std::strtoul(text, nullptr, 10)) : usual;
}

// One to six words or bytes anywhere, more often where it hurts.
class Vandal {
 public:
  Vandal(std::uint8_t *window, std::size_t bytes, std::uint32_t seed) : window_(window), bytes_(bytes), random_(seed) {}

  void strike() {
    for (std::size_t i = 1 + random_() % 6; i > 0; --i) {
      const std::size_t at = place();
      switch (random_() % 4) {
        case 0:
          window_[at] ^= static_cast<std::uint8_t>(1U << random_() % 8);
          break;
        case 1:
          put(at, random_());
          break;
        case 2:
          put(at, word(place()));  // what lies elsewhere: another node's address, a count, a key
          break;
        default:
          put(at, word(0x20) + random_() % bytes_ / 8 * 8);  // some address of the window
      }
    }
  }

 private:
  std::size_t place() {
    const vrellis::WindowShape shape = vrellis::shape_of_size(bytes_);
    const std::size_t regions[][2] = {{64, 1024},
                                      {1024, 192},
                                      {2048, 2048},
                                      {4096, 128},
                                      {sizeof(vrellis::WindowHeader), shape.heap - sizeof(vrellis::WindowHeader)},
                                      {shape.heap, bytes_ - shape.heap},
                                      {shape.heap, bytes_ - shape.heap},
                                      {shape.heap, bytes_ - shape.heap}};
    const auto &region = regions[random_() % std::size(regions)];
    return (region[0] + random_() % region[1]) / 8 * 8;
  }
  std::uint64_t word(std::size_t at) const {
    std::uint64_t value;
    std::memcpy(&value, window_ + at, sizeof value);
    return value;
  }
  void put(std::size_t at, std::uint64_t value) { std::memcpy(window_ + at, &value, sizeof value); }

  std::uint8_t *window_;
  std::size_t bytes_;
  std::mt19937_64 random_;
};

class VandalTest : public InspectTest {
 protected:
  void SetUp() override {
    InspectTest::SetUp();
    fill(3, 9);
    pristine_.assign(window_, window_ + bytes_);
  }

  void restore() { std::memcpy(window_, pristine_.data(), bytes_); }

  std::vector<std::uint8_t> pristine_;
};

TEST_F(VandalTest, AnythingIsLookedAtWithoutFaultOrEnd) {
  std::vector<std::uint8_t> copy(bytes_);
  const auto begin = std::chrono::steady_clock::now();
  std::size_t unsound = 0;
  for (std::uint32_t seed = 0; seed < rounds(20'000); ++seed) {
    std::memcpy(copy.data(), pristine_.data(), bytes_);
    Vandal(copy.data(), bytes_, seed).strike();
    unsound += check(View::copy_of(copy.data(), bytes_)).sound() ? 0U : 1U;
  }
  EXPECT_GT(unsound, 5'000U);
  // A damaged window of this size is looked at in a tenth of a millisecond. A look that follows a chain round and round
  // takes more than this limit, which leaves room for a busy machine.
  const auto each = (std::chrono::steady_clock::now() - begin) / rounds(20'000);
  EXPECT_LT(each, std::chrono::milliseconds(20));
}

TEST_F(VandalTest, AnythingIsMendedOrRefused) {
  std::size_t mended = 0;
  for (std::uint32_t seed = 0; seed < rounds(3'000); ++seed) {
    restore();
    Vandal(window_, bytes_, seed).strike();
    std::memcpy(window_, pristine_.data(), 64);  // who is mapped stays mapped
    std::memcpy(db().lock.area, pristine_.data() + 1024 + 48, sizeof db().lock.area);
    const RepairResult result = repair(kId);
    if (result.status == 0) {
      ASSERT_TRUE(result.after.sound()) << text(result.after) << "seed " << seed << "\nbefore:\n"
                                        << text(result.before);
      ++mended;
    }
  }
  EXPECT_GT(mended, 1'500U);
  restore();
}

}  // namespace
}  // namespace inspect_tests
