// The verbs of encapctl. Each adds itself, with its options and its help, to the command line; when the command line
// then asks for it, it runs and leaves its exit status.
#ifndef ENCAPCTL_VERBS_H
#define ENCAPCTL_VERBS_H

#include "options.h"
#include "output/failure.h"

namespace encapctl {

void add_list(CLI::App &app, int &status);
void add_status(CLI::App &app, int &status);
void add_show(CLI::App &app, int &status);
void add_summary(CLI::App &app, int &status);
void add_find(CLI::App &app, int &status);
void add_clients(CLI::App &app, int &status);
void add_metrics(CLI::App &app, int &status);
void add_settle(CLI::App &app, int &status);
void add_check(CLI::App &app, int &status);
void add_repair(CLI::App &app, int &status);
void add_trace(CLI::App &app, int &status);
void add_debug(CLI::App &app, int &status);
void add_load(CLI::App &app, int &status);
void add_unload(CLI::App &app, int &status);
void add_reclaim(CLI::App &app, int &status);
void add_snapshot(CLI::App &app, int &status);
void add_destroy(CLI::App &app, int &status);

}  // namespace encapctl

#endif
