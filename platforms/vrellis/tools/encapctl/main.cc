// encapctl: shows, checks and repairs an MPLS egress encapsulation database.
#include <fcntl.h>
#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <sstream>

#include "ed/query.h"
#include "verbs.h"

namespace {

using encapctl::Failure;
using Words = std::vector<std::string>;

constexpr char kDescription[] =
    "Shows, checks and repairs an MPLS egress encapsulation database, whether its daemons live or not.\n"
    "Verbs that read copy the window, take no lock and need no daemon.";

constexpr char kFooter[] =
    "Exit status: 0 done, and check found the database sound; 1 findings, or nothing found; 2 the verb could not look\n"
    "or act, or the command line is wrong. A reading verb that says \"the database would not hold still\" goes on "
    "with\n"
    "the copy it has, and exits as if the copy were still; check exits with 2 then.\n"
    "Environment: ENCAPCTL_DIR and ENCAPCTL_NAME stand for --dir and --name, LTRACE_DIR for --trace-dir; NO_COLOR.\n"
    "`encapctl help VERB` describes a verb, with an example.";

constexpr void (*kVerbs[])(CLI::App &, int &) = {
    encapctl::add_list,     encapctl::add_status,  encapctl::add_show,    encapctl::add_summary, encapctl::add_find,
    encapctl::add_clients,  encapctl::add_check,   encapctl::add_metrics, encapctl::add_trace,   encapctl::add_debug,
    encapctl::add_repair,   encapctl::add_load,    encapctl::add_unload,  encapctl::add_reclaim, encapctl::add_settle,
    encapctl::add_snapshot, encapctl::add_destroy,
};

// How many of the first words are options that may stand before the verb, with their values.
std::ptrdiff_t early_words(const Words &words) {
  std::size_t count = 0;
  while (count < words.size()) {
    const std::string name = words[count].substr(0, words[count].find('='));
    const auto option = std::find_if(std::begin(encapctl::kEarlyOptions), std::end(encapctl::kEarlyOptions),
                                     [&](const auto &each) { return each.name == name; });
    if (option == std::end(encapctl::kEarlyOptions)) {
      break;
    }
    count += option->has_value && name == words[count] ? std::size_t{2} : std::size_t{1};
  }
  return static_cast<std::ptrdiff_t>(std::min(count, words.size()));
}

[[noreturn]] void refuse_verb(const CLI::App &command, const std::string &word) {
  vrellis::NearNames near;
  for (const CLI::App *verb : command.get_subcommands({})) {
    near.offer(word, verb->get_name());
  }
  ed_query_error_t error{};
  near.tell(error);
  throw Failure(fmt::format("there is no verb '{}'{}{} `encapctl help` lists the verbs", word, error.text,
                            error.text[0] != '\0' ? "" : ";"));
}

// Brings the words into the order that the verbs read: the verb and its own verb, then options. "help show nhs" becomes
// "show nhs --help".
Words arranged(const CLI::App &app, Words words) {
  if (!words.empty() && words.front() == "help") {
    std::rotate(words.begin(), words.begin() + 1, words.end());
    words.back() = "--help";
  }
  const std::ptrdiff_t early = early_words(words);
  auto end = words.begin() + early;
  const CLI::App *command = &app;
  for (; end != words.end(); ++end) {
    const auto verbs = command->get_subcommands([&](const CLI::App *each) { return each->get_name() == *end; });
    if (verbs.empty()) {
      break;
    }
    command = verbs.front();
  }
  if (end != words.end() && !end->starts_with('-') && command->get_require_subcommand_min() > 0) {
    refuse_verb(*command, *end);
  }
  std::rotate(words.begin(), words.begin() + early, end);
  std::reverse(words.begin(), words.end());  // as CLI11 takes them
  return words;
}

int run(int argc, char **argv) {
  int status = encapctl::kDone;
  CLI::App app(kDescription, "encapctl");
  app.footer(kFooter);
  app.set_version_flag("-V,--version", "encapctl " ENCAPCTL_VERSION);
  app.require_subcommand(1);
  for (const auto add : kVerbs) {
    add(app, status);
  }
  try {
    app.parse(arranged(app, Words(argv + 1, argv + argc)));
  } catch (const CLI::ParseError &error) {
    std::ostringstream out;
    std::ostringstream ignored;
    if (app.exit(error, out, ignored) != 0) {
      throw Failure(fmt::format("{}; `encapctl help` tells more", error.what()));
    }
    encapctl::write_out(out.str());
  }
  return status;
}

// Opens stdin, stdout and stderr when the caller closed them, so that no file of ours takes their place.
void keep_standard_files() {
  int fd = 0;
  while (fd >= 0 && fd <= 2) {
    fd = open("/dev/null", O_RDONLY);
  }
  close(fd);
}

}  // namespace

int main(int argc, char **argv) {
  keep_standard_files();
  std::signal(SIGPIPE, SIG_IGN);  // a reader that goes away must not end a verb in the middle of a change
  try {
    const int status = run(argc, argv);
    encapctl::flush_out();
    return status;
  } catch (const encapctl::OutputLost &lost) {
    if (lost.error != EPIPE) {
      encapctl::warn(fmt::format("the output cannot be written: {}", std::strerror(lost.error)));
    }
  } catch (const std::exception &error) {
    encapctl::warn(error.what());
  }
  return encapctl::kUnable;
}
