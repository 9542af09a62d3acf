// The claim on a window: its file opened, its owner checked, and locked.
//
// The lock is a POSIX record lock, since that one belongs to the process: it ends when the process ends, even as a
// zombie, and a child of fork does not inherit it. Closing any other descriptor of the same file in this process would
// end it, too, so nothing here opens a claimed file a second time.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

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

// Another process needs the claim for milliseconds, or as long as the system takes to reserve a large window.
constexpr int kClaimSeconds = 5;
constexpr timespec kClaimPause{0, 2000000};

// Gives a new file the mode and the owner of the configuration; the umask has no effect. Returns: 0 or an errno value.
int set_access(int fd, const shmwin_config_t &config, mode_t mode) {
  const bool user = (config.named & SHMWIN_NAMED_USER) != 0;
  const bool group = (config.named & SHMWIN_NAMED_GROUP) != 0;
  const bool give = (user && config.user != geteuid()) || group;
  const bool given = !give || fchown(fd, user ? config.user : static_cast<uid_t>(-1),
                                     group ? config.group : static_cast<gid_t>(-1)) == 0;
  return given && fchmod(fd, mode) == 0 ? 0 : errno;
}

int create_file(shmwin_claim_t *claim, const shmwin_config_t &config, int flags) {
  const mode_t mode = mode_of(config);
  claim->fd = open(claim->path, flags | O_CREAT | O_EXCL, mode);
  if (claim->fd < 0) {
    return errno;
  }
  const int status = set_access(claim->fd, config, mode);
  if (status != 0) {
    unlink(claim->path);
  }
  return status;
}

// An existing file is opened without O_CREAT: in a directory open to all, the system refuses that flag on files of
// other users. What is no regular file is not opened at all, since opening a device can act on it.
int open_file(shmwin_claim_t *claim, const shmwin_config_t *config) {
  constexpr int kFlags = O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;
  while (true) {
    struct stat named {};
    if (lstat(claim->path, &named) == 0 && !S_ISREG(named.st_mode)) {
      return ENOTSUP;
    }
    claim->fd = open(claim->path, kFlags);
    if (claim->fd >= 0 || errno != ENOENT || config == nullptr) {
      return claim->fd >= 0 ? 0 : errno;
    }
    const int status = create_file(claim, *config, kFlags);
    if (status != EEXIST) {
      return status;
    }
  }
}

int refuse_open(const shmwin_claim_t &claim, int status, shmwin_error_t *error) {
  struct stat owner {};
  if (status == ENOTSUP) {
    return refuse(error, EINVAL, "'%s' is no regular file, a window is", claim.path);
  }
  if ((status == EACCES || status == EPERM) && lstat(claim.path, &owner) == 0) {
    return refuse(error, status,
                  "cannot open window '%s': its file belongs to user %u with mode %04o, this process "
                  "runs as user %u",
                  claim.name, owner.st_uid, owner.st_mode & 07777u, geteuid());
  }
  return refuse_system(error, status, "open", claim.path);
}

// Refuses a file that other users may write: such a user could change the memory of all processes that map it.
int check_trust(const shmwin_claim_t &claim, const shmwin_config_t *config, shmwin_error_t *error) {
  struct stat status {};
  if (fstat(claim.fd, &status) != 0 || !S_ISREG(status.st_mode)) {
    return refuse(error, EINVAL, "'%s' is no regular file, a window is", claim.path);
  }
  if (config == nullptr) {
    return 0;  // to be removed, and not to be mapped
  }
  const bool user_named = (config->named & SHMWIN_NAMED_USER) != 0 && status.st_uid == config->user;
  const bool group_named = (config->named & SHMWIN_NAMED_GROUP) != 0 && status.st_gid == config->group;
  if (status.st_uid != geteuid() && status.st_uid != 0 && !user_named && !group_named) {
    return refuse(error, EPERM,
                  "the file of window '%s' belongs to user %u and group %u: this process trusts its own user %u, root, "
                  "and those that its configuration names",
                  claim.name, status.st_uid, status.st_gid, geteuid());
  }
  const bool group_writes = (status.st_mode & S_IWGRP) != 0 && !group_named && (config->mode & S_IWGRP) == 0;
  if (group_writes || (status.st_mode & S_IWOTH) != 0) {
    return refuse(error, EPERM,
                  "the file of window '%s' has mode %04o: %s may write to it, whom this process does not trust",
                  claim.name, status.st_mode & 07777u, group_writes ? "its group" : "all users");
  }
  return 0;
}

// Says which process has held the claim for so long.
int refuse_claimed(const shmwin_claim_t &claim, pid_t holder, shmwin_error_t *error) {
  char who[kProcessTextBytes] = "a process of another PID namespace";
  if (holder > 0) {
    describe_process(holder, who);
  }
  return refuse(error, ETIMEDOUT, "window '%s' has been claimed for %d seconds by %s", claim.name, kClaimSeconds, who);
}

int lock_file(const shmwin_claim_t &claim, shmwin_error_t *error) {
  timespec begin{};
  clock_gettime(CLOCK_MONOTONIC, &begin);
  while (true) {
    struct flock lock {};
    lock.l_type = F_WRLCK;
    if (fcntl(claim.fd, F_SETLK, &lock) == 0) {
      return 0;
    }
    if (errno != EAGAIN && errno != EACCES && errno != EINTR) {
      return refuse_system(error, errno, "lock", claim.path);
    }
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    if (now.tv_sec - begin.tv_sec > kClaimSeconds && fcntl(claim.fd, F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK) {
      return refuse_claimed(claim, lock.l_pid, error);
    }
    nanosleep(&kClaimPause, nullptr);
  }
}

// True if the path still leads to the open file, which means that no process has removed or replaced it.
bool is_current(const shmwin_claim_t &claim) {
  struct stat opened;
  struct stat named;
  return fstat(claim.fd, &opened) == 0 && lstat(claim.path, &named) == 0 && opened.st_dev == named.st_dev &&
         opened.st_ino == named.st_ino;
}

int open_and_lock(shmwin_claim_t *claim, const shmwin_config_t *config, shmwin_error_t *error) {
  while (true) {
    int status = open_file(claim, config);
    if (status != 0) {
      return refuse_open(*claim, status, error);
    }
    status = check_trust(*claim, config, error);
    if (status == 0) {
      status = lock_file(*claim, error);
    }
    if (status != 0 || is_current(*claim)) {
      return status;
    }
    close(claim->fd);
    claim->fd = -1;
  }
}

// Requires `config` to create a file that is missing, and to trust one that is there; nullptr: to remove it.
// Returns: 0 with a claim to be given back by shmwin_release().
int make_claim(const char *directory, const char *name, const shmwin_config_t *config, shmwin_claim_t **out,
               shmwin_error_t *error) {
  auto *const claim = static_cast<shmwin_claim_t *>(std::calloc(1, sizeof(shmwin_claim_t)));
  if (claim == nullptr) {
    return refuse(error, ENOMEM, "no memory for a claim on window '%s'", name);
  }
  claim->fd = -1;
  int status = set_path(claim, directory, name, error);
  if (status == 0) {
    status = open_and_lock(claim, config, error);
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
  if (config == nullptr || config->mode > 0777 || (config->mode & S_IWOTH) != 0) {
    return refuse(error, EINVAL,
                  "a window needs a configuration with a file mode of at most 0777 that does not let all users write, "
                  "it is %#o",
                  config != nullptr ? config->mode : 0);
  }
  int status = make_claim(config->directory, config->name, config, claim, error);
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
    unlink(claim->path);  // no window was made; a process that waits for the lock sees that the file is gone
  }
  close(claim->fd);  // gives the lock back
  std::free(claim);
}

int shmwin_unlink(const char *directory, const char *name, int force, shmwin_error_t *error) {
  shmwin_claim_t *claim = nullptr;
  int status = make_claim(directory, name, nullptr, &claim, error);
  if (status != 0) {
    return status;
  }
  status = unlink_claimed(*claim, force, error);  // NOLINT(clang-analyzer-core.NonNullParamChecker): 0 comes with one
  close(claim->fd);
  std::free(claim);
  return status;
}
