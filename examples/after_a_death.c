/* What a daemon does after a death: it learns of it, has the database mended, and goes on. C11. */
#include <signal.h>
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

#include "encap_inspect.h"
#include "mpls_egress_encap_db.h"

static void print_change(const encap_change_t *change, void *arg) {
  (void)arg;
  printf("%s: %s\n", change->because, change->text);
}

/* To be called every second. `seen` is how many deaths the daemon has dealt with. */
static int look_after(const encap_db_config_t *config, uint64_t *seen) {
  uint64_t deaths = 0;
  int status = encap_db_deaths(config, &deaths);
  if (status != 0 || deaths == *seen) {
    return status;
  }
  encap_repair_result_t result = {.bytes = sizeof result};
  status = encap_db_repair(config, NULL, print_change, NULL, &result);
  if (status != 0) { /* with 110 and 12 try again in a second; anything else is for an operator */
    fprintf(stderr, "%s\n", result.text);
    return status;
  }
  printf("findings before: %llu, now: %llu\n", (unsigned long long)result.before, (unsigned long long)result.after);
  *seen = deaths;
  return 0;
}

int main(int argc, char **argv) {
  encap_db_config_t config = {.name = "encap_after_a_death", .shm_id = 1, .nh_start = 1000, .nh_size = 64};
  config.directory = argc > 1 ? argv[1] : NULL; /* NULL: /dev/shm */
  config.tun_start = 1, config.tun_size = 16;
  shmwin_error_t error;
  if (encap_db_open(&config, NULL, &error) != 0) {
    fprintf(stderr, "%s\n", error.text);
    return 1;
  }
  uint64_t seen = 0;
  int status = encap_db_deaths(&config, &seen);
  const pid_t other = fork(); /* another daemon, which is killed with the lock in its hands */
  if (other == 0) {
    if (vrl_egress_encap_db_lock(&egress_encap_db->lock.mutex) == 0) {
      raise(SIGKILL);
    }
    _exit(1);
  }
  waitpid(other, NULL, 0);
  status = status == 0 ? look_after(&config, &seen) : status;
  encap_db_close();
  encap_db_destroy(config.directory, config.name, 0, &error);
  return status == 0 ? 0 : 1;
}
