// Options that several verbs have, each declared once.
#ifndef ENCAPCTL_OPTIONS_H
#define ENCAPCTL_OPTIONS_H

#include <CLI/CLI.hpp>
#include <cstddef>
#include <cstdint>
#include <string>

namespace encapctl {

// Which window.
struct WindowOptions {
  std::string directory = "/dev/shm";
  std::string name = "mpls-egress-encap";
  std::string file;  // a snapshot in its place; empty: the window itself

  std::string path() const { return file.empty() ? directory + "/" + name : file; }
};

struct OutputOptions {
  bool json = false;
  bool no_color = false;
};

inline constexpr std::uint64_t kNoLimit = UINT64_MAX;

// A verb of `parent` with its description and the examples at the end of its help.
CLI::App &add_verb(CLI::App &parent, const std::string &name, const std::string &description,
                   const std::string &examples);

void add_window_options(CLI::App &verb, WindowOptions &options);   // --dir, --name
void add_reading_options(CLI::App &verb, WindowOptions &options);  // and --file
void add_output_options(CLI::App &verb, OutputOptions &options);   // --json, --no-color
void add_limit_option(CLI::App &verb, std::uint64_t &limit, const std::string &what);
void add_trace_directory_option(CLI::App &verb, std::string &directory);

}  // namespace encapctl

#endif
