/* A daemon's life with the encapsulation database, as a client of it. C11. */
#include <stdio.h>

#include "encap_client.h"

int main(int argc, char **argv) {
  encap_client_config_t config = {.name = "daemon", .database = {.name = "encap_daemon_c", .shm_id = 1}};
  config.database.directory = argc > 1 ? argv[1] : NULL; /* NULL: /dev/shm */
  config.database.nh_start = 1000, config.database.nh_size = 4096;
  config.database.tun_start = 1, config.database.tun_size = 1024;
  encap_client_t *client;
  shmwin_error_t error;
  if (encap_client_open(&config, &client, &error) != 0) { /* with all that this name held when it closed or died */
    fprintf(stderr, "%s\n", error.text);
    return 1;
  }
  /* Labels 200/16001 on an interface: the bottom one is the NH's, the one above it its tunnel's. */
  const egress_encap_key_t key = {.out_label1 = 16001, .out_label2 = 200, .ifh = 0x01000000};
  encap_entry_t entry = {0};
  int status = encap_client_enter(client, key, NULL, &entry);
  if (status == 0) { /* program what is new */
    printf("NH %u%s on tunnel %u%s\n", entry.nh, entry.nh_created ? " (new)" : "", entry.tunnel,
           entry.tunnel_created ? " (new)" : "");
    encap_left_t left = {0};
    status = encap_client_release(client, entry.nh, &left);
    printf("to leave the hardware:%s%s\n", left.nh_left ? " NH" : "", left.tunnel_left ? " tunnel" : "");
  }
  return encap_client_close(client) == 0 && status == 0 ? 0 : 1; /* what it still holds waits for its next process */
}
