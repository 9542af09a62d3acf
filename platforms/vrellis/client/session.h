// One open client, and the window that it works in.
#ifndef VRELLIS_CLIENT_SESSION_H
#define VRELLIS_CLIENT_SESSION_H

#include "records/known.h"
#include "records/layout.h"

// Written by open and close alone; which record is the client's may not change while it is open.
struct encap_client {
  clients::ClientRecord *record;
  clients::Ledger *ledger;
  std::uint32_t generation;  // of the process that opened it: a child of fork is the next one
  clients::KnownTunnels known;
};

namespace clients {

// How many forks led to this process since the library was loaded.
std::uint32_t generation();

// The root of the clients' records in the database of this process.
ClientRoot &client_root();

// Opens the database for one more client of this process, or keeps the one that is open, if it is the configured one.
// Returns: 0, to be given back by close_database(); the codes of encap_db_open() with `error` filled.
int open_database(const encap_db_config_t &config, shmwin_error_t *error);
void close_database();

/*
 * Takes the database lock and takes back what a dead process left open.
 * Returns: 0 with the lock held; EPERM in a forked child; the lock's status.
 */
int enter_database(const encap_client_t &client);
void leave_database();

}  // namespace clients

#endif
