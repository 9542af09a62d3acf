// The verbs of encapctl. Each adds itself, with its options and its help, to the command line; when the command line
// then asks for it, it runs and leaves its exit status.
#ifndef ENCAPCTL_VERBS_H
#define ENCAPCTL_VERBS_H

#include <CLI/CLI.hpp>
#include <stdexcept>

namespace encapctl {

inline constexpr int kDone = 0;
inline constexpr int kFindings = 1;  // inconsistencies, or nothing found
inline constexpr int kUnable = 2;    // could not look or do, or bad usage

// Why a verb cannot do its work: one sentence, which ends in exit status kUnable.
struct Failure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

void add_status(CLI::App &app, int &status);
void add_show(CLI::App &app, int &status);
void add_summary(CLI::App &app, int &status);
void add_find(CLI::App &app, int &status);
void add_check(CLI::App &app, int &status);
void add_repair(CLI::App &app, int &status);
void add_trace(CLI::App &app, int &status);
void add_debug(CLI::App &app, int &status);
void add_load(CLI::App &app, int &status);
void add_snapshot(CLI::App &app, int &status);
void add_destroy(CLI::App &app, int &status);

}  // namespace encapctl

#endif
