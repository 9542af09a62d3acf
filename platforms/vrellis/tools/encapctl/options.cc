#include "options.h"

#include "database_options.h"

namespace encapctl {
namespace {

constexpr char kShared[] = "Options of several verbs, which may also stand before the verb";

CLI::Option *add_name(CLI::App &verb, const char *option, auto &value, const char *what, const char *type) {
  const auto no_empty_name = [](const std::string &text) { return text.empty() ? "the name is empty" : std::string(); };
  return verb.add_option(option, value, what)->type_name(type)->check(no_empty_name)->group(kShared);
}

}  // namespace

CLI::App &add_command(CLI::App &parent, const std::string &name, const std::string &description,
                      const std::string &examples) {
  CLI::App *const verb = parent.add_subcommand(name, description);
  verb->footer("Examples:\n" + examples);
  return *verb;
}

void add_options(CLI::App &verb, DirectoryOptions &options) {
  add_name(verb, "--dir", options.directory, "Directory of the window", "DIR")
      ->envname("ENCAPCTL_DIR")
      ->capture_default_str();
}

void add_options(CLI::App &verb, WindowOptions &options) {
  add_options(verb, static_cast<DirectoryOptions &>(options));
  add_name(verb, "--name", options.name, "File name of the window", "NAME")
      ->envname("ENCAPCTL_NAME")
      ->capture_default_str();
}

void add_options(CLI::App &verb, OwnedWindowOptions &options) {
  add_options(verb, static_cast<WindowOptions &>(options));
  vrellis_tools::add_owner_options(verb, options.owner);
}

void add_options(CLI::App &verb, SourceOptions &options) {
  add_options(verb, static_cast<WindowOptions &>(options));
  add_name(verb, "--file", options.file, "Read this snapshot instead of a window", "SNAPSHOT");
}

void add_options(CLI::App &verb, TraceDirectory &options) {
  add_name(verb, "--trace-dir", options.directory, "Directory of the trace files (default: those in /dev/shm)", "DIR")
      ->envname("LTRACE_DIR");
}

void add_options(CLI::App &verb, TraceOptions &options) {
  add_options(verb, static_cast<TraceDirectory &>(options));
  verb.add_flag("--all-traces", options.all, "Also of processes that are not attached to this database")
      ->group(kShared);
}

void add_options(CLI::App &verb, OutputOptions &options) {
  verb.add_flag("--json", options.json, "Print JSON, one object a line")->group(kShared);
  verb.add_flag("--no-color", options.no_color, "No colour, also on a terminal")->group(kShared);
}

CLI::Option *add_time_option(CLI::App &verb, const std::string &name, double &seconds, const std::string &what) {
  static const std::map<std::string, double> kUnits = {{"ms", 1e-3}, {"s", 1}, {"m", 60}, {"h", 3600}, {"d", 86400}};
  return verb.add_option(name, seconds, what)
      ->transform(CLI::AsNumberWithUnit(kUnits, CLI::AsNumberWithUnit::UNIT_REQUIRED, "TIME"))
      ->check(CLI::Range(0.0, 1e10))  // seconds: some centuries
      ->option_text("TIME");
}

void add_limit_option(CLI::App &verb, std::uint64_t &limit, const std::string &what) {
  verb.add_option("--limit", limit, what)->type_name("N");
}

}  // namespace encapctl
