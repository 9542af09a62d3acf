// The calls: each checks its arguments, takes the lock for each of its steps, and gives it back before a callback.
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "encap_client.h"
#include "names.h"
#include "records/ledger.h"
#include "records/lookup.h"
#include "records/window.h"
#include "references.h"
#include "session.h"
#include "shmwin/refuse.h"

namespace clients {
namespace {

using vrellis::refuse;

int refuse_name(shmwin_error_t *error, int status, const char *name, const ClientRecord *record) {
  switch (status) {
    case EBUSY:
      return refuse(error, status, "the client '%s' is alive: process %u has the name", name, pid_of(*record));
    case EINVAL:
      return refuse(error, status, "the client '%s' finds the records of clients damaged", name);
    case EAGAIN:
      return refuse(error, status, "the client '%s' finds no free name: all %d are taken", name, ENCAP_CLIENT_MAX);
    default:
      return refuse(error, status, "the client '%s' finds no memory for its ledger in the window", name);
  }
}

// Requires an open database. Fills `client`.
int open_name(const char *name, encap_client_t *client, shmwin_error_t *error) {
  client->generation = generation();
  if (!client->known.make()) {
    return refuse(error, ENOMEM, "the client '%s' finds no memory in its process", name);
  }
  int status = enter_database(*client);
  if (status != 0) {
    return refuse(error, status, "the client '%s' cannot take the database lock: %s", name, std::strerror(status));
  }
  begin_change();
  ClientRecord *record = nullptr;
  status = become(name, &record);
  if (status == 0) {
    avl_change_commit();
    client->record = record;
    client->ledger = at<Ledger>(record->ledger);
  } else {
    refuse_name(error, status, name, record);
    avl_change_abort();
  }
  leave_database();
  return status;
}

void end(encap_client_t *client) {
  if (client->generation == generation()) {  // a child of fork has none of its parent's clients
    close_database();
  }
  std::free(client->known.nodes);
  std::free(client);
}

// Returns a reference on the first NH of a bucket that is due. Returns: 0; ENOENT when none is.
template <typename Due>
int release_one(const KnownTunnels &known, Ledger &ledger, std::uint32_t number, Due is_due, encap_left_t *left) {
  std::uint32_t nh = 0;
  bool due = false;
  each_in(bucket_at(ledger, number), [&](const Holding &holding) {
    if (!due && is_due(holding)) {
      nh = holding.nh;
      due = true;
    }
  });
  if (!due) {
    return ENOENT;
  }
  count_call(ledger, kReleased);
  return give_reference_back(known, ledger, nh, First::kStale, left);
}

using Gone = void (*)(const encap_left_t *, void *);

// Releases what is due, bucket by bucket, each reference in a lock hold of its own. Holdings move to other buckets
// while the table shrinks, so it goes round until nothing is left.
template <typename Left, typename Due>
int sweep(const encap_client_t &client, Ledger &ledger, Left is_left, Due is_due, Gone gone, void *arg) {
  std::uint32_t number = 0;
  for (;;) {
    int status = enter_database(client);
    if (status != 0) {
      return status;
    }
    encap_left_t left{};
    status = ENOENT;
    const bool some = is_left();
    for (std::uint32_t turns = 0; some && status == ENOENT && turns < buckets_of(ledger); ++turns) {
      number = number < buckets_of(ledger) ? number : 0;
      status = release_one(client.known, ledger, number, is_due, &left);
      number += status == ENOENT ? 1 : 0;
    }
    leave_database();
    if (status != 0) {
      return some ? (status == ENOENT ? EINVAL : status) : 0;
    }
    if (gone != nullptr) {
      gone(&left, arg);
    }
  }
}

int release_all(const encap_client_t &client, Ledger &ledger, Gone gone, void *arg) {
  return sweep(
      client, ledger, [&] { return ledger.held != 0; }, [](const Holding &) { return true; }, gone, arg);
}

int hand_back_record(const encap_client_t &client, ClientRecord &record) {
  const int status = enter_database(client);
  if (status == 0) {
    begin_change();
    hand_back(record);
    avl_change_commit();
    leave_database();
  }
  return status;
}

// Makes this process the one of another name, so that no other process opens it meanwhile.
int seize(const encap_client_t &client, const char *name, ClientRecord **record) {
  int status = enter_database(client);
  if (status != 0) {
    return status;
  }
  *record = is_name(name) ? record_of(name) : nullptr;
  status = *record == nullptr ? ENOENT : is_taken(**record) ? EBUSY : 0;
  if (status == 0) {
    begin_change();
    take_name_up(**record);
    avl_change_commit();
  }
  leave_database();
  return status;
}

}  // namespace
}  // namespace clients

using namespace clients;

int encap_client_open(const encap_client_config_t *config, encap_client_t **client, shmwin_error_t *error) {
  *client = nullptr;
  if (config == nullptr || !is_name(config->name)) {
    return refuse(error, EINVAL, "a client needs a name of 1 to %d of A-Z a-z 0-9 . _ -", ENCAP_CLIENT_NAME_BYTES - 1);
  }
  auto *const made = static_cast<encap_client_t *>(std::calloc(1, sizeof(encap_client_t)));
  if (made == nullptr) {
    return refuse(error, ENOMEM, "the client '%s' finds no memory in its process", config->name);
  }
  int status = open_database(config->database, error);
  if (status != 0) {
    std::free(made);
    return status;
  }
  status = open_name(config->name, made, error);
  if (status != 0) {
    end(made);
    return status;
  }
  *client = made;
  return 0;
}

int encap_client_close(encap_client_t *client) {
  const int status = hand_back_record(*client, *client->record);
  end(client);
  return status;
}

int encap_client_enter(encap_client_t *client, egress_encap_key_t key, const encap_attributes_t *attributes,
                       encap_entry_t *entry) {
  if (!is_possible(key)) {
    return EINVAL;
  }
  int status = enter_database(*client);
  if (status != 0) {
    return status;
  }
  Ledger &ledger = *client->ledger;
  encap_entry_t done{};
  status =
      take_reference(client->known, ledger, key, attributes != nullptr ? *attributes : encap_attributes_t{}, &done);
  count_call(ledger, status != 0 ? kRefused : done.renewed != 0 ? kRenewed : kEntered);
  leave_database();
  if (status == 0 && entry != nullptr) {
    *entry = done;
  }
  return status;
}

int encap_client_release(encap_client_t *client, uint32_t nh, encap_left_t *left) {
  int status = enter_database(*client);
  if (status != 0) {
    return status;
  }
  encap_left_t done{};
  status = give_reference_back(client->known, *client->ledger, nh, First::kFresh, &done);
  if (status == 0) {
    count_call(*client->ledger, kReleased);
  }
  leave_database();
  if (status == 0 && left != nullptr) {
    *left = done;
  }
  return status;
}

int encap_client_refresh_begin(encap_client_t *client) {
  const int status = enter_database(*client);
  if (status != 0) {
    return status;
  }
  Ledger &ledger = *client->ledger;
  begin_change();
  put(ledger.epoch, (ledger.epoch + 1) % kEpochs);
  put(ledger.fresh, std::uint64_t{0});
  avl_change_commit();
  // Holdings of an epoch so old that its number comes again would count as fresh.
  constexpr std::uint32_t kForgetEvery = kEpochs / 4;
  if (ledger.epoch % kForgetEvery == 0) {
    forget_old_epochs(ledger);
  }
  count_call(ledger, kRefreshes);
  leave_database();
  return 0;
}

int encap_client_refresh_end(encap_client_t *client, void (*gone)(const encap_left_t *, void *), void *arg) {
  Ledger &ledger = *client->ledger;
  return sweep(
      *client, ledger, [&] { return stale_of(ledger) != 0; },
      [&](const Holding &holding) { return holding.held != fresh_of(holding, ledger.epoch); }, gone, arg);
}

int encap_client_leave(encap_client_t *client, void (*gone)(const encap_left_t *, void *), void *arg) {
  const int status = release_all(*client, *client->ledger, gone, arg);
  const int closed = encap_client_close(client);
  return status != 0 ? status : closed;
}

int encap_client_reclaim(encap_client_t *client, const char *name, void (*gone)(const encap_left_t *, void *),
                         void *arg) {
  ClientRecord *record = nullptr;
  int status = seize(*client, name, &record);
  if (status != 0) {
    return status;
  }
  auto *const ledger = at<Ledger>(record->ledger);
  status = ledger != nullptr ? release_all(*client, *ledger, gone, arg) : EINVAL;
  const int closed = hand_back_record(*client, *record);
  return status != 0 ? status : closed;
}
