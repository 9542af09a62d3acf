#include "support/fixture.h"

#include <cstring>
#include <sstream>

#include "support/expected_points.h"

namespace encap_test {

Key Key::raw(std::size_t word, std::uint32_t bits) const {
  Key key = *this;
  auto *at = static_cast<std::uint8_t *>(static_cast<void *>(static_cast<egress_encap_key_t *>(&key))) + 4 * word;
  std::uint32_t value;
  std::memcpy(&value, at, 4);
  value |= bits;
  std::memcpy(at, &value, 4);
  return key;
}
Key Key::over(std::uint32_t label2, std::uint32_t label3) const {
  return raw(2, label2).raw(3, label3);
}
Key Key::out_of(std::uint32_t ifh_) const {
  return raw(4, ifh_);
}
Key label(std::uint32_t label1) {
  return Key().raw(0, label1);
}

Key full_key() {
  return label(0x1abcd).raw(1, 0x1f0f0u | 1u << 21 | 2u << 22 | 1u << 24).over(0x12345, 0x0fedc).out_of(0x80000123);
}

namespace {

// The values that streams name, unless a test says otherwise.
Values default_values() {
  return {{"l1", 0x1abcd},
          {"te", 0x1f0f0},
          {"fo", 1},
          {"proto", 2},
          {"l2vpn", 1},
          {"l2", 0x12345},
          {"l3", 0x0fedc},
          {"ifh", 0x80000123},
          {"seed", 0xfffffff0},
          {"fnh", 0x87654321},
          {"fid", 0xabc},
          {"prot", 1},
          {"nh", DbTest::kNh},
          {"tun", DbTest::kTunnel},
          {"slot", DbTest::kTunnel - DbTest::kTunStart}};
}

// The names in "50(count=3,rc=1)"; the values among them go on top of `values`.
std::vector<std::string> arguments_of(const std::string &word, Values &values) {
  std::vector<std::string> names;
  const std::size_t open = word.find('(');
  if (open == std::string::npos || word.back() != ')') {
    return names;
  }
  std::istringstream arguments(word.substr(open + 1, word.size() - open - 2));
  for (std::string argument; std::getline(arguments, argument, ',');) {
    const std::size_t equals = argument.find('=');
    const std::string name = argument.substr(0, equals);
    if (equals != std::string::npos) {
      values[name] = static_cast<std::uint32_t>(std::stoull(argument.substr(equals + 1), nullptr, 0));
    }
    names.push_back(name);
  }
  return names;
}

std::string value_of(const std::string &name, const Values &values) {
  if (name == "0") {
    return name;
  }
  const auto found = values.find(name);
  return found == values.end() ? "?" + name : std::to_string(found->second);
}

std::string point_lines(const ExpectedPoint &point, const Values &values, bool message) {
  const std::string id = std::to_string(point.id);
  std::string print = "print(" + id + ")";
  std::string records;
  for (std::size_t i = 0; i < point.values.size(); ++i) {
    const std::string value = value_of(point.values[i], values);
    print += (i ? "," : "=") + value;
    const bool begins = i % 7 == 0;
    records += begins ? (i ? "\n" : "") + ("trace(" + id + "." + std::to_string(i / 7)) + ")=" + value : "," + value;
  }
  if (records.empty()) {
    records = "trace(" + id + ".0)=0";
  }
  return (message ? print + "\n" : "") + (point.traced ? records + "\n" : "");
}

std::string message_line(const std::string &name, const std::vector<std::string> &names, const Values &values) {
  static const std::map<std::string, const char *> fields = {{"NH_NOTVALID_ERROR", "nh count"},
                                                             {"TUN_NOTVALID_ERROR", "tun slot count"}};
  const auto own = fields.find(name);
  std::istringstream words(own == fields.end() ? "l1 l2 l3 te fo proto ifh nh tun seed" : own->second);
  std::string line = name + "(" + names.front();
  for (std::string word; words >> word;) {
    line += "," + value_of(word, values);
  }
  return line + ")\n";
}

std::string literal(std::string word) {
  const Key key = full_key();
  const auto *bytes =
      static_cast<const std::uint8_t *>(static_cast<const void *>(static_cast<const egress_encap_key_t *>(&key)));
  if (const auto at = word.find("$T"); at != std::string::npos) {
    word.replace(at, 2, tunnel_name(bytes + 8));
  }
  if (const auto at = word.find("$N"); at != std::string::npos) {
    word.replace(at, 2, nh_name(bytes));
  }
  return word + "\n";
}

class FirstCallsMade : public ::testing::Environment {
 public:
  void SetUp() override {
    arena().reset();
    watch(&arena().header()->lock.mutex);
    made.null_status = mpls_egress_encap_db_init(kWindow, 1, 1, 1, 1, nullptr);
    made.database_after_null = egress_encap_db;
    made.null_journal = journal().take();
    arena().header()->is_initialized = 0;
    made.status = mpls_egress_encap_db_init(kWindow, 2, 3, 10, 20, arena().header());
    made.journal = journal().take();
  }
  FirstCalls made;
};

FirstCallsMade *const first = [] {
  auto *environment = new FirstCallsMade;
  ::testing::AddGlobalTestEnvironment(environment);
  return environment;
}();

}  // namespace

const FirstCalls &first_calls() {
  return first->made;
}

std::string expand(const std::string &stream, const Values &values, bool messages) {
  std::string text;
  std::istringstream words(stream);
  for (std::string word; words >> word;) {
    const std::string head = word.substr(0, word.find('('));
    Values own = values;
    const auto names = arguments_of(word, own);
    if (head.find_first_not_of("0123456789") == std::string::npos) {
      text += point_lines(expected_points().at(std::stoul(head)), own, messages);
    } else {
      text += head.ends_with("_ERROR") ? message_line(head, names, own) : literal(word);
    }
  }
  return text;
}

void DbTest::open(std::uint32_t nh_start, std::uint32_t nh_size, std::uint32_t tun_start, std::uint32_t tun_size) {
  arena().reset();
  faults().clear();
  db().is_initialized = 0;
  watch(&db().lock.mutex);
  set_messages(messages);
  ASSERT_EQ(mpls_egress_encap_db_init(kWindow, nh_size, tun_size, nh_start, tun_start, &db()), 0);
  model = Model(nh_start, nh_size, tun_start, tun_size);
  values = default_values();
  outs = {};
  journal().take();
}

void DbTest::TearDown() {
  faults().clear();
  set_messages(false);
  EXPECT_EQ(held(), 0) << "the lock is still held";
}

egress_encap_info_t DbTest::record(std::uint32_t nh, std::uint32_t tunnel, bool tunnel_found, bool nh_found) {
  egress_encap_info_t info{};
  info.egr_nh = nh;
  info.egr_tun = tunnel;
  info.seed_nh = 0xfffffff0;
  info.failover_nh = 0x87654321;
  info.failover_id = 0xabc;
  info.is_protected_te_nh = 1;
  info.tun_found = tunnel_found;
  info.nh_found = nh_found;
  return info;
}

int DbTest::Entry::on(std::uint32_t tunnel) {
  egress_encap_info_t info = record(nh_, tunnel);
  egress_encap_info_t expected = info;
  EXPECT_EQ(vrl_find_egress_encap(&info, key_), db_.model.find(expected, key_, false));
  EXPECT_EQ(std::memcmp(&info, &expected, sizeof info), 0);
  const int status = vrl_insert_egress_encap(&info, key_);
  EXPECT_EQ(status, db_.model.insert(expected, key_));
  db_.expect_database();
  journal().take();
  return status;
}

void DbTest::set_count(std::uint32_t nh, std::uint32_t count) {
  EXPECT_EQ(vrl_find_and_set_egress_nh_ref(nh, count), 0);
  model.set(nh, count);
  journal().take();
}

void DbTest::SlotView::count(std::uint32_t expected) const {
  std::uint32_t is;
  std::memcpy(&is, bytes_.data(), sizeof is);
  EXPECT_EQ(is, expected);
}

DbTest::SlotView DbTest::expect_nh(std::uint32_t nh) {
  const auto *at = static_cast<const std::uint8_t *>(static_cast<void *>(&nh_slot(nh)));
  return Bytes(at, at + sizeof(egr_nh_info_t));
}

DbTest::SlotView DbTest::expect_tunnel(std::uint32_t tunnel) {
  const auto *at = static_cast<const std::uint8_t *>(static_cast<void *>(&tunnel_slot(tunnel)));
  return Bytes(at, at + sizeof(egr_tun_info_t));
}

void DbTest::expect_database() {
  EXPECT_EQ(differences(db(), model, walk_list), "");
  EXPECT_TRUE(arena().gaps_intact()) << "written outside a block";
  EXPECT_EQ(db().spare, 0xA5A5A5A5u);
  EXPECT_EQ(db().spare_end, 0xA5A5A5A5u);
  EXPECT_EQ(db().is_initialized, 0u);
  std::size_t blocks = 2;  // the slot arrays
  for (const auto &[key, tunnel] : model.tunnels) {
    blocks += 1 + tunnel.nhs.size();
  }
  EXPECT_EQ(arena().blocks().size(), blocks) << "blocks in the window";
}

void DbTest::expect_journal(const std::string &stream, const Values &more) {
  Values all = values;
  for (const auto &[name, value] : more) {
    all[name] = value;
  }
  EXPECT_EQ(journal().take(), expand(stream, all, messages)) << "stream: " << stream;
}

}  // namespace encap_test
