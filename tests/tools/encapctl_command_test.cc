// The command line and what leaves the command: help, mistakes, terminals, names that others wrote, full devices.
#include <sys/prctl.h>

#include <fstream>

#include "encapctl_fixture.h"

namespace encapctl_test {
namespace {

TEST_F(EncapctlTest, EveryVerbHasHelpWithAnExample) {
  for (const char *verb :
       {"list", "status", "show", "show nhs", "show tunnels", "summary", "find", "check", "repair", "trace", "debug",
        "debug list", "load", "snapshot", "destroy", "clients", "unload", "reclaim"}) {
    const std::string text = encapctl(split(verb + std::string(" --help"))).out;
    EXPECT_TRUE(has(text, "Examples:\n"));
    EXPECT_TRUE(has(text, "\n  encapctl " + std::string(verb)));
    EXPECT_EQ(encapctl(split(std::string("help ") + verb)).out, text);
  }
  EXPECT_TRUE(has(encapctl({"help"}).out, "Exit status: 0"));
  EXPECT_EQ(encapctl({"-V"}).out, encapctl({"--version"}).out);
}

TEST_F(EncapctlTest, AMistakeOnTheCommandLineIsNamed) {
  const std::pair<const char *, const char *> mistakes[] = {
      {"", "encapctl help"},
      {"stauts", "there is no verb 'stauts'; did you mean 'status'?"},
      {"help shw", "there is no verb 'shw'; did you mean 'show'?"},
      {"--json frobnicate", "there is no verb 'frobnicate'"},
      {"show nh", "there is no verb 'nh'; did you mean 'nhs'?"},
      {"show", "encapctl help"},
      {"find", "encapctl help"},
      {"--json", "encapctl help"},
      {"show nhs --sort colour", "colour"},
      {"snapshot --file x", "--file"}};
  for (const auto &[words, sentence] : mistakes) {
    EXPECT_TRUE(ended(encapctl(split(words)), 2, sentence)) << words;
  }
  for (const char *option : {"--file", "--name", "--dir"}) {
    EXPECT_TRUE(ended(encapctl({"summary", option, ""}), 2, "the name is empty")) << option;
  }
}

TEST_F(EncapctlTest, OptionsMayStandBeforeTheVerb) {
  make_database();
  const std::string dir = "--dir=" + directory();
  const std::string behind = on_window("show nhs --json").out;
  EXPECT_NE(behind, "");
  EXPECT_EQ(encapctl({dir, "--name", name_, "--json", "show", "nhs"}).out, behind);
  EXPECT_EQ(encapctl({"show", dir, "nhs", "--json", "--name", name_}).status, 2) << "but not within it";
}

TEST_F(EncapctlTest, ListNamesTheDatabasesOfADirectory) {
  make_database();
  const Child child = attach();
  std::ofstream(path() + ".text") << "no window";
  const Json row = encapctl({"list", "--dir", directory(), "--json"}).object();
  EXPECT_EQ(row.at("path"), path());
  EXPECT_EQ(row.at("nhs"), 4);
  EXPECT_EQ(row.at("processes"), 1);
  EXPECT_TRUE(has(encapctl({"list", "--dir", directory()}).out, name_));
  EXPECT_EQ(encapctl({"list", "--dir", directory() + "/trace"}).status, 1);
  EXPECT_EQ(encapctl({"list", "--dir", directory() + "/none"}).status, 2);
}

TEST_F(EncapctlTest, OutputThatIsLostIsAFailure) {
  make_database();
  for (const char *words : {"--json show nhs", "status", "check", "help", "debug list", "-V"}) {
    setenv("ENCAPCTL_DIR", directory().c_str(), 1);
    setenv("ENCAPCTL_NAME", name_.c_str(), 1);
    const Outcome full = encapctl(split(words), {.out = "/dev/full"});
    const Outcome unread = encapctl(split(words), {.out = kNoReader});
    unsetenv("ENCAPCTL_DIR");
    unsetenv("ENCAPCTL_NAME");
    EXPECT_EQ(full.status, 2) << words;
    EXPECT_EQ(full.err, "encapctl: the output cannot be written: No space left on device\n") << words;
    EXPECT_EQ(unread.status, 2) << words << ": a reader that went away is no reason for a sentence, or a signal";
    EXPECT_EQ(unread.err, "") << words;
  }
}

TEST_F(EncapctlTest, EveryLineFitsTheTerminal) {
  make_database();
  constexpr unsigned short kWidths[] = {40, 0};
  for (const unsigned short columns : kWidths) {
    const Outcome run = on_window("show nhs --no-color", {.columns = columns});
    std::istringstream lines(run.out);
    std::size_t cut = 0;
    for (std::string line; std::getline(lines, line);) {
      EXPECT_LE(line.find_last_not_of("\r\n") + 1, columns == 0 ? 100u : columns) << line;
      cut += line.find('>') == 39 ? 1U : 0U;
    }
    EXPECT_EQ(cut, columns == 0 ? 0u : 5u) << "the titles and four NHs";
  }
  EXPECT_TRUE(has(on_window("show nhs", {.columns = 40}).out, "\033[1m")) << "a terminal has colours";
  const std::string file = on_window("show nhs").out;
  EXPECT_EQ(file.find('\033'), std::string::npos) << "colour goes to a terminal alone";
  for (const char *part : {"300/200/16001", "null", "4 NHs"}) {
    EXPECT_TRUE(has(file, part));
  }
  EXPECT_TRUE(has(on_window("show tunnels").out, "300/200"));
}

// A process may call itself anything, also by what commands a terminal.
TEST_F(EncapctlTest, NamesThatOthersWroteArePrintedEscaped) {
  make_database();
  Child child = fork_child([&](const Ready &) {
    prctl(PR_SET_NAME,
          "\033[2J\x9b"
          "ev\nil");
    open_database();
    vrl_find_and_share_egress_nh(1001);
  });
  for (int dead = 0; dead < 2; ++dead) {
    for (const char *verb : {"status", "status --json", "trace --json"}) {
      const Outcome run = on_window(verb, {.columns = 200});
      EXPECT_EQ(run.status, 0);
      EXPECT_EQ(run.out.find("\033[2J"), std::string::npos) << verb << run.out;
      EXPECT_EQ(run.out.find('\x9b'), std::string::npos) << verb;
      EXPECT_TRUE(has(run.out, "ev")) << verb;
    }
    child.kill();
  }
}

}  // namespace
}  // namespace encapctl_test
