// The owner: every process opens a database in the same way, whether it exists or not. One process at a time is between
// the claim on the window and its release. A database exists from the store of is_initialized on, which is the last one
// of its making.
#include "encap_db_owner.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cinttypes>

#include "diag/catalogue.h"
#include "process/robust_lock.h"
#include "shmwin/refuse.h"

namespace {

using vrellis::refuse;

// Room beyond one node an index: tunnel nodes of the null tunnel, one an interface that carries single labels; and
// nodes in the hands of processes that died with them, until a repair.
constexpr std::uint64_t kNullTunnelNodes = 4096;
constexpr std::uint64_t kSpareNodes = 64;

constexpr std::uint64_t kTunnelNodeBytes = 57;  // with its share of the page's unused end

constexpr std::uint64_t kMaxTunnelIndex = UINT16_MAX;  // what a slot and a node can hold

// The open database of this process.
struct OpenDatabase {
  bool open;
  std::uint32_t shm_id;
};
constinit OpenDatabase database{};

std::uint64_t array_bytes(std::uint64_t nh_size, std::uint64_t tun_size) {
  return sizeof(egr_nh_info_t) * nh_size + sizeof(egr_tun_info_t) * (tun_size + 1);
}

std::uint64_t tunnel_nodes(const encap_db_config_t &config) {
  return config.tun_size + std::min<std::uint64_t>(config.nh_size, kNullTunnelNodes) + kSpareNodes;
}

// Twice the tunnel nodes, so that their pages can be kept unused while NH nodes get room to lie together.
std::uint64_t default_size(const encap_db_config_t &config) {
  return shmwin_size_for(array_bytes(config.nh_size, config.tun_size), 2, config.nh_size + kSpareNodes,
                         2 * tunnel_nodes(config));
}

void add_catalogue_once() {
  static bool added = false;
  if (!added) {
    ed_add_catalogue(&encap_catalogue);
    added = true;
  }
}

int check_range(const char *what, std::uint64_t start, std::uint64_t size, shmwin_error_t *error) {
  return start + size <= UINT32_MAX
             ? 0
             : refuse(error, EINVAL, "%s indexes %" PRIu64 " and the %" PRIu64 " from there on pass 32 bits", what,
                      start, size);
}

int check_config(const encap_db_config_t *config, shmwin_error_t *error) {
  if (config == nullptr || config->name == nullptr) {
    return refuse(error, EINVAL, "a database needs a configuration that names its window, it has none");
  }
  int status = check_range("NH", config->nh_start, config->nh_size, error);
  if (status == 0) {
    status = check_range("tunnel", config->tun_start, config->tun_size, error);
  }
  if (status != 0) {
    return status;
  }
  const std::uint64_t tun_end = std::uint64_t{config->tun_start} + config->tun_size;
  if (config->tun_size != 0 && tun_end - 1 > kMaxTunnelIndex) {
    return refuse(error, EINVAL, "the last tunnel index would be %" PRIu64 ", the highest possible one is %" PRIu64,
                  tun_end - 1, kMaxTunnelIndex);
  }
  const std::uint64_t least = shmwin_size_for(array_bytes(config->nh_size, config->tun_size), 2, 0, 0);
  if (least == UINT64_MAX || (config->size != 0 && config->size < least)) {
    return refuse(error, EINVAL,
                  "window '%s' of %" PRIu64 " bytes has no room for the arrays of %" PRIu32 " NHs and %" PRIu32
                  " tunnels, which take %" PRIu64,
                  config->name, config->size, config->nh_size, config->tun_size, least);
  }
  return 0;
}

shmwin_config_t window_of(const encap_db_config_t &config) {
  shmwin_config_t window{};
  window.directory = config.directory;
  window.name = config.name;
  window.shm_id = config.shm_id;
  window.mode = config.mode;
  window.size = config.size != 0 ? config.size : default_size(config);
  window.address = config.address;
  // What a window has beyond the default is for its clients' ledgers.
  window.kept = tunnel_nodes(config) * kTunnelNodeBytes + window.size - std::min(window.size, default_size(config));
  window.named = config.named;
  window.user = config.user;
  window.group = config.group;
  return window;
}

egress_encap_db_t *header_in(std::uint32_t shm_id) {
  static_assert(sizeof(egress_encap_db_t) <= SHMWIN_USER_AREA_BYTES);
  return static_cast<egress_encap_db_t *>(shmwin_user_area(shm_id));
}

bool is_initialized(const egress_encap_db_t &header) {
  return std::atomic_ref(const_cast<std::uint32_t &>(header.is_initialized)).load(std::memory_order_acquire) != 0;
}

bool lies_within(std::uint32_t shm_id, const void *array, std::uint64_t bytes) {
  void *begin = nullptr;
  std::size_t window = 0;
  shmwin_bounds(shm_id, &begin, &window);
  const std::uint64_t offset = reinterpret_cast<std::uintptr_t>(array) - reinterpret_cast<std::uintptr_t>(begin);
  return offset < window && bytes <= window - offset;
}

// An existing database against the configuration, and its arrays against the window.
int check_database(const egress_encap_db_t &header, const encap_db_config_t &config, shmwin_error_t *error) {
  const std::uint32_t nh_end = config.nh_start + config.nh_size;
  const std::uint32_t tun_end = config.tun_start + config.tun_size;
  if (header.nh_start != config.nh_start || header.nh_end != nh_end || header.tun_start != config.tun_start ||
      header.tun_end != tun_end) {
    return refuse(error, EINVAL,
                  "database '%s' has NH indexes from %" PRIu32 " to below %" PRIu32 " and tunnel indexes from %" PRIu32
                  " to below %" PRIu32 ", the configuration %" PRIu32 " to %" PRIu32 " and %" PRIu32 " to %" PRIu32,
                  config.name, header.nh_start, header.nh_end, header.tun_start, header.tun_end, config.nh_start,
                  nh_end, config.tun_start, tun_end);
  }
  if (header.shm_id != config.shm_id) {
    return refuse(error, EINVAL, "database '%s' allocates in window %" PRIu32 ", it lies in window %" PRIu32,
                  config.name, header.shm_id, config.shm_id);
  }
  if (!lies_within(config.shm_id, header.nh_info_array, sizeof(egr_nh_info_t) * std::uint64_t{config.nh_size}) ||
      !lies_within(config.shm_id, header.tun_info_array, array_bytes(0, config.tun_size))) {
    return refuse(error, EINVAL, "database '%s' is damaged: its arrays at %p and %p leave the window", config.name,
                  static_cast<void *>(header.nh_info_array), static_cast<void *>(header.tun_info_array));
  }
  return 0;
}

// Attaches the window, or makes it anew. A window without a database is made anew, too: its creator died. No process
// can have it attached, since a process attaches under the claim and detaches at once when it finds no database.
int attach_or_format(shmwin_claim_t *claim, int present, const encap_db_config_t &config, shmwin_error_t *error) {
  if (present != 0) {
    const int status = shmwin_attach(claim, config.shm_id, error);
    if (status != 0 || is_initialized(*header_in(config.shm_id))) {
      return status;
    }
    shmwin_detach(config.shm_id);
  }
  const shmwin_config_t window = window_of(config);
  return shmwin_format(claim, &window, error);
}

int initialize(egress_encap_db_t *header, const encap_db_config_t &config, shmwin_error_t *error) {
  const int status = mpls_egress_encap_db_init(config.shm_id, config.nh_size, config.tun_size, config.nh_start,
                                               config.tun_start, header);
  if (status != 0) {
    return refuse(error, status, "the database in window '%s' cannot be initialised: status %d", config.name, status);
  }
  if (!is_initialized(*header)) {
    std::atomic_ref(header->is_initialized).store(1, std::memory_order_release);
  }
  return 0;
}

// The library's pointer goes before the memory that it points into.
int leave_window(std::uint32_t shm_id) {
  egress_encap_db = nullptr;
  return shmwin_detach(shm_id);
}

// Any process that locks a lost lock waits for ever, so the database is not opened.
int check_lock(const egress_encap_db_t &header, const encap_db_config_t &config, shmwin_error_t *error) {
  if (!vrellis::is_lost(header.lock.mutex)) {
    return 0;
  }
  return refuse(error, ENOTRECOVERABLE,
                "the lock of database '%s' is held by thread %d, which is gone and cannot give it back: the window was "
                "copied, or is older than the system's start; repair it with encapctl",
                config.name, vrellis::read_robust_lock(header.lock.mutex).owner);
}

// Requires the claim.
int open_claimed(shmwin_claim_t *claim, int present, const encap_db_config_t &config, int *created,
                 shmwin_error_t *error) {
  int status = attach_or_format(claim, present, config, error);
  if (status != 0) {
    return status;
  }
  egress_encap_db_t *const header = header_in(config.shm_id);
  const bool exists = is_initialized(*header);
  if (exists) {
    status = check_database(*header, config, error);
    status = status == 0 ? check_lock(*header, config, error) : status;
  }
  if (status == 0) {
    status = initialize(header, config, error);
  }
  if (status != 0) {
    leave_window(config.shm_id);
    return status;
  }
  database = {true, config.shm_id};
  if (created != nullptr) {
    *created = exists ? 0 : 1;
  }
  return 0;
}

}  // namespace

int encap_db_open(const encap_db_config_t *config, int *created, shmwin_error_t *error) {
  int status = check_config(config, error);
  if (status != 0) {
    return status;
  }
  if (database.open) {
    return refuse(error, EEXIST, "'%s' would be this process's second database: the one in window %" PRIu32 " is open",
                  config->name, database.shm_id);
  }
  add_catalogue_once();
  const shmwin_config_t window = window_of(*config);
  shmwin_claim_t *claim = nullptr;
  int present = 0;
  status = shmwin_claim(&window, &claim, &present, error);
  if (status != 0) {
    return status;
  }
  status = open_claimed(claim, present, *config, created, error);
  shmwin_release(claim);
  return status;
}

uint64_t encap_db_default_size(const encap_db_config_t *config) {
  return check_config(config, nullptr) == 0 ? default_size(*config) : 0;
}

int encap_db_matches(const encap_db_config_t *config, shmwin_error_t *error) {
  if (!database.open) {
    return ENOENT;
  }
  if (config->shm_id != database.shm_id) {
    return refuse(error, EEXIST, "'%s' would be this process's second database: the one in window %" PRIu32 " is open",
                  config->name, database.shm_id);
  }
  return check_database(*header_in(config->shm_id), *config, error);
}

int encap_db_close(void) {
  if (!database.open) {
    return ENOENT;
  }
  database.open = false;
  return leave_window(database.shm_id);
}

int encap_db_destroy(const char *directory, const char *name, int force, shmwin_error_t *error) {
  return shmwin_unlink(directory, name, force, error);
}
