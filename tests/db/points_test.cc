// The debug points: their descriptors and texts, and what each pass of a point does.
#include <algorithm>
#include <sstream>

#include "diag/catalogue.h"
#include "doubles/fixture.h"

namespace encap_test {
namespace {

constexpr std::uint16_t kStored = 0x11;

class PointsTest : public DbTest {
 protected:
  void SetUp() override {
    reports = Reports::records;
    DbTest::SetUp();
  }
  // The one point under test; every other one is silent.
  void only(std::uint32_t id, std::uint32_t flags) {
    for (const Site &point : sites()) {
      point.site->flags = 0x04;
    }
    sites()[id].site->flags = static_cast<std::uint16_t>(flags);
  }
};

// The chain of descriptors against the catalogue, whose printed page is compared with docs/points.md.
TEST_F(PointsTest, TheChainOfDescriptorsIsTheCatalogueInReverse) {
  ed_site_t head{};
  EXPECT_EQ(std::memcmp(&ed_perf_dummy_libmpls_egress_encap_db, &head, sizeof head), 0);
  head.next = sites().back().site;
  EXPECT_EQ(std::memcmp(&ed_dummy_libmpls_egress_encap_db, &head, sizeof head), 0);
  EXPECT_STREQ(encap_catalogue.component, registration().record.name);
  ASSERT_EQ(sites().size(), encap_catalogue.num_rows);
  for (std::uint32_t id = 0; id < sites().size(); ++id) {
    SCOPED_TRACE(id);
    const ed_catalogue_row_t &row = encap_catalogue.row[id];
    const ed_site_t &site = *sites()[id].site;
    EXPECT_EQ(site.flags, row.traced != 0 ? 0x31 : 0x11);
    EXPECT_EQ(site.category, row.category);
    EXPECT_EQ(site.trace_index, row.traced != 0 ? row.category : 255);
    EXPECT_EQ(sites()[id].line, row.line);
    EXPECT_EQ(site.num_values, row.num_values);
    EXPECT_TRUE(id == kNeverEmitted || site.num_values == values_of_point(id).size());
    EXPECT_EQ(site.zero + site.zero_end, 0u);
    EXPECT_EQ(row.id, id);
  }
}

// The names that streams give the values tell which of them are indexes.
TEST_F(PointsTest, EachTellsWhichNhAndTunnelItIsAbout) {
  for (std::uint32_t id = 0; id < sites().size(); ++id) {
    const std::vector<std::string> &names = values_of_point(id);
    const auto number_of = [&](const char *name) {
      const auto at = std::find(names.begin(), names.end(), name);
      return at == names.end() ? 0 : at - names.begin() + 1;
    };
    const encap_point_subject_t &about = encap_point_subject[id];
    EXPECT_TRUE(id == kNeverEmitted || about.nh == number_of("nh")) << id;
    EXPECT_EQ(about.tunnel, number_of("tun")) << id;
    EXPECT_TRUE(about.nh_found == 0 || about.nh_found == number_of("nhf")) << id;
    EXPECT_TRUE(about.tunnel_found == 0 || about.tunnel_found == number_of("tunf")) << id;
  }
}

// Messages keep the pieces in which they are stored. Of each text a hash, and one of them in full.
TEST_F(PointsTest, TheStoredTextsKeepTheirPieces) {
  EXPECT_STREQ(encap_catalogue.row[23].format,
               R"("vrl_mem_set_egr_tun_data tunnel_if %d, " "out_label2.label %d, out_label3.label %d")");
  std::uint64_t hash = 0;
  for (std::uint32_t id = 0; id < encap_catalogue.num_rows; ++id) {
    for (const char each : std::string_view(encap_catalogue.row[id].format)) {
      hash = hash * 31 + static_cast<unsigned char>(each);
    }
  }
  EXPECT_EQ(hash, 0xD72CAD388B7973AFu) << "a text that tools and users know has changed";
}

// The lines of a journal that points wrote.
std::string reports_in(const std::string &text) {
  std::istringstream lines(text);
  std::string kept;
  for (std::string line; std::getline(lines, line);) {
    const bool report = line.starts_with("print") || line.starts_with("slow") || line.starts_with("trace");
    kept += report ? line + "\n" : "";
  }
  return kept;
}

// What a point reports in its descriptor's state, derived case by case.
std::string reports_in(std::uint32_t flags, std::uint32_t filter_set, bool own_line, int answer,
                       const std::string &message, const std::string &records) {
  std::string text;
  bool enabled = false;
  if (flags & 0x40) {
    const bool filtered = filter_set != 0 || (flags & 0x200);
    const bool line_matches = own_line || !(flags & 0x200);
    enabled = !filtered || line_matches != ((flags & 0x100) != 0);
    text = enabled && !(flags & 0x06) ? "print" + message : "";
  } else if (flags & 0x80) {
    text = "slow" + message;
    enabled = answer != 0;
  }
  return text + (enabled || !(flags & 0x04) ? records : "");
}

// One point of each kind: its category decides which road it takes.
struct Subject {
  std::uint32_t id;
  const char *values;
  const char *records;  // what a pass traces
  void (*pass)(DbTest &);
};

const Subject kSubjects[] = {
    {46, "=999", "trace(46.0)=999\n", [](DbTest &) { vrl_find_and_share_egress_nh(999); }},
    {81, "", "trace(81.0)=0\n", [](DbTest &) { vrl_egress_encap_nh_insert_attach(nullptr, 0, Key()); }},
    {34, "=105", "trace(34.0)=105\n", [](DbTest &) { vrl_can_delete_egr_nh_data_from_encap_db(DbTest::kNh); }},
    {68, "=0", "",
     [](DbTest &) {
       egress_encap_info_t info = record(106, 8);
       vrl_insert_egress_encap(&info, label(16).out_of(1));
       crash::on_database(crash::on_nh(Verb::kDetach, 106));
     }},
    {113, "", "trace(113.0)=0\n", [](DbTest &db) { mpls_egress_encap_db_init(kWindow, 0, 0, 0, 0, &db.db()); }},
};

// Every set of the six flags, with and without the stored ones, filters, lines and answers of the facility.
TEST_F(PointsTest, WholeTableOfDecisions) {
  enter(full_key(), kNh, kTunnel);
  for (const Subject &subject : kSubjects) {
    db().is_initialized = subject.id == 113;
    const auto &[site, line] = sites()[subject.id];
    const std::string message = "(" + std::to_string(subject.id) + ")" + subject.values + "\n";
    for (std::uint32_t state = 0; state < 64 * 2 * 3 * 2 * 3; ++state) {
      std::uint32_t rest = state;
      const auto pick = [&rest](std::initializer_list<std::uint32_t> from) {
        const std::uint32_t one = from.begin()[rest % from.size()];
        rest /= static_cast<std::uint32_t>(from.size());
        return one;
      };
      const std::uint32_t stored = pick({0x31, 0}), filter_set = pick({0, 1, 0x80}), off = pick({0, 1});
      const auto answer = static_cast<int>(pick({0, 1, 2}));
      const std::uint32_t flags = stored | (rest & 3) << 1 | (rest & 60) << 4;  // 0x02 0x04 0x40 0x80 0x100 0x200
      only(subject.id, flags);
      site->line = filter_set << 24 | (line + off);
      slow_answers(answer);
      subject.pass(*this);
      EXPECT_EQ(reports_in(journal().take()), reports_in(flags, filter_set, off == 0, answer, message, subject.records))
          << "flags " << flags << " filter_set " << filter_set << " off " << off;
    }
  }
}

}  // namespace
}  // namespace encap_test
