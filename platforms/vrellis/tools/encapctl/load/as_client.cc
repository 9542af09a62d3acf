#include "load/as_client.h"

#include <fmt/format.h>

#include <cstring>

#include "output/failure.h"

namespace encapctl {

void Swept::add(const encap_left_t *left, void *swept) {
  auto &all = *static_cast<Swept *>(swept);
  ++all.references;
  all.nhs += left->nh_left;
  all.tunnels += left->tunnel_left;
}

AsClient::AsClient(const OwnedWindowOptions &window, const encap_inspect::Ranges &ranges, const std::string &name) {
  encap_client_config_t config{};
  config.database = encap_inspect::config_of(window.directory.c_str(), window.name.c_str(), ranges, window.owner);
  config.name = name.c_str();
  shmwin_error_t error{};
  if (encap_client_open(&config, &client_, &error) != 0) {
    throw Failure(error.text);
  }
}

AsClient::~AsClient() {
  if (client_ != nullptr) {
    encap_client_close(client_);
  }
}

Swept AsClient::leave() {
  Swept swept;
  encap_client_t *const client = client_;
  client_ = nullptr;
  require_ok(encap_client_leave(client, Swept::add, &swept), "what the client holds cannot be given back");
  return swept;
}

void require_ok(int status, const std::string &what) {
  if (status != 0) {
    throw Failure(fmt::format("{}: {} ({})", what, std::strerror(status), status));
  }
}

}  // namespace encapctl
