// Exit statuses, and the exception that ends a verb which cannot do its work.
#ifndef ENCAPCTL_FAILURE_H
#define ENCAPCTL_FAILURE_H

#include <stdexcept>

namespace encapctl {

inline constexpr int kDone = 0;
inline constexpr int kFindings = 1;  // inconsistencies, or nothing found
inline constexpr int kUnable = 2;    // the verb could not look or act, or the command line is wrong

// Why a verb cannot do its work: one sentence. The command prints it and ends with kUnable.
struct Failure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

}  // namespace encapctl

#endif
