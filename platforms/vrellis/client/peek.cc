// The two calls that look without the lock. Only look_under_lock(), the last resort, writes to the window: to the lock.
//
// A look reads the versions (services/avl/undo/versions.h) of what it is about to read, reads it, and reads the
// versions again: when they are the same, nothing that was read has changed meanwhile. While a version is odd, its
// change may be under way, or its process may have died or been stopped in it. Then every word is read through the undo
// log, as it was before the change, and the log and the lock's holder must be the same at the end: the version that a
// dead process left odd behind its commit would not tell that its change is over and another one has begun. So a look
// fails only if a writer went on meanwhile.
#include <pthread.h>

#include <cerrno>
#include <cstring>

#include "avl/undo/undo_view.h"
#include "avl/undo/versions.h"
#include "encap_client.h"
#include "records/lookup.h"
#include "records/search.h"
#include "records/window.h"
#include "session.h"

namespace clients {
namespace {

using vrellis::avl::load_word;
using vrellis::avl::UndoView;
using Word = vrellis::avl::Word;

constexpr int kLooks = 2000;
constexpr int kRounds = 8;
constexpr int kSpellOfLooks = 16;  // without a pause between them

// The version of a record, as it was before the record was read; without a record, one that holds.
struct Watched {
  Word version;
  Word value;

  Watched() : version(0), value(0) {}
  Watched(Word window, Word place)
      : version(address_of(vrellis::avl::version_of(window, place))), value(load_word(version)) {}

  bool is_odd() const { return (value & 1) != 0; }
  bool holds() const { return version == 0 || load_word(version) == value; }
};

// A look that reads words as they are in memory. It is in vain when a version is odd.
class PlainLook {
 public:
  explicit PlainLook(KnownTunnels &known) : known_(known) {}

  // Before anything is read whose version this is: of a first record, and then of one more. Returns: false when this
  // look is in vain.
  bool watch(Word place) {
    first_ = Watched(window_.window, place);
    return !first_.is_odd();
  }
  bool watch_too(Word place) {
    second_ = Watched(window_.window, place);
    return !second_.is_odd();
  }

  // Returns: `answer`, if everything was read at one moment.
  int end(int answer, bool /*last_time*/) const {
    const bool same = first_.holds() && second_.holds();
    if (same) {
      known_.top.remember(first_.value, new_top_);
      if (place_ != nullptr) {
        place_->remember(first_.value, new_tunnel_);
      }
    }
    return same ? answer : kAgain;
  }

  // Require that the version of the tunnels is watched first.
  Word known_tunnel(const SearchKey &key) const { return known_.of(key).at(first_.value); }
  void learn(const SearchKey &key, Word tunnel) {
    place_ = &known_.of(key);
    new_tunnel_ = tunnel;
  }
  Word root_of_tunnels() {
    const Word known = known_.top.at(first_.value);
    if (known != 0) {
      return known;
    }
    new_top_ = load_word(tunnel_field());
    return new_top_;
  }

  const Extent &window() const { return window_; }
  static Word word(Word address) { return load_word(address); }
  static std::uint32_t half(Word address) { return vrellis::avl::load_half(address); }

 private:
  const Extent window_ = extent;
  KnownTunnels &known_;
  KnownNode *place_ = nullptr;
  Word new_tunnel_ = 0;
  Word new_top_ = 0;
  Watched first_;
  Watched second_;
};

// A look that reads words through the undo log where a version is odd.
class LogLook {
 public:
  explicit LogLook(KnownTunnels & /*known*/) : view_(undo_log(), extent.begin + extent.bytes) {}

  // As in PlainLook.
  bool watch(Word place) { return watch(first_, place); }
  bool watch_too(Word place) { return watch(second_, place); }
  int end(int answer, bool last_time) const {
    const bool same = !moved_ && view_.holds() && (!view_.reads_log() || holder() == holder_) &&
                      (!view_.unsure() || last_time) && first_.holds() && second_.holds();
    return same ? answer : kAgain;
  }

  static Word known_tunnel(const SearchKey & /*key*/) { return 0; }
  static void learn(const SearchKey & /*key*/, Word /*tunnel*/) {}
  Word root_of_tunnels() { return word(tunnel_field()); }
  static const Extent &window() { return extent; }
  Word word(Word address) { return view_.word(address); }
  std::uint32_t half(Word address) { return view_.half(address); }

 private:
  bool watch(Watched &watched, Word place) {
    watched = Watched(extent.window, place);
    if (watched.is_odd()) {
      // An odd version beside an empty log is that of a change which has ended, if the log is read after the version.
      moved_ = moved_ || !view_.holds();
      holder_ = view_.reads_log() ? holder_ : holder();
      view_.open();
    }
    return true;
  }

  // The thread that has the lock; 0: none has.
  static unsigned holder() {
    constexpr unsigned kThreadBits = 0x3fffffff;  // the others: a thread waits, the holder has died
    return static_cast<unsigned>(__atomic_load_n(&egress_encap_db->lock.mutex.__data.__lock, __ATOMIC_ACQUIRE)) &
           kThreadBits;
  }

  UndoView view_;
  Watched first_;
  Watched second_;
  unsigned holder_ = 0;
  bool moved_ = false;
};

template <typename Look, typename Answer, typename What>
int look_once(KnownTunnels &known, What what, Answer *answer, bool last_time) {
  Look look(known);
  *answer = {};
  return look.end(what(look, *answer), last_time);
}

// Returns: kAgain when another thread holds the lock, which this function does not wait for.
template <typename Answer, typename What>
[[gnu::cold, gnu::noinline]] int look_under_lock(KnownTunnels &known, What what, Answer *answer) {
  pthread_mutex_t *const mutex = &egress_encap_db->lock.mutex;
  const int status = pthread_mutex_trylock(mutex);
  if (status == EOWNERDEAD) {
    pthread_mutex_consistent(mutex);  // the next call that changes anything settles what the dead process left open
  } else if (status != 0) {
    return kAgain;
  }
  const int seen = look_once<LogLook>(known, what, answer, true);
  pthread_mutex_unlock(mutex);
  return seen;
}

template <typename Answer, typename What>
[[gnu::cold, gnu::noinline]] int look_again(KnownTunnels &known, What what, Answer *answer) {
  for (int round = 0; round < kRounds; ++round) {
    for (int i = 0; i < kLooks; ++i) {
      const int status = look_once<LogLook>(known, what, answer, i == kLooks - 1);
      if (status != kAgain) {
        return status;
      }
      if (i >= kSpellOfLooks) {
        __builtin_ia32_pause();
      }
    }
    const int status = look_under_lock(known, what, answer);
    if (status != kAgain) {
      return status;
    }
  }
  return EAGAIN;
}

template <typename Answer, typename What>
int look(encap_client_t &client, What what, Answer *answer) {
  if (__builtin_expect(client.generation != generation(), 0)) {
    return EPERM;
  }
  const int status = look_once<PlainLook>(client.known, what, answer, false);
  return __builtin_expect(status == kAgain, 0) ? look_again(client.known, what, answer) : status;
}

}  // namespace
}  // namespace clients

int encap_client_peek(encap_client_t *client, egress_encap_key_t key, uint32_t *nh, uint32_t *tunnel) {
  using namespace clients;
  Seen seen;
  const int status = look(
      *client, [&key](auto &look, Seen &out) { return look_for(look, key, out); }, &seen);
  *nh = seen.nh;
  *tunnel = seen.tunnel;
  return status;
}

int encap_client_read(encap_client_t *client, uint32_t nh, egress_encap_key_t *key, egress_encap_aux_data_t *aux,
                      uint32_t *ref_count) {
  using namespace clients;
  if (!extent.has_nh(nh)) {
    return EINVAL;
  }
  Slots slots;
  const int status = look(
      *client, [nh](auto &look, Slots &out) { return look_at(look, nh, out); }, &slots);
  if (status != 0) {
    return status;
  }
  *key = key_in(slots.nh, slots.tunnel);
  *aux = {};
  aux->egr_tun = slots.nh.egr_tun;
  aux->seed_nh = slots.nh.seed_nh;
  aux->is_protected_te_nh = slots.nh.is_protected_te_nh;
  aux->failover_id = slots.nh.failover_id;
  aux->failover_nh = slots.nh.failover_nh;
  *ref_count = slots.nh.ref_count;
  return 0;
}
