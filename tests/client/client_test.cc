// Clients: who holds what, how names pass on, and that a call that fails changes nothing.
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <thread>

#include "client_fixture.h"

namespace test_support {
namespace {

TEST_F(ClientTest, ReferencesAreSharedAndTheLastOneTakesTheEncapsulationOut) {
  encap_client_t *const a = client("a");
  encap_client_t *const b = client("b");
  const encap_attributes_t attributes{.seed_nh = 7, .failover_nh = 8, .failover_id = 9, .is_protected_te_nh = 1};
  encap_entry_t entry{};
  ASSERT_EQ(encap_client_enter(a, key(16, 100), &attributes, &entry), 0);
  EXPECT_TRUE(entry.nh == kNhStart && entry.tunnel == kTunStart && entry.held == 1);
  EXPECT_TRUE(entry.nh_created == 1 && entry.tunnel_created == 1 && entry.renewed == 0);
  egress_encap_aux_data_t aux{};
  egress_encap_key_t read{};
  ASSERT_EQ(vrl_get_encap_key_and_aux_data_from_nh(entry.nh, &aux, &read), 0);
  EXPECT_TRUE(aux.seed_nh == 7 && aux.failover_nh == 8 && aux.failover_id == 9 && aux.is_protected_te_nh == 1);

  entry = enter(b, key(16, 100));
  EXPECT_TRUE(entry.nh == kNhStart && entry.held == 1 && entry.nh_created == 0 && entry.tunnel_created == 0);
  entry = enter(b, key(17, 100));
  EXPECT_TRUE(entry.nh_created == 1 && entry.tunnel_created == 0 && entry.tunnel == kTunStart);
  EXPECT_EQ(enter(a, key(16, 100)).held, 2U);
  EXPECT_EQ(count_of(kNhStart), 3U);

  EXPECT_EQ(encap_client_release(a, kNhStart + 1, nullptr), 2) << "another client's reference";
  EXPECT_EQ(release(a, kNhStart).held, 1U);
  EXPECT_EQ(release(a, kNhStart).nh_left, 0U);
  EXPECT_EQ(encap_client_release(a, kNhStart, nullptr), 2) << "released twice";
  encap_left_t left = release(b, kNhStart);
  EXPECT_TRUE(left.nh_left == 1 && left.tunnel_left == 0 && left.tunnel == kTunStart);
  left = release(b, kNhStart + 1);
  EXPECT_TRUE(left.nh_left == 1 && left.tunnel_left == 1);
  EXPECT_EQ(encap_client_release(b, 5, nullptr), 2) << "out of range";
  EXPECT_EQ(egress_encap_db->tun_root, nullptr);
  for (const std::uint32_t ifh : {1U, 2U}) {  // keys without upper labels share the null tunnel
    entry = enter(a, key(16 + ifh, 0, ifh));
    EXPECT_TRUE(entry.tunnel == 0 && entry.nh_created == 1 && entry.tunnel_created == 0);
  }
  EXPECT_EQ(release(a, entry.nh - 1).tunnel_left + release(a, entry.nh).tunnel_left, 0U);
  read.spare_word2 = 1;
  EXPECT_EQ(encap_client_enter(a, read, nullptr, nullptr), 22) << "a bit outside the fields";
  std::uint32_t count = 0;
  EXPECT_EQ(encap_client_read(a, kNhStart - 1, &read, &aux, &count), 22);
  EXPECT_EQ(encap_client_read(a, kNhStart + config_.nh_size, &read, &aux, &count), 22);
  EXPECT_EQ(egress_encap_db->tun_root, nullptr);
}

TEST_F(ClientTest, NamesPassOnWithAllThatTheyHold) {
  encap_client_t *a = client("routes.v4-A_1");
  encap_client_t *again = nullptr;
  EXPECT_EQ(open("routes.v4-A_1", &again), 16);
  EXPECT_NE(std::strstr(error_.text, "alive"), nullptr) << error_.text;
  const std::uint32_t nh = enter(a, key(16)).nh;
  enter(a, key(16));
  EXPECT_EQ(close(a), 0);
  client("other");  // keeps the database attached
  a = client("routes.v4-A_1");
  EXPECT_EQ(holdings(a), (Holdings{{nh, {2, 0}}}));
  EXPECT_EQ(leave(a), 0);
  EXPECT_EQ(egress_encap_db->tun_root, nullptr);

  for (const char *const bad : {"", "a b", "a/b", "0123456789012345678901234567890x"}) {
    EXPECT_EQ(open(bad, &again), 22) << bad;
  }
  encap_client_config_t unnamed{config_, nullptr};
  EXPECT_EQ(encap_client_open(&unnamed, &again, nullptr), 22);
  for (int i = 0; i < 63; ++i) {
    client(("n" + std::to_string(i)).c_str());
  }
  EXPECT_EQ(open("one-too-many", &again), 11) << error_.text;
}

// Processes that die again and again, each under a name of its own, do not use the names up.
TEST_F(ClientTest, TheNameOfADeadClientThatHoldsNothingIsFreeWhenAllAreTaken) {
  encap_client_t *const a = client("a");
  for (int i = 1; i < ENCAP_CLIENT_MAX + 5; ++i) {
    const int end = in_child([&] {
      encap_client_t *own = nullptr;
      const int status = open(("n" + std::to_string(i)).c_str(), &own);
      return status != 0 || (i == 1 && encap_client_enter(own, key(16), nullptr, nullptr) != 0) ? 1 : 0;
    });
    ASSERT_EQ(end, 0) << i;
  }
  EXPECT_EQ(holdings(client("n1")).size(), 1U);
  std::uint32_t count = 0;
  EXPECT_EQ(encap_client_list(a, nullptr, 0, &count), 0);
  EXPECT_EQ(count, std::uint32_t{ENCAP_CLIENT_MAX});
}

// The kernel gave the pid of a dead client's process to another one.
TEST_F(ClientTest, APidThatIsInUseAgainIsNotTheClients) {
  client("a");
  encap_client_t *b = client("b");
  enter(b, key(16));
  EXPECT_EQ(close(b), 0);
  auto *const records = at<clients::ClientRecord>(root().clients);
  constexpr std::uint64_t kSecond = std::uint64_t{100} << 22;
  records[1].process = records[0].process - kSecond;
  EXPECT_EQ(holdings(client("b")).size(), 1U) << error_.text;
}

TEST_F(ClientTest, ADeadClientsNameAndReferencesAreTakenUpOrReclaimed) {
  encap_client_t *const a = client("a");
  const pid_t child = spawn([&] {
    encap_client_t *own = nullptr;
    const bool refused = encap_client_enter(a, key(1), nullptr, nullptr) == 1;
    const bool opened = open("dies", &own) == 0;
    const bool entered = opened && encap_client_enter(own, key(16, 100), nullptr, nullptr) == 0 &&
                         encap_client_enter(own, key(16, 100), nullptr, nullptr) == 0 &&
                         encap_client_enter(own, key(17), nullptr, nullptr) == 0;
    return refused && entered ? 0 : 1;
  });
  ASSERT_EQ(end_of(child), 0);
  encap_client_info_t info[4];
  std::uint32_t count = 0;
  ASSERT_EQ(encap_client_list(a, info, 4, &count), 0);
  ASSERT_EQ(count, 2U);
  EXPECT_STREQ(info[1].name, "dies");
  EXPECT_TRUE(info[1].state == ENCAP_CLIENT_DEAD && info[1].pid == static_cast<std::uint32_t>(child));
  EXPECT_TRUE(info[1].nhs == 2 && info[1].held == 3 && info[1].entered == 3);
  EXPECT_EQ(encap_client_reclaim(a, "nobody", nullptr, nullptr), 2);
  EXPECT_EQ(encap_client_reclaim(a, "a", nullptr, nullptr), 16);
  std::vector<encap_left_t> gone;
  const auto add = [](const encap_left_t *left, void *arg) {
    static_cast<std::vector<encap_left_t> *>(arg)->push_back(*left);
  };
  EXPECT_EQ(encap_client_reclaim(a, "dies", add, &gone), 0);
  EXPECT_EQ(gone.size(), 3U);
  EXPECT_EQ(egress_encap_db->tun_root, nullptr);
  ASSERT_EQ(encap_client_list(a, info, 4, &count), 0);
  EXPECT_EQ(count, 1U);
}

TEST_F(ClientTest, ARefreshRenewsWhatComesAgainAndReleasesTheRest) {
  encap_client_t *a = client("a");
  encap_client_t *const b = client("b");
  const std::uint32_t kept = enter(a, key(16, 100)).nh;
  const std::uint32_t lost = enter(a, key(17, 100)).nh;
  const std::uint32_t fewer = enter(a, key(18, 100)).nh;
  enter(a, key(18, 100));
  enter(b, key(17, 100));
  ASSERT_EQ(encap_client_refresh_begin(a), 0);
  EXPECT_EQ(close(a), 0);  // the marks last
  a = client("a");
  ASSERT_EQ(encap_client_refresh_begin(a), 0);
  const encap_entry_t renewed = enter(a, key(16, 100));
  EXPECT_TRUE(renewed.renewed == 1 && renewed.held == 1 && renewed.nh == kept && renewed.nh_created == 0);
  EXPECT_EQ(enter(a, key(16, 100)).renewed, 0U) << "no stale one is left";
  EXPECT_EQ(enter(a, key(18, 100)).renewed, 1U);
  EXPECT_EQ(holdings(a)[fewer], (std::pair<std::uint32_t, std::uint32_t>{2, 1}));
  EXPECT_EQ(release(a, fewer).held, 1U) << "the fresh one goes first";
  EXPECT_EQ(holdings(a)[fewer], (std::pair<std::uint32_t, std::uint32_t>{1, 1}));
  EXPECT_EQ(enter(a, key(18, 100)).renewed, 1U);
  enter(a, key(18, 100));
  std::map<std::uint32_t, int> gone;
  const auto add = [](const encap_left_t *left, void *arg) {
    ++(*static_cast<std::map<std::uint32_t, int> *>(arg))[left->nh];
  };
  ASSERT_EQ(encap_client_refresh_end(a, add, &gone), 0);
  EXPECT_EQ(gone, (std::map<std::uint32_t, int>{{lost, 1}}));
  EXPECT_EQ(count_of(lost), 1U) << "the other client's stays";
  EXPECT_EQ(holdings(a), (Holdings{{kept, {2, 0}}, {fewer, {2, 0}}}));
  EXPECT_EQ(encap_client_refresh_end(a, add, &gone), 0);
  EXPECT_EQ(gone.size(), 1U);
  for (std::uint32_t refresh = 1; refresh <= 2 * clients::kEpochs + 1; ++refresh) {
    ASSERT_EQ(encap_client_refresh_begin(a), 0);
    ASSERT_EQ(holdings(a)[kept], (std::pair<std::uint32_t, std::uint32_t>{2, 2})) << "refresh " << refresh;
  }
}

TEST_F(ClientTest, AnIndexGivenBackIsTheLastToBeGivenOutAgain) {
  config_.nh_size = 5;
  config_.tun_size = 3;
  encap_client_t *const a = client("a");
  EXPECT_EQ(enter(a, key(16, 100)).nh, kNhStart);
  EXPECT_TRUE(release(a, kNhStart).tunnel_left);
  for (std::uint32_t i = 1; i < 4; ++i) {
    const encap_entry_t entry = enter(a, key(16 + i, 100 + (i < 3 ? i : 2)));
    EXPECT_EQ(entry.nh, kNhStart + i);
    EXPECT_EQ(entry.tunnel, kTunStart + (i < 3 ? i : 2));
  }
  release(a, kNhStart + 2);
  EXPECT_EQ(enter(a, key(30, 102)).nh, kNhStart + 4);
  EXPECT_EQ(enter(a, key(31, 102)).nh, kNhStart);
  EXPECT_EQ(enter(a, key(32, 102)).nh, kNhStart + 2);
  encap_entry_t entry{};
  EXPECT_EQ(encap_client_enter(a, key(33, 102), nullptr, &entry), 28);
  EXPECT_EQ(enter(a, key(30, 102)).held, 2U) << "a key that is there needs no index";
  release(a, kNhStart + 2);
  EXPECT_EQ(enter(a, key(33, 109)).tunnel, kTunStart);
}

// New tunnels get pages with room for their NHs. One NH stays on each page, so that pages run short.
TEST_F(ClientTest, SparseNodesLeaveThePagesThatClientsNeed) {
  config_.nh_size = 2000;
  config_.tun_size = 2000;
  encap_client_t *const a = client("a");
  for (std::uint32_t i = 0; i < 1900; ++i) {
    const encap_entry_t entry = enter(a, key(16 + i, 100 + i));
    if (i % 7 != 0) {
      release(a, entry.nh);
    }
  }
  for (int i = 1; i < ENCAP_CLIENT_MAX; ++i) {
    enter(client(("n" + std::to_string(i)).c_str()), key(16, 100));
  }
}

// A process that uses the operations directly takes an index that the clients would choose.
TEST_F(ClientTest, ProcessesWithoutAClientWorkBesideClients) {
  config_.nh_size = 4;
  encap_client_t *const a = client("a");
  egress_encap_info_t info{};
  info.egr_nh = kNhStart + 1;
  ASSERT_EQ(vrl_insert_egress_encap(&info, key(50, 0)), 0);
  for (const std::uint32_t free : {0U, 2U, 3U}) {
    EXPECT_EQ(enter(a, key(16 + free)).nh, kNhStart + free);
  }
  release(a, kNhStart);
  info.egr_nh = kNhStart;
  info.tun_found = 1;
  ASSERT_EQ(vrl_insert_egress_encap(&info, key(51)), 0);
  EXPECT_EQ(encap_client_enter(a, key(19, 1), nullptr, nullptr), 28) << "an index that waited is in use again";
  std::uint32_t unused = 0;
  ASSERT_EQ(vrl_delete_and_free_egress_encap_with_nh_key(kNhStart + 1, &unused, &unused, &unused), 0);
  usleep(150'000);
  EXPECT_EQ(enter(a, key(19, 1)).nh, kNhStart + 1) << "an index that came back without the client's doing is found";
}

// One thread enters and releases an encapsulation on a tunnel of its own; looks without the lock see both or neither.
TEST_F(ClientTest, BesideABusyWriterEveryLookIsOneOfTwo) {
  encap_client_t *const a = client("a");
  encap_client_t *const b = client("b");
  const encap_entry_t stays = enter(a, key(16, 100));
  std::atomic<bool> stop{false};
  std::atomic<std::uint32_t> looks{0};
  std::thread reader([&] {
    for (; !stop; ++looks) {
      std::uint32_t nh = 0, tunnel = 0;
      EXPECT_EQ(encap_client_peek(b, key(16, 100), &nh, &tunnel), 0);
      EXPECT_TRUE(nh == stays.nh && tunnel == stays.tunnel) << nh << ' ' << tunnel;
      const int status = encap_client_peek(b, key(16, 101), &nh, &tunnel);
      EXPECT_TRUE(status == 0 ? nh != UINT32_MAX && tunnel != UINT32_MAX
                              : status == 2 && nh == UINT32_MAX && tunnel == UINT32_MAX)
          << status << ' ' << nh << ' ' << tunnel;
    }
  });
  for (std::uint32_t i = 0; i < 20000 || looks == 0; ++i) {
    release(a, enter(a, key(16, 101)).nh);
  }
  stop = true;
  reader.join();
}

}  // namespace
}  // namespace test_support
