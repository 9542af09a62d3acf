// Makes the trace file of the process.
#include "ltrace/file.h"

#include <fcntl.h>
#include <limits.h>
#include <pthread.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "ltrace/proc.h"
#include "ltrace/sweep.h"
#include "oxa_errmsg/log_line.h"
#include "oxa_errmsg/outlet.h"

namespace vrellis {

constinit std::atomic<TraceState> trace_state{TraceState::kUnknown};

namespace {

// A process that runs another program keeps pid and start time, so several files can belong to it, up to this many.
constexpr int kFilesPerProcess = 8;

// `mutex` guards all fields except `file`, which is published when the file is complete. A thread that holds the
// database lock never takes it.
struct ProcessTrace {
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  std::atomic<FileHeader *> file{nullptr};
  char path[PATH_MAX] = {};
  char component[LTRACE_MAX_COMPONENTS][kNameBytes] = {};
};

constinit ProcessTrace process;
constinit std::atomic<std::uint64_t> early_drops{0};  // records that were dropped before there was a file

// The child has one thread and no part in its parent's file. It keeps the mapping, since a thread that forks in a
// signal handler may return into the writing of a record.
void child_begins() {
  forget_ring();
  process.mutex = PTHREAD_MUTEX_INITIALIZER;
  process.file.store(nullptr, std::memory_order_relaxed);
  early_drops.store(0, std::memory_order_relaxed);
  process.path[0] = '\0';
  trace_state.store(TraceState::kUnknown, std::memory_order_relaxed);
}

[[gnu::constructor]] void watch_forks() {
  pthread_atfork(nullptr, nullptr, child_begins);
}

template <typename... Piece>
void tell(Piece... piece) {
  LogLine line;
  line.text("ltrace: ");
  (line.text(piece), ...);
  write_to_stderr(line.finish());
}

std::uint32_t ring_words_wanted() {
  constexpr unsigned long kDefaultKib = 64;
  const char *text = secure_getenv("LTRACE_RING_KIB");
  unsigned long kib = kDefaultKib;
  if (text != nullptr && *text != '\0') {
    char *end = nullptr;
    kib = strtoul(text, &end, 10);
    if (*end != '\0' || !std::has_single_bit(kib) || kib < kMinRingKib || kib > kMaxRingKib) {
      tell("LTRACE_RING_KIB is '", text, "', which is no power of two from 8 to 16384: rings have 64 KiB");
      kib = kDefaultKib;
    }
  }
  return static_cast<std::uint32_t>(kib * 1024 / sizeof(std::uint64_t));
}

// How many rings the process's limit of file sizes has room for. A file that is made longer than the limit ends the
// process by SIGXFSZ.
std::uint32_t rings_within_limit(std::uint64_t ring_bytes) {
  rlimit limit{};
  if (getrlimit(RLIMIT_FSIZE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) {
    return kMaxRings;
  }
  const std::uint64_t room = limit.rlim_cur > kRingHeaderBytes ? limit.rlim_cur - kRingHeaderBytes : 0;
  return static_cast<std::uint32_t>(std::min<std::uint64_t>(room / ring_bytes, kMaxRings));
}

// Opens the directory of the trace files, making it when it is missing; its absolute path goes to `path`. Every user
// can make the default directory first, so it is used only when it belongs to this user and no other may enter it.
int open_directory(char (&path)[PATH_MAX]) {
  char fallback[64];
  const char *named = secure_getenv("LTRACE_DIR");
  std::snprintf(fallback, sizeof fallback, "/dev/shm/vrellis-trace-%u", geteuid());
  const char *directory = named != nullptr && *named != '\0' ? named : fallback;
  mkdir(directory, 0700);
  const int follow = directory == fallback ? O_NOFOLLOW : 0;
  const int fd = open(directory, O_RDONLY | O_DIRECTORY | O_CLOEXEC | follow);
  struct stat status;
  if (fd < 0 || realpath(directory, path) == nullptr || fstat(fd, &status) != 0) {
    std::snprintf(path, sizeof path, "%s", directory);
  } else if (directory != fallback || (status.st_uid == geteuid() && (status.st_mode & 077) == 0)) {
    return fd;
  } else {
    errno = EPERM;
  }
  if (fd >= 0) {
    const int reason = errno;
    close(fd);
    errno = reason;
  }
  return -1;
}

// Creates the file in `directory`, whose path stands in process.path; its name is added to that.
int create_file(int directory) {
  const auto pid = static_cast<std::uint32_t>(getpid());
  const std::uint64_t start = own_process().start;
  const std::size_t length = std::strlen(process.path);
  char name[64];
  int fd = -1;
  for (int attempt = 0; fd < 0 && attempt < kFilesPerProcess; ++attempt) {
    char extra[8] = "";
    if (attempt > 0) {
      std::snprintf(extra, sizeof extra, "-%d", attempt);
    }
    std::snprintf(name, sizeof name, "%" PRIu32 "-%" PRIu64 "%s%s", pid, start, extra, kTraceSuffix);
    fd = openat(directory, name, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0 && errno != EEXIST) {
      return -1;
    }
  }
  const std::size_t room = sizeof process.path - length;
  if (fd >= 0 && static_cast<std::size_t>(std::snprintf(process.path + length, room, "/%s", name)) >= room) {
    unlinkat(directory, name, 0);
    close(fd);
    errno = ENAMETOOLONG;
    return -1;
  }
  return fd;
}

void fill_header(FileHeader *file, std::uint32_t ring_words, std::uint32_t rings) {
  file->version = kTraceVersion;
  file->header_bytes = kRingHeaderBytes;
  file->block_words = kBlockWords;
  file->ring_words = ring_words;
  file->num_rings = rings;
  file->tick_kind = kTickKind;
  file->pid = static_cast<std::uint32_t>(getpid());
  file->uid = geteuid();
  file->start_time = own_process().start;
  file->pid_namespace = own_pid_namespace();
  if (read_small_file("/proc/self/comm", file->comm, sizeof file->comm)) {
    file->comm[std::strcspn(file->comm, "\n")] = '\0';
  }
  read_boot_id(file->boot_id);
  file->created = read_clocks();
  file->records_dropped = early_drops.exchange(0, std::memory_order_relaxed);
  std::memcpy(file->component, process.component, sizeof file->component);
  store_shared(file->magic, kTraceMagic, std::memory_order_release);
}

// Gives the new file its size and maps it. Returns: nullptr, errno set.
FileHeader *map_file(int fd, std::uint32_t ring_words, std::uint32_t rings) {
  const std::size_t bytes = kRingHeaderBytes + std::size_t{rings} * ring_words * sizeof(std::uint64_t);
  const int reason = rings != 0 ? posix_fallocate(fd, 0, kRingHeaderBytes) : EFBIG;
  if (reason != 0) {
    errno = reason;
    return nullptr;
  }
  if (ftruncate(fd, static_cast<off_t>(bytes)) != 0) {
    return nullptr;
  }
  void *address = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  return address != MAP_FAILED ? static_cast<FileHeader *>(address) : nullptr;
}

FileHeader *make_file() {
  FileHeader *file = nullptr;
  const int directory = open_directory(process.path);
  const int fd = directory >= 0 ? create_file(directory) : -1;
  if (fd >= 0) {
    const std::uint32_t ring_words = ring_words_wanted();
    const std::uint32_t rings = rings_within_limit(ring_words * sizeof(std::uint64_t));
    file = map_file(fd, ring_words, rings);
    if (file != nullptr) {
      fill_header(file, ring_words, rings);
      sweep_trace_files(directory, *file);
    } else {
      const int reason = errno;
      unlink(process.path);
      errno = reason;
    }
  }
  if (file == nullptr) {
    tell("this process is not traced, as it can have no file in ", process.path, ": ", strerrordesc_np(errno));
    process.path[0] = '\0';
  }
  if (fd >= 0) {
    close(fd);
  }
  if (directory >= 0) {
    close(directory);
  }
  return file;
}

bool switched_off() {
  const char *text = secure_getenv("LTRACE");
  if (text == nullptr || *text == '\0' || std::strcmp(text, "on") == 0) {
    return false;
  }
  if (std::strcmp(text, "off") != 0) {
    tell("LTRACE is '", text, "', which is neither on nor off: this process is traced");
    return false;
  }
  return true;
}

}  // namespace

FileHeader *present_trace_file() {
  return process.file.load(std::memory_order_acquire);
}

void count_drop() {
  if (FileHeader *file = present_trace_file()) {
    std::atomic_ref(file->records_dropped).fetch_add(1, std::memory_order_relaxed);
  } else {
    early_drops.fetch_add(1, std::memory_order_relaxed);
  }
}

FileHeader *process_trace_file() {
  if (FileHeader *file = present_trace_file()) {
    return file;
  }
  pthread_mutex_lock(&process.mutex);
  FileHeader *file = present_trace_file();  // another thread may have been here first
  if (file == nullptr && trace_state.load(std::memory_order_relaxed) == TraceState::kUnknown) {
    file = !switched_off() ? make_file() : nullptr;
    process.file.store(file, std::memory_order_release);
    trace_state.store(file != nullptr ? TraceState::kOn : TraceState::kOff, std::memory_order_relaxed);
  }
  pthread_mutex_unlock(&process.mutex);
  return file;
}

}  // namespace vrellis

const char *ltrace_path(void) {
  return vrellis::present_trace_file() != nullptr ? vrellis::process.path : nullptr;
}

void ltrace_name_component(uint32_t tag, const char *name) {
  using namespace vrellis;
  if (tag >= LTRACE_MAX_COMPONENTS || name == nullptr) {
    return;
  }
  pthread_mutex_lock(&process.mutex);
  char text[kNameBytes] = {};
  std::memcpy(text, name, strnlen(name, sizeof text - 1));
  std::memcpy(process.component[tag], text, sizeof text);
  if (FileHeader *file = present_trace_file()) {
    std::memcpy(file->component[tag], text, sizeof text);
  }
  pthread_mutex_unlock(&process.mutex);
}
