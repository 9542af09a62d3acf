// A database in a window of the test's own, filled through the library, and what the inspector says of it.
#ifndef INSPECT_FIXTURE_H
#define INSPECT_FIXTURE_H

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "child.h"
#include "database.h"
#include "repair/repair.h"
#include "shmwin/layout.h"

namespace inspect_tests {

using namespace encap_inspect;

struct Ranges {
  std::uint32_t nh_start = 100, nh_size = 64, tun_start = 5, tun_size = 12;
};

// What a caller entered and did not yet take out.
struct Entered {
  egress_encap_key_t key;
  std::uint32_t tunnel, count;
};

class InspectTest : public ::testing::Test {
 protected:
  static constexpr std::uint32_t kId = 3;

  void SetUp() override { open({}); }
  void TearDown() override { encap_db_close(); }

  void open(const Ranges &ranges) {
    encap_db_close();
    std::filesystem::remove(path());
    ranges_ = ranges;
    entered_.clear();
    const encap_db_config_t config = config_of("window");
    shmwin_error_t error{};
    ASSERT_EQ(encap_db_open(&config, nullptr, &error), 0) << error.text;
    void *begin = nullptr;
    ASSERT_EQ(shmwin_bounds(kId, &begin, &bytes_), 0);
    window_ = static_cast<std::uint8_t *>(begin);
  }

  encap_db_config_t config_of(const char *name) const {
    return test_support::database_in(directory_, name, kId, {ranges_.nh_start, ranges_.nh_size},
                                     {ranges_.tun_start, ranges_.tun_size});
  }

  std::string path() const { return directory_ + "/window"; }
  vrellis::WindowHeader &window_header() { return *reinterpret_cast<vrellis::WindowHeader *>(window_); }
  egress_encap_db_t &db() { return *egress_encap_db; }
  egr_nh_info_t &nh(std::uint32_t index) { return db().nh_info_array[index - ranges_.nh_start]; }
  egr_tun_info_t &tunnel(std::uint32_t index) {
    return db().tun_info_array[(index == 0 ? db().tun_end : index) - db().tun_start];
  }

  // One key a tunnel and a label; tunnel 0 is the null tunnel of the interface 70 + label % 2.
  static egress_encap_key_t key(std::uint32_t tunnel, std::uint32_t label) {
    egress_encap_key_t made{};
    made.out_label1 = label & 0x1fffff;
    made.protocol = label & 3;
    made.out_label2 = tunnel != 0 ? (1000 + tunnel) & 0x1fffff : 0;
    made.out_label3 = tunnel != 0 ? 2000 : 0;
    made.ifh = tunnel != 0 ? 50 + tunnel : 70 + label % 2;
    return made;
  }

  // Finds, and inserts what is missing.
  int enter(std::uint32_t nh_index, std::uint32_t tunnel, std::uint32_t label) {
    const egress_encap_key_t wanted = key(tunnel, label);
    egress_encap_info_t info{};
    vrl_find_egress_encap(&info, wanted);
    if (info.nh_found != 0) {
      return -1;
    }
    info.egr_nh = nh_index;
    info.egr_tun = tunnel;
    info.seed_nh = nh_index + 7;
    const int status = vrl_insert_egress_encap(&info, wanted);
    if (status == 0) {
      entered_[nh_index] = {wanted, tunnel, 1};
    }
    return status;
  }

  // Returns: whether its tunnel is to be taken out of the hardware.
  bool take_out(std::uint32_t nh_index) {
    std::uint32_t tunnel_index = 0, goes = 0, count = 0;
    EXPECT_EQ(vrl_egress_encap_nh_detach(nh_index, &tunnel_index, &goes, &count), 0) << "NH " << nh_index;
    entered_.erase(nh_index);
    return goes == 1;
  }

  // `nhs` NHs on each of `tunnels` tunnels, and as many on the null tunnel.
  void fill(std::uint32_t tunnels, std::uint32_t nhs) {
    std::uint32_t index = ranges_.nh_start + 1;
    for (std::uint32_t t = 0; t <= tunnels; ++t) {
      for (std::uint32_t label = 0; label < nhs; ++label) {
        ASSERT_EQ(enter(index++, t == 0 ? 0 : ranges_.tun_start + t, 16 + label), 0);
      }
    }
  }

  pid_t hold_lock() {
    return test_support::spawn_waiting([&] { vrl_egress_encap_db_lock(&db().lock.mutex); });
  }

  Report look() { return check(View::copy_of(window_, bytes_)); }

  static std::string text(const Report &report) {
    std::string all = report.looked ? "" : "not looked\n";
    for (const Finding &finding : report.findings) {
      all += std::string(name_of(finding.kind)) + ": " + finding.text + "\n";
    }
    return all;
  }

  static std::set<std::string> kinds(const Report &report) {
    std::set<std::string> names;
    for (const Finding &finding : report.findings) {
      names.insert(name_of(finding.kind));
    }
    return names;
  }

  // Every entry of the caller is there, as it was entered; nothing else is.
  void expect_entries() {
    const View view = View::copy_of(window_, bytes_);
    EXPECT_EQ(decode(view).nhs.size(), entered_.size());
    for (const auto &[index, entry] : entered_) {
      egress_encap_info_t info{};
      EXPECT_EQ(vrl_find_egress_encap(&info, entry.key), 0);
      EXPECT_TRUE(info.nh_found == 1 && info.egr_nh == index) << "NH " << index << " is found at " << info.egr_nh;
      EXPECT_EQ(info.egr_tun, entry.tunnel) << "NH " << index;
      EXPECT_EQ(nh(index).ref_count, entry.count) << "NH " << index;
      EXPECT_EQ(nh(index).seed_nh, index + 7);
    }
  }

  // Repairs, expects an empty check behind it and the caller's entries as they were.
  RepairResult expect_mended(const RepairOptions &options = {}) {
    RepairResult result = repair(kId, options);
    EXPECT_EQ(result.status, 0) << result.error;
    EXPECT_EQ(text(result.after), "");
    EXPECT_EQ(text(look()), "");
    expect_entries();
    return result;
  }

  const test_support::Directory home_;
  const std::string &directory_ = home_.path();
  Ranges ranges_;
  std::uint8_t *window_ = nullptr;
  std::size_t bytes_ = 0;
  std::map<std::uint32_t, Entered> entered_;
};

}  // namespace inspect_tests

#endif
