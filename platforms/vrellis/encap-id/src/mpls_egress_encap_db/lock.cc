#include "lock.h"

#include <cerrno>
#include <cstring>

#include "ptd.h"

// libc's own end of a failed assertion: these two must stop the process in every build, so they are no assert().
extern "C" [[gnu::noreturn]] void __assert_fail(const char *expression, const char *file, unsigned line,
                                                const char *function) noexcept;

namespace encap {
namespace {

// What the thread-debug service and the assertions are told of the lock's place. Fixed, wherever the code stands.
constexpr char kFunction[] = "vrl_egress_encap_db_lock";
constexpr char kFile[] = "platforms/vrellis/encap-id/src/mpls_egress_encap_db";
constexpr int kWaitLine = 43;
constexpr unsigned kConsistencyLine = 48;
constexpr unsigned kRecoveryLine = 51;

// Blocks on the mutex, with the wait reported for as long as it lasts.
[[gnu::cold, gnu::noinline]] int wait_for(pthread_mutex_t *mutex) {
  ptd_set_mutex_block(mutex, kFunction, kWaitLine);
  const int status = pthread_mutex_lock(mutex);
  ptd_unset_mutex_block();
  return status;
}

// The holder died: the caller holds the lock now and goes on with the database as it was left.
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

// The type goes through error-checking to recursive and robustness is set through both interfaces: the order that every
// version of the platform's thread library accepts. A failure leaves the attribute object as it is, undestroyed.
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

// Unchecked by the compiler: this is where the capability comes from.
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
