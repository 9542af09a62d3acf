// Free indexes: chosen in constant time from the whole range; one that was given back is the last to be given out
// again. Everything here requires the database lock.
#ifndef VRELLIS_CLIENT_INDEXES_H
#define VRELLIS_CLIENT_INDEXES_H

#include "layout.h"

namespace clients {

// An index whose slot is free.
struct Choice {
  std::uint32_t index;
  bool has_waited;  // it is the front of its queue, and was never given out otherwise
};

// Steps over indexes that processes without a client have in use meanwhile. Require that no change is open. Return: 0
// with *choice filled; ENOSPC when no index is free.
int choose_nh(ClientRoot &root, Choice *choice);
int choose_tunnel(ClientRoot &root, Choice *choice);

// Take what was chosen. Require an open change, and that nothing has changed since the choice.
void take_nh(ClientRoot &root, const Choice &choice);
void take_tunnel(ClientRoot &root, const Choice &choice);

// Put an index whose slot is about to be freed behind all others. Require an open change.
void give_nh_back(ClientRoot &root, std::uint32_t index);
void give_tunnel_back(ClientRoot &root, std::uint32_t index);

}  // namespace clients

#endif
