// The binary contract of the built library: exported names, needed libraries, services reached by symbol, error
// messages; and that every point is emitted by some test.
#include <gtest/gtest.h>

#include <cstdio>
#include <iostream>
#include <memory>
#include <regex>
#include <set>
#include <string>

#include "doubles/fixture.h"
#include "oxa_errmsg.h"

namespace encap_test {
namespace {

using Names = std::set<std::string>;

std::string output_of(const std::string &command) {
  const std::unique_ptr<FILE, int (*)(FILE *)> pipe(popen(command.c_str(), "r"), pclose);
  std::string text;
  char part[4096];
  while (pipe != nullptr && std::fgets(part, sizeof part, pipe.get()) != nullptr) {
    text += part;
  }
  return text;
}

Names matches(const std::string &text, const std::string &pattern) {
  const std::regex expression(pattern);
  Names names;
  for (std::sregex_iterator at(text.begin(), text.end(), expression), end; at != end; ++at) {
    names.insert((*at)[1]);
  }
  return names;
}

Names words(const char *text) {
  return matches(text, R"((\S+))");
}

Names expected_exports() {
  Names names = words(R"(
      mpls_egress_encap_db_init eencap_lock_init vrl_egress_encap_db_lock eencap_mutex_monitor_server_fn
      vrl_find_egress_encap vrl_find_and_share_egress_encap vrl_find_and_share_egress_nh
      vrl_insert_egress_encap vrl_egress_encap_nh_insert_attach vrl_find_and_set_egress_nh_ref
      vrl_egress_encap_nh_detach vrl_delete_and_free_egress_encap_with_nh_key
      vrl_can_delete_egr_nh_data_from_encap_db vrl_update_egr_nh_data_in_encap_db
      vrl_get_encap_key_and_aux_data_from_nh
      egress_encap_db ed_dummy_libmpls_egress_encap_db ed_perf_dummy_libmpls_egress_encap_db)");
  for (const std::string &message :
       words("nh_notfound nh_notvalid nh_refcount tun_notfound tun_notvalid tun_refcount")) {
    names.insert("oxa_msg_rec_mpls_encap_db_" + message + "_error");
    names.insert("oxa_msg_limit_mpls_encap_db_" + message + "_error");
  }
  return names;
}

// Every one of them is used by some test here, so the header declares them all.
TEST(ContractTest, ExportsThirtyNamesAndNothingElse) {
  EXPECT_EQ(expected_exports().size(), 30u);
  EXPECT_EQ(matches(output_of(ENCAP_NM " -D --defined-only " ENCAP_LIBRARY), R"( [A-Za-z] (\S+)\n)"),
            expected_exports());
}

TEST(ContractTest, NameAndNeeds) {
  const std::string dynamic = output_of(ENCAP_READELF " -dW " ENCAP_LIBRARY);
  EXPECT_EQ(matches(dynamic, R"(\(SONAME\).*\[(\S+)\])"), Names{"libmpls_egress_encap_db.so.1"});
  if (std::string(ENCAP_SANITIZERS).empty()) {
    Names needed = matches(dynamic, R"(\(NEEDED\).*\[(\S+?)\.so)");
    EXPECT_TRUE(needed.contains("libvrellis_services"));
    for (const char *allowed : {"libvrellis_services", "libc", "libpthread"}) {
      needed.erase(allowed);
    }
    EXPECT_EQ(needed, Names{});
  }
}

// ------------------------------------------------------------------------------------------------------------ messages

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

TEST(ContractTest, SixErrorMessagesByteForByte) {
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

// -------------------------------------------------------------------------------------------------------------- points

// After a run of all tests: every point but the reserved one was seen by the doubles.
class EveryPointWasEmitted : public ::testing::Environment {
 public:
  void TearDown() override {
    const auto &run = *::testing::UnitTest::GetInstance();
    if (run.test_to_run_count() != run.total_test_count() || !run.Passed()) {
      return;  // a part of the tests says nothing about the whole
    }
    std::string missing;
    for (std::uint32_t id = 0; id < sites().size(); ++id) {
      if (journal().points_seen().contains(id) == (id == kNeverEmitted)) {
        missing += " " + std::to_string(id);
      }
    }
    if (!missing.empty()) {
      std::cerr << "points never emitted (or emitted though reserved):" << missing << std::endl;
      std::_Exit(1);
    }
  }
};

::testing::Environment *const every_point = ::testing::AddGlobalTestEnvironment(new EveryPointWasEmitted);

}  // namespace
}  // namespace encap_test
