// Free indexes: chosen in constant time from the whole range; one that was given back is the last to be given out
// again. Everything here requires the database lock.
#ifndef VRELLIS_CLIENT_INDEXES_H
#define VRELLIS_CLIENT_INDEXES_H

#include "layout.h"

namespace clients {

// Takes indexes off the fronts of the queues that processes without a client have in use meanwhile. Requires that no
// change is open. The next choice then needs one look at a slot.
void clear_queue_fronts(ClientRoot &root);

// Require an open change. Out: *index, whose slot is free. Return: 0; ENOSPC when there is none.
int choose_nh(ClientRoot &root, std::uint32_t *index);
int choose_tunnel(ClientRoot &root, std::uint32_t *index);

// Put an index whose slot is about to be freed behind all others. Require an open change.
void give_nh_back(ClientRoot &root, std::uint32_t index);
void give_tunnel_back(ClientRoot &root, std::uint32_t index);

}  // namespace clients

#endif
