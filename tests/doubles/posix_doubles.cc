// Doubles of the POSIX calls of the lock: those on the watched mutex, and the attribute calls while armed, are written
// into the journal and may have an ordered result; all others go straight on.
#include <dlfcn.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cerrno>

#include "doubles/journal.h"

#define DOUBLE extern "C" __attribute__((visibility("default"))) int

namespace encap_test {
namespace {

constinit std::atomic<pthread_mutex_t *> watched{nullptr};
constinit std::atomic<bool> armed{false};
constinit std::atomic<int> depth{0};
constinit std::atomic<bool> consistent{false};  // the dead holder was an order only

// The next definition of a call, looked up at its first use; usable before any constructor has run.
#define REAL(call)                                     \
  static constinit std::atomic<void *> cache{nullptr}; \
  if (cache == nullptr) {                              \
    cache = dlsym(RTLD_NEXT, #call);                   \
  }                                                    \
  const auto real = reinterpret_cast<decltype(&call)>(cache.load())

int log(const char *call, const std::string &arguments, int result) {
  journal().add(entry_of(call, arguments, result));
  return result;
}

int take(const char *kind, auto real, pthread_mutex_t *mutex) {
  const auto ordered = faults().due(kind);
  const bool gets_it = !ordered || *ordered == EOWNERDEAD;  // told of a dead holder, one holds the mutex
  const int result = gets_it ? real(mutex) : *ordered;
  if (gets_it && (result == 0 || result == EOWNERDEAD)) {
    ++depth;
  }
  consistent = gets_it && ordered && result == 0;
  return log(kind, "", ordered.value_or(result));
}

int attribute(const char *kind, const std::string &arguments, auto real) {
  const auto ordered = faults().due(kind);
  return log(kind, arguments, ordered ? *ordered : real());
}

}  // namespace

void watch(pthread_mutex_t *mutex) {
  watched = mutex;
  depth = 0;
}
void arm_attributes(bool on) {
  armed = on;
}
int held() {
  return depth;
}

}  // namespace encap_test

using namespace encap_test;

DOUBLE pthread_mutex_trylock(pthread_mutex_t *mutex) noexcept {
  REAL(pthread_mutex_trylock);
  return mutex == watched ? take("trylock", real, mutex) : real(mutex);
}

DOUBLE pthread_mutex_lock(pthread_mutex_t *mutex) noexcept {
  REAL(pthread_mutex_lock);
  return mutex == watched ? take("lock", real, mutex) : real(mutex);
}

// An ordered failure is reported, yet the mutex is given back: what follows finds it free.
DOUBLE pthread_mutex_unlock(pthread_mutex_t *mutex) noexcept {
  REAL(pthread_mutex_unlock);
  if (mutex != watched) {
    return real(mutex);
  }
  const auto ordered = faults().due("unlock");
  log("unlock", "", ordered.value_or(0));
  --depth;
  const int result = real(mutex);
  return ordered.value_or(result);
}

DOUBLE pthread_mutex_consistent(pthread_mutex_t *mutex) noexcept {
  REAL(pthread_mutex_consistent);
  return mutex == watched ? attribute("consistent", "", [&] { return consistent ? 0 : real(mutex); }) : real(mutex);
}

DOUBLE pthread_mutex_init(pthread_mutex_t *mutex, const pthread_mutexattr_t *attr) noexcept {
  REAL(pthread_mutex_init);
  if (mutex != watched || !armed) {
    return real(mutex, attr);
  }
  const auto *area = static_cast<const std::uint8_t *>(static_cast<void *>(mutex));
  const bool zeroed = std::all_of(area, area + ENCAP_DB_LOCK_AREA_BYTES, [](std::uint8_t byte) { return byte == 0; });
  return attribute("mutex_init", zeroed ? "zeroed" : "leftovers", [&] { return real(mutex, attr); });
}

#define ATTRIBUTE_DOUBLE(call, kind)                                             \
  DOUBLE call(pthread_mutexattr_t *attr) noexcept {                              \
    REAL(call);                                                                  \
    return armed ? attribute(kind, "", [&] { return real(attr); }) : real(attr); \
  }
#define ATTRIBUTE_SET_DOUBLE(call, kind)                                                                          \
  DOUBLE call(pthread_mutexattr_t *attr, int value) noexcept {                                                    \
    REAL(call);                                                                                                   \
    return armed ? attribute(kind, std::to_string(value), [&] { return real(attr, value); }) : real(attr, value); \
  }

ATTRIBUTE_DOUBLE(pthread_mutexattr_init, "attr_init")
ATTRIBUTE_DOUBLE(pthread_mutexattr_destroy, "attr_destroy")
ATTRIBUTE_SET_DOUBLE(pthread_mutexattr_settype, "settype")
ATTRIBUTE_SET_DOUBLE(pthread_mutexattr_setpshared, "setpshared")
// The older interface, pthread_mutexattr_setrobust_np(), is this symbol too.
ATTRIBUTE_SET_DOUBLE(pthread_mutexattr_setrobust, "setrobust")
