// A client of the database for as long as a verb needs one.
#ifndef ENCAPCTL_AS_CLIENT_H
#define ENCAPCTL_AS_CLIENT_H

#include <cstdint>
#include <string>

#include "encap_client.h"
#include "ranges.h"
#include "window/window.h"

namespace encapctl {

// What a sweep took out.
struct Swept {
  std::uint64_t references = 0, nhs = 0, tunnels = 0;

  // For the calls that tell of each release; `swept` is a Swept.
  static void add(const encap_left_t *left, void *swept);
};

class AsClient {
 public:
  // Opens the database and the name. Throws Failure.
  AsClient(const OwnedWindowOptions &window, const encap_inspect::Ranges &ranges, const std::string &name);
  ~AsClient();
  AsClient(const AsClient &) = delete;
  AsClient &operator=(const AsClient &) = delete;

  encap_client_t *get() const { return client_; }

  // Gives back everything that the name holds, and the name.
  Swept leave();

 private:
  encap_client_t *client_ = nullptr;
};

// Throws Failure with `what` and the status in words, when it is not 0.
void require_ok(int status, const std::string &what);

}  // namespace encapctl

#endif
