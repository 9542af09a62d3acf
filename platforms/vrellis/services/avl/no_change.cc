// For programs that read and mend windows without the tree service: no change of a whole window is ever open there.
// From a static library, so that it is left out where the tree service is linked.
#include "between_services.h"

namespace vrellis {

SERVICES_TLS constinit thread_local OpenChange open_change;

void note_word(const std::uint64_t * /*word*/) {}
void roll_window_back(const WindowMap & /*map*/) {}

}  // namespace vrellis
