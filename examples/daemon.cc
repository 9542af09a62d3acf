// A daemon that starts again: it enters its routes anew, and gives back what no route names any more. C++20.
#include <cstdint>
#include <cstdio>

#include "encap_client.h"

int main(int argc, char **argv) {
  encap_client_config_t config{};
  config.name = "daemon";
  config.database.directory = argc > 1 ? argv[1] : nullptr;  // nullptr: /dev/shm
  config.database.name = "encap_daemon_cc";
  config.database.shm_id = 1;
  config.database.nh_start = 1000, config.database.nh_size = 4096;
  config.database.tun_start = 1, config.database.tun_size = 1024;
  encap_client_t *client = nullptr;
  shmwin_error_t error;
  if (encap_client_open(&config, &client, &error) != 0) {  // with all that this name held when it closed or died
    std::fprintf(stderr, "%s\n", error.text);
    return 1;
  }
  int status = encap_client_refresh_begin(client);
  for (std::uint32_t label = 16001; label <= 16003 && status == 0; ++label) {
    egress_encap_key_t key{};
    key.out_label1 = label & 0x1fffff, key.out_label2 = 200, key.ifh = 0x01000000;
    encap_entry_t entry{};
    status = encap_client_enter(client, key, nullptr, &entry);
    std::printf("NH %u on tunnel %u is %s\n", entry.nh, entry.tunnel, entry.renewed != 0 ? "as it was" : "entered");
  }
  const auto take_out = [](const encap_left_t *left, void *) { std::printf("NH %u is given back\n", left->nh); };
  status = status == 0 ? encap_client_refresh_end(client, take_out, nullptr) : status;
  return encap_client_close(client) == 0 && status == 0 ? 0 : 1;  // what it holds waits for its next process
}
