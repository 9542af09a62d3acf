// Keeps the directory of the trace files small. For the services alone.
#ifndef VRELLIS_LTRACE_SWEEP_H
#define VRELLIS_LTRACE_SWEEP_H

#include "ltrace/file.h"

namespace vrellis {

// Removes the files of dead processes, except the 16 that were written to last. `own` is this process's file.
void sweep_trace_files(int directory, const FileHeader &own);

}  // namespace vrellis

#endif
