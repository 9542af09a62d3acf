// The claim on a window: its file opened and locked. The lock dies with its holder, whatever happens to it.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "shmwin/file.h"
#include "shmwin/process_table.h"

using namespace vrellis;

namespace {

int set_path(shmwin_claim_t *claim, const char *directory, const char *name, shmwin_error_t *error) {
  if (name == nullptr || *name == '\0' || std::strchr(name, '/') != nullptr || std::strcmp(name, ".") == 0 ||
      std::strcmp(name, "..") == 0 || std::strlen(name) > NAME_MAX) {
    return refuse(error, EINVAL, "'%s' cannot name a window: it takes a file name of 1 to %d bytes without '/'",
                  name != nullptr ? name : "", NAME_MAX);
  }
  std::memcpy(claim->name, name, std::strlen(name) + 1);
  const int length =
      std::snprintf(claim->path, sizeof claim->path, "%s/%s", directory != nullptr ? directory : "/dev/shm", name);
  if (length < 0 || static_cast<std::size_t>(length) >= sizeof claim->path) {
    return refuse(error, ENAMETOOLONG, "the path of window '%s' has %d bytes, at most %zu are possible", name, length,
                  sizeof claim->path - 1);
  }
  return 0;
}

// An existing file is opened without O_CREAT: in a directory open to all, the system refuses that flag on files of
// others.
int open_file(shmwin_claim_t *claim, const mode_t *create_mode) {
  constexpr int kFlags = O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;
  while (true) {
    claim->fd = open(claim->path, kFlags);
    if (claim->fd >= 0 || errno != ENOENT || create_mode == nullptr) {
      return claim->fd >= 0 ? 0 : errno;
    }
    claim->fd = open(claim->path, kFlags | O_CREAT | O_EXCL, *create_mode);
    if (claim->fd >= 0) {
      return fchmod(claim->fd, *create_mode) == 0 ? 0 : errno;  // the mode as given, whatever the umask
    }
    if (errno != EEXIST) {
      return errno;
    }
  }
}

int lock_file(int fd) {
  while (flock(fd, LOCK_EX) != 0) {
    if (errno != EINTR) {
      return errno;
    }
  }
  return 0;
}

// Whether the path still leads to the open file: it was removed, or replaced, when not.
bool is_current(const shmwin_claim_t &claim) {
  struct stat opened;
  struct stat named;
  return fstat(claim.fd, &opened) == 0 && lstat(claim.path, &named) == 0 && opened.st_dev == named.st_dev &&
         opened.st_ino == named.st_ino;
}

int refuse_open(const shmwin_claim_t &claim, int status, shmwin_error_t *error) {
  struct stat owner;
  if ((status == EACCES || status == EPERM) && lstat(claim.path, &owner) == 0) {
    return refuse(error, status,
                  "cannot open window '%s': its file belongs to user %u with mode %04o, this process "
                  "runs as user %u",
                  claim.name, owner.st_uid, owner.st_mode & 07777u, geteuid());
  }
  return refuse_system(error, status, "open", claim.path);
}

int check_regular(const shmwin_claim_t &claim, shmwin_error_t *error) {
  struct stat status;
  if (fstat(claim.fd, &status) == 0 && S_ISREG(status.st_mode)) {
    return 0;
  }
  return refuse(error, EINVAL, "'%s' is no regular file, a window is", claim.path);
}

int open_and_lock(shmwin_claim_t *claim, const mode_t *create_mode, shmwin_error_t *error) {
  while (true) {
    int status = open_file(claim, create_mode);
    if (status != 0) {
      return refuse_open(*claim, status, error);
    }
    status = check_regular(*claim, error);
    if (status != 0) {
      return status;
    }
    status = lock_file(claim->fd);
    if (status != 0) {
      return refuse_system(error, status, "lock", claim->path);
    }
    if (is_current(*claim)) {
      return 0;
    }
    close(claim->fd);
    claim->fd = -1;
  }
}

// Returns: 0 with a claim to be given back by shmwin_release().
int make_claim(const char *directory, const char *name, const mode_t *create_mode, shmwin_claim_t **out,
               shmwin_error_t *error) {
  auto *const claim = static_cast<shmwin_claim_t *>(std::calloc(1, sizeof(shmwin_claim_t)));
  if (claim == nullptr) {
    return refuse(error, ENOMEM, "no memory for a claim on window '%s'", name);
  }
  claim->fd = -1;
  int status = set_path(claim, directory, name, error);
  if (status == 0) {
    status = open_and_lock(claim, create_mode, error);
  }
  if (status != 0) {
    if (claim->fd >= 0) {
      close(claim->fd);
    }
    std::free(claim);
    return status;
  }
  *out = claim;
  return 0;
}

int unlink_claimed(const shmwin_claim_t &claim, int force, shmwin_error_t *error) {
  FileContent content;
  const int status = read_content(claim, &content, error);
  if (status != 0) {
    return status;
  }
  if (force == 0 && !is_absent(content)) {
    if (content.header.magic != kWindowMagic) {
      return refuse(error, EINVAL, "'%s' is no window, and is removed by force alone", claim.path);
    }
    const int attached = refuse_if_attached(content.header, claim.name, error);
    if (attached != 0) {
      return attached;
    }
  }
  return unlink(claim.path) == 0 ? 0 : refuse_system(error, errno, "remove", claim.path);
}

}  // namespace

int shmwin_claim(const shmwin_config_t *config, shmwin_claim_t **claim, int *present, shmwin_error_t *error) {
  if (config == nullptr || config->mode > 0777) {
    return refuse(error, EINVAL, "a window needs a configuration with a file mode of at most 0777, it is %#o",
                  config != nullptr ? config->mode : 0);
  }
  const mode_t mode = config->mode != 0 ? config->mode : 0600;
  int status = make_claim(config->directory, config->name, &mode, claim, error);
  if (status != 0) {
    return status;
  }
  FileContent content;
  status = read_content(**claim, &content, error);
  if (status != 0) {
    shmwin_release(*claim);
    return status;
  }
  *present = !is_absent(content);
  return 0;
}

void shmwin_release(shmwin_claim_t *claim) {
  if (claim == nullptr) {
    return;
  }
  struct stat status;
  if (fstat(claim->fd, &status) == 0 && status.st_size == 0 && is_current(*claim)) {
    unlink(claim->path);  // nothing was made of it; whoever waits for its lock sees that it is gone
  }
  flock(claim->fd, LOCK_UN);  // here and not by close(): a child of a fork may hold the same open file
  close(claim->fd);
  std::free(claim);
}

int shmwin_unlink(const char *directory, const char *name, int force, shmwin_error_t *error) {
  shmwin_claim_t *claim = nullptr;
  int status = make_claim(directory, name, nullptr, &claim, error);
  if (status != 0) {
    return status;
  }
  status = unlink_claimed(*claim, force, error);  // NOLINT(clang-analyzer-core.NonNullParamChecker): 0 comes with one
  flock(claim->fd, LOCK_UN);
  close(claim->fd);
  std::free(claim);
  return status;
}
