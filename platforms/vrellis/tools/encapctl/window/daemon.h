// What encapd tells of itself in a file beside the window.
#ifndef ENCAPCTL_DAEMON_H
#define ENCAPCTL_DAEMON_H

#include "window/window.h"

namespace encapctl {

// The status that the process of this client keeps in DIR/NAME.CLIENT.status, as encapd(8) describes it. Null when the
// client is no encapd, when its process has ended, or when the file is not its own: a file is believed only if it
// belongs to root, to the window's owner or to the user of the process, and names the process.
Json daemon_status(const SourceOptions &options, const encap_inspect::ClientEntry &client);

}  // namespace encapctl

#endif
