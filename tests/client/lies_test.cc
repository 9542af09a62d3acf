// What another process may do to a client: write lies into the window, fork, and take every name.
#include <algorithm>
#include <cstring>
#include <random>
#include <vector>

#include "client_fixture.h"

namespace test_support {
namespace {

void call_everything(encap_client_t *a, const encap_client_config_t &config) {
  encap_client_info_t info[2];
  std::uint32_t count = 0;
  encap_client_list(a, info, 2, &count);
  encap_client_each(
      a, [](const encap_holding_t *, void *) {}, nullptr);
  for (std::uint32_t i = 0; i < 30; ++i) {
    encap_client_enter(a, key(5000 + i, 200 + i), nullptr, nullptr);
    encap_client_enter(a, key(100 + i, 100), nullptr, nullptr);
    encap_client_release(a, kNhStart + 20 * i, nullptr);
  }
  encap_client_refresh_begin(a);
  encap_client_enter(a, key(100, 100), nullptr, nullptr);
  encap_client_refresh_end(a, nullptr, nullptr);
  encap_client_reclaim(a, config.name, nullptr, nullptr);
  encap_client_t *other = nullptr;
  if (encap_client_open(&config, &other, nullptr) == 0) {
    encap_client_close(other);
  }
  encap_client_leave(a, nullptr, nullptr);
}

using clients::Bucket;
using clients::ClientRecord;
using clients::Ledger;

class LiesTest : public ClientTest {
 protected:
  std::vector<char> window_image() {
    void *begin = nullptr;
    std::size_t size = 0;
    EXPECT_EQ(shmwin_bounds(config_.shm_id, &begin, &size), 0);
    window_ = static_cast<char *>(begin);
    return {window_, window_ + size};
  }

  // Each 4-byte word in turn is a lie of each kind; then the window is as before. A lie that names another block of the
  // same kind is not among them: no client can tell it from the truth.
  void lie_in(const void *words, std::size_t bytes, const char *where) {
    const std::vector<char> image = window_image();
    const std::size_t begin = static_cast<std::size_t>(static_cast<const char *>(words) - window_);
    for (std::size_t offset = begin; offset < begin + bytes; offset += 4) {
      std::uint32_t truth = 0;
      std::memcpy(&truth, image.data() + offset, sizeof truth);
      for (const std::uint32_t lie : {0U, 1U, 0xffffffffU, 0x7fff0000U, truth ^ 0x1000004U}) {
        std::memcpy(window_ + offset, &lie, sizeof lie);
        const encap_client_config_t config{config_, "b"};
        const int status = in_copy([&] { call_everything(a_, config); });
        std::memcpy(window_, image.data(), image.size());
        ASSERT_EQ(status, 0) << where << " at " << offset - begin << ": " << std::hex << truth << " became " << lie;
      }
    }
  }

  encap_client_t *a_ = nullptr;
  char *window_ = nullptr;
};

TEST_F(LiesTest, NoLieInTheClientsRecordsMakesAClientFault) {
  config_.nh_size = 800;
  a_ = client("a");
  encap_client_t *const b = client("b");
  for (std::uint32_t i = 0; i < 720; ++i) {
    enter(a_, key(100 + i, 100));
  }
  for (std::uint32_t i = 0; i < 40; ++i) {
    enter(b, key(100 + i, 100));
  }
  for (std::uint32_t i = 0; i < 30; ++i) {
    release(a_, kNhStart + 100 + i);
  }
  EXPECT_EQ(close(b), 0);
  const auto *const records = at<ClientRecord>(root().clients);
  const auto *const ledger = at<Ledger>(records[0].ledger);
  lie_in(&root(), sizeof root(), "root");
  lie_in(records, 2 * sizeof *records, "record");
  lie_in(ledger, offsetof(Ledger, spare), "ledger");
  lie_in(ledger->directory, 16, "directory");
  lie_in(ledger->first, 48, "bucket");
  const auto *const segments = at<std::uint64_t>(ledger->directory[0]);
  lie_in(segments, 24, "segments");
  auto *const buckets = at<Bucket>(segments[0]);
  lie_in(buckets, 32, "bucket of a segment");
  const Bucket *const full =
      std::find_if(buckets, buckets + clients::kSegmentBuckets, [](const Bucket &bucket) { return bucket.spill != 0; });
  ASSERT_NE(full, buckets + clients::kSegmentBuckets);
  lie_in(full, 16, "bucket that spills");
  lie_in(at<clients::Spill>(full->spill), sizeof(clients::Spill), "spill");
  lie_in(at<clients::QueuePage>(root().nhs.oldest), 24, "queue page");
}

TEST_F(LiesTest, AKeyBelowADamagedNodeIsRefused) {
  a_ = client("a");
  for (std::uint32_t i = 0; i < 20; ++i) {
    enter(a_, key(100, 100 + i));
  }
  auto *const children = static_cast<std::uint64_t *>(egress_encap_db->tun_root);
  const auto top = reinterpret_cast<std::uint64_t>(children);
  for (const std::uint64_t lie : {top, top + 1, std::uint64_t{16}, ~std::uint64_t{15}}) {
    for (const std::size_t side : {0U, 1U}) {
      const int refused = in_copy([&] {
        const std::uint64_t truth = std::exchange(children[side], lie);
        int keys = 0;
        for (std::uint32_t i = 0; i < 20; ++i) {
          keys += encap_client_enter(a_, key(100, 100 + i), nullptr, nullptr) == 22 ? 1 : 0;
        }
        children[side] = truth;
        _exit(keys);
      });
      EXPECT_GT(refused, 0) << std::hex << lie;
    }
  }
}

TEST_F(LiesTest, NoDamageMakesALookFault) {
  a_ = client("a");
  for (std::uint32_t i = 0; i < 40; ++i) {
    enter(a_, key(16 + i, 100 + i % 5));
  }
  const std::size_t bytes = window_image().size();
  auto *const words = reinterpret_cast<std::uint64_t *>(window_);
  const std::vector<std::uint64_t> whole(words, words + bytes / 8);
  const auto look_at_damage = [&] {
    std::mt19937_64 random(7);
    for (int trial = 0; trial < 2000; ++trial) {
      for (int i = 0; i < 64; ++i) {
        const std::size_t place = random() % (trial % 2 == 0 ? whole.size() : 4096);
        const bool is_lock = place >= (1024 + 48) / 8 && place < (1024 + 184) / 8;
        words[is_lock ? 0 : place] = random() % 2 == 0 ? random() : whole[random() % whole.size()];
      }
      for (std::uint32_t i = 0; i < 40; ++i) {
        std::uint32_t nh = 0, tunnel = 0;
        egress_encap_key_t found = key(16 + i, 100 + i % 5);
        egress_encap_aux_data_t aux{};
        encap_client_peek(a_, found, &nh, &tunnel);
        encap_client_read(a_, kNhStart + i, &found, &aux, &nh);
      }
      std::copy(whole.begin(), whole.end(), words);
    }
  };
  EXPECT_EQ(in_copy(look_at_damage), 0);
}

TEST_F(ClientTest, AChildThatClosesItsParentsClientsKeepsItsOwn) {
  encap_client_t *const a = client("a");
  const int end = in_child([&] {
    encap_client_t *x = nullptr;
    encap_client_t *y = nullptr;
    const bool refused = encap_client_close(a) == 1;
    const bool opened = open("x", &x) == 0 && open("y", &y) == 0;
    const bool closed = opened && encap_client_close(x) == 0;
    return refused && closed && encap_client_enter(y, key(16), nullptr, nullptr) == 0 ? 0 : 1;
  });
  EXPECT_EQ(end, 0);
  EXPECT_EQ(encap_client_enter(a, key(16), nullptr, nullptr), 0);
}

}  // namespace
}  // namespace test_support
