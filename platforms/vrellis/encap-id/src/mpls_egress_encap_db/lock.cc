#include "lock.h"

#include <cerrno>
#include <cstring>

#include "ptd.h"

// The function of the C library that ends a failed assertion. These two checks stop the process in every build, so they
// cannot use assert().
extern "C" [[gnu::noreturn]] void __assert_fail(const char *expression, const char *file, unsigned line,
                                                const char *function) noexcept;

namespace encap {
namespace {

// The place of the lock call as the thread-debug service and the assertions report it. It does not follow the sources.
constexpr char kFunction[] = "vrl_egress_encap_db_lock";
constexpr char kFile[] = "platforms/vrellis/encap-id/src/mpls_egress_encap_db";
constexpr int kWaitLine = 43;
constexpr unsigned kConsistencyLine = 48;
constexpr unsigned kRecoveryLine = 51;

// Blocks on the mutex. The thread-debug service knows of the wait while it lasts.
[[gnu::cold, gnu::noinline]] int wait_for(pthread_mutex_t *mutex) {
  ptd_set_mutex_block(mutex, kFunction, kWaitLine);
  const int status = pthread_mutex_lock(mutex);
  ptd_unset_mutex_block();
  return status;
}

// Makes the mutex consistent after its holder died. The caller holds the lock and works on the database as the dead
// process left it.
[[gnu::cold, gnu::noinline]] void take_over(pthread_mutex_t *mutex) {
  if (pthread_mutex_consistent(mutex) != 0) {
    __assert_fail("rc == 0", kFile, kConsistencyLine, kFunction);
  }
}

int init_error_checking(pthread_mutexattr_t *attributes) {
  const int status = pthread_mutexattr_init(attributes);
  return status != 0 ? status : pthread_mutexattr_settype(attributes, PTHREAD_MUTEX_ERRORCHECK);
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
int set_shared_and_robust(pthread_mutexattr_t *attributes) {
  const int status = pthread_mutexattr_setpshared(attributes, PTHREAD_PROCESS_SHARED);
  return status != 0 ? status : pthread_mutexattr_setrobust_np(attributes, PTHREAD_MUTEX_ROBUST);
}
#pragma GCC diagnostic pop

}  // namespace
}  // namespace encap

// Sets the type to error-checking and then to recursive, and robustness through both interfaces: all versions of the
// platform's thread library accept this order. A failure leaves the attribute object undestroyed.
int eencap_lock_init(void *lock_area) {
  auto *mutex = static_cast<pthread_mutex_t *>(lock_area);
  pthread_mutexattr_t attributes;
  int status = encap::init_error_checking(&attributes);
  if (status == 0) {
    status = encap::set_shared_and_robust(&attributes);
  }
  if (status == 0) {
    status = pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
  }
  if (status == 0) {
    status = pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
  }
  if (status != 0) {
    return status;
  }
  std::memset(lock_area, 0, ENCAP_DB_LOCK_AREA_BYTES);
  status = pthread_mutex_init(mutex, &attributes);
  return status != 0 ? status : pthread_mutexattr_destroy(&attributes);
}

// The compiler does not check the body, since this is where the capability begins.
TAKES_NO_DATABASE_LOCK
int vrl_egress_encap_db_lock(pthread_mutex_t *mutex) {
  int status = pthread_mutex_trylock(mutex);
  if (__builtin_expect(status, 0) == 0) {
    return status;
  }
  if (status == EBUSY) {
    status = encap::wait_for(mutex);
  }
  if (status == EOWNERDEAD) {
    encap::take_over(mutex);
    return 0;
  }
  if (status == ENOTRECOVERABLE) {
    __assert_fail("0", encap::kFile, encap::kRecoveryLine, encap::kFunction);
  }
  return status;
}

void eencap_mutex_monitor_server_fn(void) {}
