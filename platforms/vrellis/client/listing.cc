// The calls that tell what there is: holdings of a client, and names of the database.
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "encap_client.h"
#include "names.h"
#include "records/ledger.h"
#include "records/lookup.h"
#include "records/window.h"
#include "session.h"

namespace clients {
namespace {

void describe(ClientRecord &record, encap_client_info_t *info) {
  static const Ledger no_ledger{};  // of a damaged record
  const auto *const own = at<Ledger>(record.ledger);
  const Ledger &ledger = own != nullptr ? *own : no_ledger;
  const std::uint32_t state = state_of(record);
  if (state == ENCAP_CLIENT_DEAD) {
    begin_change();
    notice_death(record);
    avl_change_commit();
  }
  *info = encap_client_info_t{};
  std::memcpy(info->name, record.name, sizeof info->name - 1);
  info->pid = pid_of(record);
  info->state = state;
  info->since = record.since;
  info->nhs = ledger.nhs;
  info->held = ledger.held;
  info->stale = stale_of(ledger);
  info->entered = ledger.calls[kEntered];
  info->renewed = ledger.calls[kRenewed];
  info->released = ledger.calls[kReleased];
  info->refreshes = ledger.calls[kRefreshes];
  info->refused = ledger.calls[kRefused];
}

// NHs of all holdings, as of one moment. Requires the lock.
// Returns: how many, of which the first `room` are stored; or more than `room`, with none stored.
std::uint64_t list_nhs(Ledger &ledger, std::uint32_t *nhs, std::uint64_t room) {
  const std::uint64_t most = egress_encap_db->nh_end - egress_encap_db->nh_start;
  const std::uint64_t told = std::min(ledger.nhs, most);
  std::uint64_t count = 0;
  for (std::uint32_t number = 0; told <= room && number < buckets_of(ledger); ++number) {
    each_in(bucket_at(ledger, number), [&](const Holding &holding) {
      if (count < room) {
        nhs[count++] = holding.nh;
      }
    });
  }
  return told <= room ? count : told;
}

// Out: *nhs, to be freed, and *count. Returns: 0; ENOMEM; the lock's status.
int snapshot_nhs(const encap_client_t &client, std::uint32_t **nhs, std::uint64_t *count) {
  std::uint64_t room = 0;
  *nhs = nullptr;
  for (;;) {
    const int status = enter_database(client);
    if (status != 0) {
      std::free(*nhs);
      *nhs = nullptr;
      return status;
    }
    *count = list_nhs(*client.ledger, *nhs, room);
    leave_database();
    if (*count <= room) {
      return 0;
    }
    // A little more than it was, since others of this client may enter meanwhile.
    room = *count + *count / 8 + 16;
    std::free(*nhs);
    *nhs = static_cast<std::uint32_t *>(std::malloc(room * sizeof(std::uint32_t)));
    if (*nhs == nullptr) {
      return ENOMEM;
    }
  }
}

// Out: *told, whether the client still holds something on the NH; then *holding.
int read_holding(const encap_client_t &client, std::uint32_t nh, encap_holding_t *holding, bool *told) {
  const int status = enter_database(client);
  if (status != 0) {
    return status;
  }
  const Holding *const found = place_of(*client.ledger, nh).holding;
  *told = found != nullptr && nh_in_range(nh);
  if (*told) {
    *holding = {nh, found->held, found->held - fresh_of(*found, client.ledger->epoch), key_of(nh)};
  }
  leave_database();
  return 0;
}

}  // namespace
}  // namespace clients

using namespace clients;

int encap_client_each(encap_client_t *client, void (*each)(const encap_holding_t *, void *), void *arg) {
  std::uint32_t *nhs = nullptr;
  std::uint64_t count = 0;
  int status = snapshot_nhs(*client, &nhs, &count);
  for (std::uint64_t i = 0; status == 0 && i < count; ++i) {
    encap_holding_t holding{};
    bool told = false;
    status = read_holding(*client, nhs[i], &holding, &told);
    if (status == 0 && told) {
      each(&holding, arg);
    }
  }
  std::free(nhs);
  return status;
}

int encap_client_list(encap_client_t *client, encap_client_info_t *out, uint32_t room, uint32_t *count) {
  const int status = enter_database(*client);
  if (status != 0) {
    return status;
  }
  *count = 0;
  ClientRecord *const records = all_records();
  for (std::uint32_t i = 0; records != nullptr && i < ENCAP_CLIENT_MAX; ++i) {
    if (records[i].name[0] != '\0') {
      if (*count < room) {
        describe(records[i], &out[*count]);
      }
      ++*count;
    }
  }
  leave_database();
  return records != nullptr ? 0 : EINVAL;
}
