// The query language of the debug facility, from ed_query() and from the environment.
#include <cerrno>
#include <cstdlib>
#include <string>

#include "ed_fixture.h"

using EdQuery = Ed;

namespace {

TEST_F(EdQuery, EachFormOfQuerySelectsAndChanges) {
  const struct {
    const char *query;
    Strings letters;  // by id
  } cases[] = {
      {"+p", {"pt", "pt", "p", "pt", "pt"}},
      {"func port_* +p", {"pt", "pt", "p", "pt", "t"}},
      {"func *_o?en +p", {"pt", "pt", "p", "t", "t"}},
      {"func port_open category error +p", {"t", "pt", "", "t", "t"}},
      {"  category\tevent   +s ", {"st", "t", "s", "t", "t"}},
      {"line 110 +p", {"t", "pt", "", "t", "t"}},
      {"line 110-200 +p", {"t", "pt", "p", "pt", "t"}},
      {"id 3 +pq", {"t", "t", "", "ptq", "t"}},
      {"id 0-1 -t", {"", "", "", "t", "t"}},
      {"-t", {"", "", "", "", ""}},
      {"text \"memory: rc\" +p", {"t", "pt", "", "t", "t"}},  // across two pieces
      {"text \"range; dropped\" +p; id 0 +p", {"pt", "t", "", "pt", "t"}},
      {"text ifh text speed +p", {"pt", "t", "", "t", "t"}},
      {"component libp* func \"port_close\" +p\nid 3 +s", {"t", "t", "", "pst", "t"}},
      {"+psq; id 0 -p; id 1 -sq; id 3 =p; id 4 =_", {"stq", "pt", "psq", "pt", "t"}},
      {"-t; id 0 +t; id 1 =t", {"t", "t", "", "", ""}},
      {";; \n id 0 +p;", {"pt", "t", "", "t", "t"}},
  };
  for (const auto &each : cases) {
    SCOPED_TRACE(each.query);
    ed_query_error_t error;
    ASSERT_EQ(ed_query("component libports =_", nullptr), 0);
    ASSERT_EQ(ed_query(each.query, &error), 0) << error.text;
    EXPECT_EQ(ports.letters(), each.letters);
  }
}

TEST_F(EdQuery, ThePointsBitsFollowTheLetters) {
  ASSERT_EQ(ed_query("component libports -t", nullptr), 0);
  EXPECT_EQ(ports.site[0].flags, kTraced | ED_SITE_TRACE_IF_ON);
  EXPECT_EQ(ports.site[2].flags, kUntraced);  // without a trace point, the bit would only silence the message
  ASSERT_EQ(ed_query("component libports =psq", nullptr), 0);
  EXPECT_EQ(ports.site[0].flags, kTraced | ED_SITE_ON | ED_SITE_SLOW | ED_SITE_QUIET);
  ports.site[0].flags |= ED_SITE_LINE_FILTER | ED_SITE_INVERT;
  ports.site[0].line = 5u << ED_FILTER_SET_SHIFT | 77;
  ASSERT_EQ(ed_query("component libports line 100 =_", nullptr), 0);  // by its own line, not by the filter's
  EXPECT_EQ(ports.site[0].flags, kTraced);
  EXPECT_EQ(ports.site[0].line, 100u);
}

TEST_F(EdQuery, AMistakeIsAnsweredWithItsPlaceItsReasonAndNearNames) {
  const std::string four = "id 1 id 1 id 1 id 1 ";
  const struct {
    std::string query;
    uint32_t position;
    const char *reason;
    const char *near_name;  // or nullptr for none
  } cases[] = {
      {"", 0, "empty", nullptr},
      {" ; \n", 0, "empty", nullptr},
      {"fnuc port_open +p", 0, "unknown keyword 'fnuc'; did you mean 'func'?", "func"},
      {"id 1 linee 5 +p", 5, "unknown keyword 'linee'", "line"},
      {"\"+p\"", 0, "unknown keyword '+p'", nullptr},
      {"category evnt +p", 9, "unknown category 'evnt'; did you mean 'event'?", "event"},
      {"id 1 +p; category errors +p", 18, "unknown category 'errors'", "error"},
      {"func prt_open +p", 5, "no function matches 'prt_open'; did you mean 'port_open'?", "port_open"},
      {"func prot_* +p", 5, "no function matches", "port_close"},
      {"func close +p", 5, "no function matches", "port_close"},
      {"func zzzzzzzzzzzz +p", 5, "no function matches 'zzzzzzzzzzzz'", nullptr},
      {"component libport +p", 10, "no component matches", "libports"},
      {"text \"no such words\" +p", 5, "no message contains 'no such words'", nullptr},
      {"line 5 +p", 5, "no point on line '5'", nullptr},
      {"id 99-100 +p", 3, "no point with id '99-100'", nullptr},
      {"id x +p", 3, "wants a number N or a range N-M, not 'x'", nullptr},
      {"id 3-1 +p", 3, "wants a number", nullptr},
      {"line 4294967296 +p", 5, "wants a number", nullptr},
      {"id -1 +p", 3, "wants a number", nullptr},
      {"id 1- +p", 3, "wants a number", nullptr},
      {"func init_ports category error +p", 0, "no point matches all", nullptr},
      {"id 1", 4, "ends in a change of flags", nullptr},
      {"func", 4, "'func' wants a value", nullptr},
      {"func ; +p", 5, "'func' wants a value", nullptr},
      {"text \"no end +p", 5, "quote", nullptr},
      {"id 1 +p func port_open", 8, "ends a statement", nullptr},
      {"id 1 +", 5, "wants flags", nullptr},
      {"id 1 +pz", 7, "unknown flag 'z'", nullptr},
      {"id 1 +_", 6, "unknown flag '_'", nullptr},
      {four + four + "id 1 +p", 40, "at most 8 conditions", nullptr},
      {std::string(4097, ' '), 4096, "at most 4096 bytes", nullptr},
      {"func \x01z\xff +p", 5, "'?z?'", nullptr},
  };
  for (const auto &each : cases) {
    SCOPED_TRACE(each.query);
    ed_query_error_t error;
    ASSERT_EQ(ed_query(each.query.c_str(), &error), EINVAL);
    EXPECT_EQ(error.position, each.position);
    EXPECT_EQ(std::string(error.text).rfind("column " + std::to_string(each.position + 1) + ": ", 0), 0u);
    EXPECT_NE(std::string(error.text).find(each.reason), std::string::npos) << error.text;
    ASSERT_EQ(error.num_near != 0, each.near_name != nullptr) << error.text;
    if (each.near_name != nullptr) {
      EXPECT_STREQ(error.near_name[0], each.near_name);
    }
    EXPECT_EQ(ports.letters(), (Strings{"t", "t", "", "t", "t"})) << "a refused query changed something";
  }
  EXPECT_EQ(ed_query(nullptr, nullptr), EINVAL);
}

TEST_F(EdQuery, EnvironmentIsAppliedAtRegistrationAndItsMistakesAreReported) {
  setenv("ED_DEBUG", "component libports id 0 +q; id 0 +s\nid one +p; component libenv func port_clse +p;func init* +p",
         1);
  Component &env = *new Component("libenv");
  ed_add_catalogue(&env.catalogue);
  ed_init(&env.record);
  unsetenv("ED_DEBUG");
  EXPECT_EQ(env.letters(), (Strings{"st", "t", "", "t", "pt"}));
  EXPECT_EQ(ports.letters(), (Strings{"t", "t", "", "t", "t"}));
  EXPECT_EQ(taken_lines(),
            (Strings{"ED_DEBUG for libenv, column 40: 'id' wants a number N or a range N-M, not 'one'",
                     "ED_DEBUG for libenv, column 70: no function matches 'port_clse'; did you mean 'port_close'?"}));
}

}  // namespace
