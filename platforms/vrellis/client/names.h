// Names: which client has which record, and whether its process lives. Everything here requires the database lock; what
// changes a record requires an open change, too.
#ifndef VRELLIS_CLIENT_NAMES_H
#define VRELLIS_CLIENT_NAMES_H

#include "records/layout.h"

namespace clients {

// Whether this can be a name. Requires nothing.
bool is_name(const char *name);

// All ENCAP_CLIENT_MAX of them. Returns: nullptr when there are none, or when the root is damaged.
ClientRecord *all_records();

// Returns: nullptr when no client has the name. "" finds a free record.
ClientRecord *record_of(const char *name);

std::uint32_t pid_of(const ClientRecord &record);

// ENCAP_CLIENT_ALIVE and the others.
std::uint32_t state_of(const ClientRecord &record);

// Whether a process that lives, or that cannot be looked at, has the name.
bool is_taken(const ClientRecord &record);

// Makes this process the one of the name. Out: *record. Returns: 0; EBUSY, with *record; EAGAIN; ENOMEM; EINVAL when
// the records are damaged.
int become(const char *name, ClientRecord **record);
void take_name_up(ClientRecord &record);

// Closes the name, and forgets it when it holds nothing.
void hand_back(ClientRecord &record);

// Stores when the death of the record's process was first noticed.
void notice_death(ClientRecord &record);

}  // namespace clients

#endif
