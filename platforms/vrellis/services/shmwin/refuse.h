// How every call that takes an shmwin_error_t refuses: those of windows, of the owner and of clients.
#ifndef VRELLIS_SHMWIN_REFUSE_H
#define VRELLIS_SHMWIN_REFUSE_H

#include <cstdarg>
#include <cstdio>

#include "shmwin/shmwin.h"

namespace vrellis {

// Writes one sentence to `error`, unless that is nullptr. Returns `status`.
__attribute__((format(printf, 3, 4))) inline int refuse(shmwin_error_t *error, int status, const char *format, ...) {
  if (error != nullptr) {
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(error->text, sizeof error->text, format, arguments);
    va_end(arguments);
  }
  return status;
}

}  // namespace vrellis

#endif
