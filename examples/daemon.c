/* A daemon's life with the encapsulation database: open, enter, share, read back, release. C11. */
#include <stdio.h>

#include "encap_db_owner.h"

int main(int argc, char **argv) {
  encap_db_config_t config = {.name = "encap_daemon_c", .shm_id = 1, .nh_start = 1000, .nh_size = 4096};
  config.directory = argc > 1 ? argv[1] : NULL; /* NULL: /dev/shm */
  config.tun_start = 1;
  config.tun_size = 1024;
  shmwin_error_t error;
  if (encap_db_open(&config, NULL, &error) != 0) { /* creates the database, or attaches the one that is there */
    fprintf(stderr, "%s\n", error.text);
    return 1;
  }
  /* Labels 200/16001 on an interface: the bottom one is the NH's, the one above it its tunnel's. */
  const egress_encap_key_t key = {.out_label1 = 16001, .out_label2 = 200, .ifh = 0x01000000};
  egress_encap_info_t info = {0};
  int status = vrl_find_and_share_egress_encap(&info, key);
  if (status == 0 && !info.nh_found) { /* nobody has it yet: choose the missing indexes and enter it */
    info.egr_nh = 1000;
    info.egr_tun = info.tun_found ? info.egr_tun : 1;
    status = vrl_insert_egress_encap(&info, key);
  }
  egress_encap_aux_data_t aux = {0};
  egress_encap_key_t stored = {0};
  if (status != 0 || vrl_find_and_share_egress_nh(info.egr_nh) != 0 || /* a second user of the same NH */
      vrl_get_encap_key_and_aux_data_from_nh(info.egr_nh, &aux, &stored) != 0) {
    return 1;
  }
  printf("NH %u on tunnel %u: labels %u/%u\n", info.egr_nh, aux.egr_tun, stored.out_label2, stored.out_label1);
  uint32_t tunnel = 0, nh_gone = 0, tunnel_gone = 0;
  while (status == 0 && !nh_gone) { /* each user gives its reference back; the last one takes all with it */
    status = vrl_delete_and_free_egress_encap_with_nh_key(info.egr_nh, &tunnel, &nh_gone, &tunnel_gone);
  }
  printf("to leave the hardware: NH %u%s\n", info.egr_nh, tunnel_gone ? " and its tunnel" : "");
  encap_db_close();
  return status == 0 && encap_db_destroy(config.directory, config.name, 0, &error) == 0 ? 0 : 1;
}
