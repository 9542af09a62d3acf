// Windows: made, mapped at their one address, and let go. What a file must be for that is in shmwin/preflight.cc, its
// lock in shmwin/claim.cc, its place in shmwin/mapping.cc, the allocator inside in shmwin/heap/heap.cc.
#include "shmwin.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstring>
#include <ctime>

#include "shmwin/file.h"
#include "shmwin/heap/heap.h"
#include "shmwin/mapping.h"
#include "shmwin/process_table.h"

namespace vrellis {

static_assert(kMostWindows == SHMWIN_MAX_WINDOWS && kUserAreaBytes == SHMWIN_USER_AREA_BYTES);

constinit WindowMap window_maps[kMostWindows];

namespace {

bool is_attached(const WindowMap &map) {
  return map.begin != map.end;
}

WindowMap *map_of_id(std::uint32_t shm_id) {
  for (WindowMap &map : window_maps) {
    if (is_attached(map) && map.shm_id == shm_id) {
      return &map;
    }
  }
  return nullptr;
}

// A slot for one more window. Returns: 0, or a status with `error` filled.
int find_slot(std::uint32_t shm_id, WindowMap **slot, shmwin_error_t *error) {
  if (own_process().start == 0) {
    return refuse(error, ENOENT, "/proc does not tell this process's start time, which a window's table needs");
  }
  if (map_of_id(shm_id) != nullptr) {
    return refuse(error, EEXIST, "id %" PRIu32 " is taken: this process has a window of that id attached", shm_id);
  }
  for (WindowMap &map : window_maps) {
    if (!is_attached(map)) {
      *slot = &map;
      return 0;
    }
  }
  return refuse(error, EMFILE, "this process has %d windows attached, which is the most", SHMWIN_MAX_WINDOWS);
}

// A child of a fork has its parent's windows mapped and stands in their tables for itself. With a full table it goes
// uncounted: it cannot be refused any more.
void enter_forked_child() {
  for (const WindowMap &map : window_maps) {
    if (is_attached(map)) {
      enter_process(*map.header);
    }
  }
}

void watch_forks() {
  static pthread_once_t once = PTHREAD_ONCE_INIT;
  pthread_once(&once, [] { pthread_atfork(nullptr, nullptr, enter_forked_child); });
}

void publish(WindowMap *slot, std::uint64_t address, std::uint64_t size, std::uint32_t shm_id, const Heap &heap) {
  heaps[slot - window_maps] = heap;
  slot->shm_id = shm_id;  // NOLINT(clang-analyzer-core.NullDereference): find_slot() returns 0 with a slot alone
  slot->header = heap.header;
  slot->tree_area = heap.header->tree_area;
  slot->user_area = heap.header->user_area;
  slot->begin = address;
  slot->end = address + size;
  watch_forks();
}

// ---------------------------------------------------------------------------------------------------------- creation

int check_config(const shmwin_claim_t &claim, const shmwin_config_t &config, shmwin_error_t *error) {
  if (config.size < kMinWindowBytes || config.size > kMaxWindowBytes ||
      round_up(config.size, page_bytes_of(claim.fd)) > kMaxWindowBytes) {
    return refuse(error, EINVAL, "window '%s' cannot have %" PRIu64 " bytes, it takes %" PRIu64 " to %" PRIu64,
                  claim.name, config.size, kMinWindowBytes, kMaxWindowBytes);
  }
  constexpr std::uint64_t kTop = std::uint64_t{1} << 47;
  if (config.address % kPageBytes != 0 || config.address > kTop - kMaxWindowBytes) {
    return refuse(error, EINVAL,
                  "window '%s' cannot be mapped at %#" PRIx64 ", an address is a multiple of %" PRIu64
                  " and at most %#" PRIx64,
                  claim.name, config.address, kPageBytes, kTop - kMaxWindowBytes);
  }
  return 0;
}

// Refuses to format a file that a live process has mapped: truncating the file would give that process SIGBUS.
int check_unused(const shmwin_claim_t &claim, shmwin_error_t *error) {
  FileContent content;
  const int status = read_content(claim, &content, error);
  if (status != 0 || is_absent(content)) {
    return status;
  }
  if (content.header.magic != kWindowMagic) {
    return refuse(error, EINVAL, "'%s' is no window and is not overwritten", claim.path);
  }
  return refuse_if_attached(content.header, claim.name, error);
}

int reserve(const shmwin_claim_t &claim, const shmwin_config_t &config, std::uint64_t size, shmwin_error_t *error) {
  rlimit limit;
  if (getrlimit(RLIMIT_FSIZE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY && limit.rlim_cur < size) {
    return refuse(error, EFBIG, "window '%s' needs %" PRIu64 " bytes, this process may make files of %" PRIu64,
                  claim.name, size, limit.rlim_cur);
  }
  if (ftruncate(claim.fd, 0) != 0 || fchmod(claim.fd, mode_of(config)) != 0) {
    return refuse_system(error, errno, "prepare", claim.path);
  }
  int status = EINTR;
  while (status == EINTR) {
    status = posix_fallocate(claim.fd, 0, static_cast<off_t>(size));
  }
  if (status != 0) {
    return refuse(error, status, "window '%s' needs %" PRIu64 " bytes, which '%s' cannot give: %s", claim.name, size,
                  claim.path, std::strerror(status));
  }
  return 0;
}

std::uint64_t now() {
  timespec time;
  clock_gettime(CLOCK_REALTIME, &time);
  return static_cast<std::uint64_t>(time.tv_sec) * 1000000000 + static_cast<std::uint64_t>(time.tv_nsec);
}

// The magic first: from then on the file is known for a window that is not complete.
void write_header(WindowHeader &header, std::uint64_t address, std::uint64_t size, const shmwin_config_t &config) {
  store_word(header.magic, kWindowMagic);
  header.version = kLayoutVersion;
  header.word_bits = kWordBits;
  header.mutex_bytes = sizeof(pthread_mutex_t);
  header.shm_id = config.shm_id;
  store_word(header.kept_pages, config.kept / kPageBytes + (config.kept % kPageBytes != 0));
  store_word(header.size, size);
  store_word(header.address, address);
  store_word(header.pid_namespace, own_pid_namespace());
  store_word(header.created, now());
}

int make_window(const shmwin_claim_t &claim, const shmwin_config_t &config, WindowMap *slot, shmwin_error_t *error) {
  const std::uint64_t size = round_up(config.size, page_bytes_of(claim.fd));
  int status = reserve(claim, config, size, error);
  if (status != 0) {
    return status;
  }
  std::uint64_t address = 0;
  status = map_new(claim.fd, config, size, &address, error);
  if (status != 0) {
    return status;
  }
  auto &header = *reinterpret_cast<WindowHeader *>(address);
  write_header(header, address, size, config);
  Heap heap = heap_at(&header, shape_of_size(size));
  heap_format(heap);
  enter_process(header);
  publish(slot, address, size, config.shm_id, heap);
  store_word(header.complete, kWindowComplete);
  return 0;
}

}  // namespace
}  // namespace vrellis

using namespace vrellis;

int shmwin_format(shmwin_claim_t *claim, const shmwin_config_t *config, shmwin_error_t *error) {
  WindowMap *slot = nullptr;
  int status = check_config(*claim, *config, error);
  if (status == 0) {
    status = find_slot(config->shm_id, &slot, error);
  }
  if (status == 0) {
    status = check_unused(*claim, error);
  }
  if (status != 0) {
    return status;
  }
  status = make_window(*claim, *config, slot, error);
  if (status != 0 && ftruncate(claim->fd, 0) != 0) {
    return status;  // the file keeps what it took; the next format takes it over
  }
  return status;
}

int shmwin_attach(shmwin_claim_t *claim, uint32_t shm_id, shmwin_error_t *error) {
  FileContent content;
  int status = read_content(*claim, &content, error);
  if (status == 0) {
    status = preflight(content, claim->name, shm_id, error);
  }
  WindowMap *slot = nullptr;
  if (status == 0) {
    status = find_slot(shm_id, &slot, error);
  }
  if (status != 0) {
    return status;
  }
  const std::uint64_t address = content.header.address;
  const std::uint64_t size = content.bytes;
  status = map_file(claim->fd, address, size);
  if (status != 0) {
    return refuse_mapping(claim->name, status, address, size, error);
  }
  auto *const header = reinterpret_cast<WindowHeader *>(address);
  sweep_processes(*header);
  status = enter_process(*header);
  if (status != 0) {
    munmap(header, size);
    return refuse(error, status, "window '%s' is attached by %zu live processes, which is the most", claim->name,
                  kMaxProcesses);
  }
  publish(slot, address, size, shm_id, heap_at(header, shape_of_size(size)));
  return 0;
}

int shmwin_detach(uint32_t shm_id) {
  WindowMap *const map = map_of_id(shm_id);
  if (map == nullptr) {
    return ENOENT;
  }
  WindowHeader *const header = map->header;
  const std::uint64_t size = map->end - map->begin;
  leave_process(*header);
  heaps[map - window_maps] = Heap{};
  *map = WindowMap{};
  munmap(header, size);
  return 0;
}

void *shmwin_user_area(uint32_t shm_id) {
  const WindowMap *const map = map_of_id(shm_id);
  return map != nullptr ? map->header->user_area : nullptr;
}

int shmwin_bounds(uint32_t shm_id, void **begin, size_t *bytes) {
  const WindowMap *const map = map_of_id(shm_id);
  if (map == nullptr) {
    return ENOENT;
  }
  *begin = map->header;
  *bytes = map->end - map->begin;
  return 0;
}
