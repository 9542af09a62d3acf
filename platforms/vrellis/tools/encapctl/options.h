// The command line: how a verb adds itself to it, and the options that several verbs share.
#ifndef ENCAPCTL_OPTIONS_H
#define ENCAPCTL_OPTIONS_H

#include <CLI/CLI.hpp>
#include <cstdint>
#include <limits>
#include <memory>
#include <string>

#include "output/output.h"
#include "trace/traces.h"
#include "window/window.h"

namespace encapctl {

inline constexpr std::uint64_t kNoLimit = std::numeric_limits<std::uint64_t>::max();

// A command of `parent` with its description, and with examples at the end of its help.
CLI::App &add_command(CLI::App &parent, const std::string &name, const std::string &description,
                      const std::string &examples);

void add_options(CLI::App &verb, DirectoryOptions &options);    // --dir
void add_options(CLI::App &verb, WindowOptions &options);       // and --name
void add_options(CLI::App &verb, OwnedWindowOptions &options);  // and --user, --group
void add_options(CLI::App &verb, SourceOptions &options);       // of WindowOptions, and --file
void add_options(CLI::App &verb, TraceDirectory &options);      // --trace-dir
void add_options(CLI::App &verb, TraceOptions &options);        // and --all-traces
void add_options(CLI::App &verb, OutputOptions &options);       // --json, --no-color
CLI::Option *add_time_option(CLI::App &verb, const std::string &name, double &seconds, const std::string &what);
void add_limit_option(CLI::App &verb, std::uint64_t &limit, const std::string &what);

// The options that may also stand before the verb, and whether a value follows each.
struct EarlyOption {
  const char *name;
  bool has_value;
};
inline constexpr EarlyOption kEarlyOptions[] = {{"--dir", true},       {"--name", true},        {"--file", true},
                                                {"--trace-dir", true}, {"--all-traces", false}, {"--json", false},
                                                {"--no-color", false}};

template <typename Options>
struct Verb {
  CLI::App &command;
  Options &options;
};

// Adds a verb that `run` carries out. Its record of options tells by its members which shared options the verb has.
template <typename Options>
Verb<Options> add_verb(CLI::App &parent, int &status, int (*run)(Options &), const std::string &name,
                       const std::string &description, const std::string &examples) {
  const auto options = std::make_shared<Options>();
  CLI::App &command = add_command(parent, name, description, examples);
  if constexpr (requires { options->window; }) {
    add_options(command, options->window);
  }
  if constexpr (requires { options->traces; }) {
    add_options(command, options->traces);
  }
  add_options(command, options->output);
  command.callback([options, run, &command, &status] {
    if (command.get_subcommands().empty()) {
      status = run(*options);
    }
  });
  return {command, *options};
}

}  // namespace encapctl

#endif
