// docs/json.md against what the verbs print: every key is documented with its type, and every documented key is
// printed.
#include <csignal>
#include <fstream>
#include <map>
#include <set>

#include "encap_db_owner.h"
#include "encapctl_fixture.h"

namespace encapctl_test {
namespace {

using Keys = std::map<std::string, std::string>;  // by key: its types, as the page writes them

// The tables of the page, by kind.
std::map<std::string, Keys> read_page() {
  std::map<std::string, Keys> kinds;
  std::ifstream page(ENCAPCTL_JSON_PAGE);
  std::string kind;
  for (std::string line; std::getline(page, line);) {
    if (line.starts_with("## ")) {
      kind = line.substr(3);
    } else if (line.find(", with the keys of `") != line.npos) {
      const std::size_t name = line.find('`') + 1;
      const Keys base = kinds.at(line.substr(name, line.find('`', name) - name));
      kinds[kind].insert(base.begin(), base.end());
    } else if (!kind.empty() && line.starts_with("| ") && !line.starts_with("| key |")) {
      const std::size_t type = line.find(" | ") + 3;
      kinds[kind][line.substr(2, type - 5)] = line.substr(type, line.find(" | ", type) - type);
    }
  }
  return kinds;
}

class Page {
 public:
  void compare(const std::string &kind, const Json &object) {
    ASSERT_TRUE(kinds_.contains(kind)) << kind;
    walk(kind, "", object);
  }

  std::set<std::string> unseen() const {
    std::set<std::string> left;
    for (const auto &[kind, keys] : kinds_) {
      for (const auto &[key, types] : keys) {
        if (!seen_.contains(kind + ": " + key)) {
          left.insert(kind + ": " + key);
        }
      }
    }
    return left;
  }

 private:
  void walk(const std::string &kind, const std::string &key, const Json &value) {
    const auto documented = kinds_.at(kind).find(key);
    const std::string types = documented == kinds_.at(kind).end() ? "" : documented->second;
    const std::string name = types.substr(0, types.find(" or "));
    if (!types.empty()) {
      seen_.insert(kind + ": " + key);
    }
    if (value.is_object() && kinds_.contains(name)) {
      walk(name, "", value);
    } else if (value.is_object() && name != "object") {
      for (const auto &[inner, content] : value.items()) {
        if (!key.empty() || (inner != "schema" && inner != "kind")) {
          walk(kind, key + (key.empty() ? "" : ".") + inner, content);
        }
      }
    } else if (value.is_array()) {
      for (const Json &element : value) {
        walk(kind, key + "[]", element);
      }
    } else {
      const bool fits = name == value.type_name() || (value.is_null() && types.ends_with(" or null"));
      EXPECT_TRUE(fits) << kind << ": " << key << " is documented as '" << types << "', printed: " << value;
    }
  }

  const std::map<std::string, Keys> kinds_ = read_page();
  std::set<std::string> seen_;
};

class EncapctlJsonTest : public EncapctlTest {
 protected:
  void compare(const Outcome &run) {
    for (const Json &object : lines_of(run.out)) {
      page_.compare(object.at("kind"), object);
    }
  }
  void run(const std::string &words) { compare(on_window(words + " --json")); }

  void run_beside_a_daemon() {
    const Child daemon = fork_child([&](const Ready &) {
      std::signal(SIGUSR1, SIG_IGN);
      open_client("daemon");
    });
    std::ofstream(path() + ".daemon.status") << R"({"schema":"encapd/1","pid":)" << daemon.pid() << "}";
    run("clients");
    run("settle daemon");
  }

  void run_while_a_process_waits_for_the_lock() {
    const Child holder = hold_lock();
    const Child waiter = want_lock();
    EXPECT_FALSE(await_a_waiter().empty());
    run("status");
    run("trace");
    compare(encapctl({"debug", holder.pid(), "id 46 +p", "--json"}));
    run("find nh=1001");
  }

  Page page_;
};

TEST_F(EncapctlJsonTest, ThePageDocumentsEachKeyThatIsPrinted) {
  const std::string routes =
      listing("10.0.0.0/24 encap mpls 200/16001 dev eth1\n10.0.1.0/24 encap mpls 16002 dev eth1\n");
  run("load " + routes + " --nh-start 1000 --nh-size 1");
  encap_db_destroy(directory().c_str(), name_.c_str(), 1, nullptr);
  make_database();
  run("load " + routes + " --client lab");
  run("load " + routes + " --client left");
  run("find label1=16001");
  run("reclaim left");
  run_beside_a_daemon();
  run("unload --client daemon");
  run_while_a_process_waits_for_the_lock();
  open_database();
  egress_encap_db->tun_info_array[101 - kTunStart].ref_count = 9;
  close_database();
  run("find tun=101 --all-traces");
  compare(encapctl({"list", "--dir", directory(), "--json"}));
  compare(encapctl({"debug", "list", "--json"}));
  for (const char *words : {"show nhs", "show tunnels", "summary", "check", "repair", "unload --client lab"}) {
    run(words);
  }
  run("snapshot " + path() + ".snap");
  run("destroy");
  EXPECT_EQ(page_.unseen(), std::set<std::string>{});
}

}  // namespace
}  // namespace encapctl_test
