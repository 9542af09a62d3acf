// Names: which client has which record, and whether its process lives.
#include "names.h"

#include <cerrno>
#include <cstring>
#include <ctime>

#include "process/process.h"
#include "records/window.h"
#include "session.h"

namespace clients {
namespace {

constexpr int kPidBits = 22;  // the kernel's own bound on process ids

std::uint64_t real_time_ns() {
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<std::uint64_t>(now.tv_nsec);
}

std::uint64_t own_entry() {
  const vrellis::ProcessId own = vrellis::own_process();
  return own.start << kPidBits | static_cast<std::uint64_t>(own.pid);
}

void put_name(ClientRecord &record, const char *name) {
  note_record(record.name);
  std::memset(record.name, 0, sizeof record.name);
  std::memcpy(record.name, name, std::strlen(name));
}

IndexQueue queue_over(std::uint32_t start, std::uint32_t end) {
  return {.fresh = start, .end = end, .oldest = 0, .newest = 0, .take = 0, .put = 0, .waiting = 0, .spare = {}};
}

// Makes the root of the clients, by the first one of a database. Returns: 0; ENOMEM.
int make_root(ClientRoot &root) {
  const auto *const page = take<Page>();
  if (page == nullptr) {
    return ENOMEM;
  }
  note_record(root);
  root.clients = address_of(page);
  root.nhs = queue_over(egress_encap_db->nh_start, egress_encap_db->nh_end);
  root.tunnels = queue_over(egress_encap_db->tun_start, egress_encap_db->tun_end);
  root.magic = kRootMagic;
  return 0;
}

}  // namespace

bool is_name(const char *name) {
  const std::size_t length = name != nullptr ? strnlen(name, ENCAP_CLIENT_NAME_BYTES) : 0;
  constexpr char kAllowed[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._-";
  return length > 0 && length < ENCAP_CLIENT_NAME_BYTES && std::strspn(name, kAllowed) == length;
}

ClientRecord *all_records() {
  if (client_root().magic != kRootMagic) {
    return nullptr;
  }
  auto *const page = at<Page>(client_root().clients);
  return page != nullptr ? at<ClientRecord>(address_of(page)) : nullptr;
}

ClientRecord *record_of(const char *name) {
  ClientRecord *const all = all_records();
  for (std::uint32_t i = 0; all != nullptr && i < ENCAP_CLIENT_MAX; ++i) {
    if (std::strncmp(all[i].name, name, ENCAP_CLIENT_NAME_BYTES) == 0) {
      return &all[i];
    }
  }
  return nullptr;
}

std::uint32_t pid_of(const ClientRecord &record) {
  return static_cast<std::uint32_t>(record.process & ((1U << kPidBits) - 1));
}

std::uint32_t state_of(const ClientRecord &record) {
  if (record.process == 0) {
    return ENCAP_CLIENT_CLOSED;
  }
  const vrellis::ProcessId process{static_cast<pid_t>(pid_of(record)), record.process >> kPidBits,
                                   vrellis::own_pid_namespace()};
  switch (vrellis::liveness_of(process)) {
    case vrellis::Liveness::kAlive:
      return ENCAP_CLIENT_ALIVE;
    case vrellis::Liveness::kDead:
      return ENCAP_CLIENT_DEAD;
    default:
      return ENCAP_CLIENT_UNKNOWN;
  }
}

bool is_taken(const ClientRecord &record) {
  const std::uint32_t state = state_of(record);
  return state == ENCAP_CLIENT_ALIVE || state == ENCAP_CLIENT_UNKNOWN;
}

void take_name_up(ClientRecord &record) {
  put(record.process, own_entry());
  put(record.since, real_time_ns());
  put(record.seen_dead, 0U);
}

namespace {

// A free record; when all are taken, one whose process died and holds nothing, which is forgotten.
ClientRecord *find_room() {
  ClientRecord *const free = record_of("");
  ClientRecord *const all = all_records();
  for (std::uint32_t i = 0; free == nullptr && all != nullptr && i < ENCAP_CLIENT_MAX; ++i) {
    const auto *const ledger = at<Ledger>(all[i].ledger);
    if (ledger != nullptr && ledger->held == 0 && state_of(all[i]) == ENCAP_CLIENT_DEAD) {
      hand_back(all[i]);
      return &all[i];
    }
  }
  return free;
}

// Returns: 0 with *record; EAGAIN; ENOMEM.
int make_record(const char *name, ClientRecord **record) {
  ClientRecord *const free = find_room();
  if (free == nullptr) {
    return EAGAIN;
  }
  auto *const ledger = take<Ledger>();
  if (ledger == nullptr) {
    return ENOMEM;
  }
  ledger->buckets = kInlineBuckets;
  put_name(*free, name);
  put(free->ledger, address_of(ledger));
  *record = free;
  return 0;
}

}  // namespace

int become(const char *name, ClientRecord **record) {
  ClientRoot &root = client_root();
  const int made = root.magic != kRootMagic ? make_root(root) : 0;
  if (made != 0) {
    return made;
  }
  if (all_records() == nullptr) {
    return EINVAL;
  }
  *record = record_of(name);
  int status = 0;
  if (*record == nullptr) {
    status = make_record(name, record);
  } else if (is_taken(**record)) {
    status = EBUSY;
  } else if (at<Ledger>((*record)->ledger) == nullptr) {
    status = EINVAL;
  }
  if (status == 0) {
    take_name_up(**record);
  }
  return status;
}

void hand_back(ClientRecord &record) {
  auto *const ledger = at<Ledger>(record.ledger);
  if (ledger == nullptr || ledger->held == 0) {
    note_record(record);
    std::memset(&record, 0, sizeof record);
    shmwin_free(ledger);
  } else {
    put(record.process, std::uint64_t{0});
    put(record.since, real_time_ns());
  }
}

void notice_death(ClientRecord &record) {
  if (record.seen_dead == 0) {
    put(record.seen_dead, 1U);
    put(record.since, real_time_ns());
  }
}

}  // namespace clients
