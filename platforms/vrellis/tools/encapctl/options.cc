#include "options.h"

namespace encapctl {

CLI::App &add_verb(CLI::App &parent, const std::string &name, const std::string &description,
                   const std::string &examples) {
  CLI::App *const verb = parent.add_subcommand(name, description);
  verb->footer("Examples:\n" + examples);
  return *verb;
}

void add_window_options(CLI::App &verb, WindowOptions &options) {
  verb.add_option("--dir", options.directory, "Directory of the window")
      ->type_name("DIR")
      ->envname("ENCAPCTL_DIR")
      ->capture_default_str();
  verb.add_option("--name", options.name, "File name of the window")
      ->type_name("NAME")
      ->envname("ENCAPCTL_NAME")
      ->capture_default_str();
}

void add_reading_options(CLI::App &verb, WindowOptions &options) {
  add_window_options(verb, options);
  verb.add_option("--file", options.file, "Read this snapshot instead of a window")->type_name("SNAPSHOT");
}

void add_output_options(CLI::App &verb, OutputOptions &options) {
  verb.add_flag("--json", options.json, "Print JSON, schema encapctl/1, one object a line");
  verb.add_flag("--no-color", options.no_color, "No colour, also on a terminal");
}

void add_limit_option(CLI::App &verb, std::uint64_t &limit, const std::string &what) {
  verb.add_option("--limit", limit, what)->type_name("N");
}

void add_trace_directory_option(CLI::App &verb, std::string &directory) {
  verb.add_option("--trace-dir", directory, "Directory of the trace files (default: those of all users in /dev/shm)")
      ->type_name("DIR")
      ->envname("LTRACE_DIR");
}

}  // namespace encapctl
