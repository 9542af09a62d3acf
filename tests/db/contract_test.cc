// The binary contract of the built library: exported names, needed libraries, services reached by symbol.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <memory>
#include <regex>
#include <set>
#include <sstream>
#include <string>

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

std::string content(const char *path) {
  std::ifstream file(path);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

Names expected_exports() {
  Names names = {"mpls_egress_encap_db_init",
                 "eencap_lock_init",
                 "vrl_egress_encap_db_lock",
                 "eencap_mutex_monitor_server_fn",
                 "vrl_find_egress_encap",
                 "vrl_find_and_share_egress_encap",
                 "vrl_find_and_share_egress_nh",
                 "vrl_insert_egress_encap",
                 "vrl_egress_encap_nh_insert_attach",
                 "vrl_find_and_set_egress_nh_ref",
                 "vrl_egress_encap_nh_detach",
                 "vrl_delete_and_free_egress_encap_with_nh_key",
                 "vrl_can_delete_egr_nh_data_from_encap_db",
                 "vrl_update_egr_nh_data_in_encap_db",
                 "vrl_get_encap_key_and_aux_data_from_nh",
                 "egress_encap_db",
                 "ed_dummy_libmpls_egress_encap_db",
                 "ed_perf_dummy_libmpls_egress_encap_db"};
  for (const char *kind : {"rec", "limit"}) {
    for (const char *message :
         {"nh_notfound", "nh_notvalid", "nh_refcount", "tun_notfound", "tun_notvalid", "tun_refcount"}) {
      names.insert(std::string("oxa_msg_") + kind + "_mpls_encap_db_" + message + "_error");
    }
  }
  return names;
}

TEST(ContractTest, ExportsThirtyNamesAndNothingElse) {
  EXPECT_EQ(expected_exports().size(), 30u);
  EXPECT_EQ(matches(output_of(ENCAP_NM " -D --defined-only " ENCAP_LIBRARY), R"( [A-Za-z] (\S+)\n)"),
            expected_exports());
}

TEST(ContractTest, HeaderDeclaresWhatIsExported) {
  const std::string header = std::regex_replace(content(ENCAP_HEADER), std::regex(R"(#define[^\n]*)"), "");
  EXPECT_EQ(matches(header, R"(ENCAP_DB_API[^;(]*?(\w+)\s*[;(])"), expected_exports());
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

TEST(ContractTest, EachServiceIsReachedByItsSymbol) {
  const Names undefined = matches(output_of(ENCAP_NM " -D --undefined-only " ENCAP_LIBRARY), R"( U ([^@\s]+))");
  for (const char *service : {"shmwin_malloc",
                              "shmwin_free",
                              "avl_search",
                              "avl_insert",
                              "avl_delete",
                              "ptd_set_mutex_block",
                              "ptd_unset_mutex_block",
                              "ed_init",
                              "ed_print_debug",
                              "ed_slow_debugs",
                              "_ltrace_1",
                              "_ltrace_2",
                              "_ltrace_3",
                              "_ltrace_4",
                              "_ltrace_5",
                              "_ltrace_6",
                              "_ltrace_7",
                              "oxa_errmsg",
                              "pthread_mutex_trylock",
                              "pthread_mutex_lock",
                              "pthread_mutex_unlock",
                              "pthread_mutex_consistent",
                              "pthread_mutex_init"}) {
    EXPECT_TRUE(undefined.contains(service)) << service;
  }
}

}  // namespace
}  // namespace encap_test
