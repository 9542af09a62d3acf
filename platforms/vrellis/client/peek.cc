// The two calls that look without the lock. Only look_under_lock(), the last resort, writes to the window: to the lock.
//
// A look reads the versions (services/avl/versions.h) of what it is about to read, reads it, and reads the versions
// again: when they are the same, nothing that was read has changed meanwhile. While a version is odd, its change may be
// under way, or its process may have died or been stopped in it. Then every word is read through the undo log, as it was
// before the change, and the log and the lock's holder must be the same at the end: the version that a dead process left
// odd behind its commit would not tell that its change is over and another one has begun. So a look fails only if a
// writer went on meanwhile.
#include <pthread.h>

#include <cerrno>
#include <cstring>

#include "avl/undo_view.h"
#include "avl/versions.h"
#include "encap_client.h"
#include "records/lookup.h"
#include "records/search.h"
#include "records/window.h"
#include "session.h"

namespace clients {
namespace {

using vrellis::avl::load_word;
using vrellis::avl::UndoLog;
using vrellis::avl::UndoView;
using Word = vrellis::avl::Word;

constexpr int kAgain = -1;  // a writer went on during the look
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
  // Before anything is read whose version this is: of a first record, and then of one more. Returns: false when this look
  // is in vain.
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
    return same ? answer : kAgain;
  }

  const Extent &window() const { return window_; }
  static Word word(Word address) { return load_word(address); }
  static std::uint32_t half(Word address) { return vrellis::avl::load_half(address); }

 private:
  const Extent window_ = extent;
  Watched first_;
  Watched second_;
};

// A look that reads words through the undo log where a version is odd.
class LogLook {
 public:
  LogLook() : view_(*reinterpret_cast<const UndoLog *>(extent.window + kLogOffset), extent.begin + extent.bytes) {}

  // As in PlainLook.
  bool watch(Word place) { return watch(first_, place); }
  bool watch_too(Word place) { return watch(second_, place); }
  int end(int answer, bool last_time) const {
    const bool same = !moved_ && view_.holds() && (!view_.reads_log() || holder() == holder_) &&
                      (!view_.unsure() || last_time) && first_.holds() && second_.holds();
    return same ? answer : kAgain;
  }

  static const Extent &window() { return extent; }
  Word word(Word address) { return view_.word(address); }
  std::uint32_t half(Word address) { return view_.half(address); }

 private:
  static constexpr Word kLogOffset = 4096;

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

template <typename Look, typename Record>
Record copy(Look &look, const Record *record) {
  std::uint32_t words[sizeof(Record) / 4];
  for (std::size_t i = 0; i < sizeof(Record) / 4; ++i) {
    words[i] = look.half(address_of(record) + 4 * i);
  }
  Record made;
  std::memcpy(&made, words, sizeof made);
  return made;
}

struct Seen {
  std::uint32_t nh = UINT32_MAX;
  std::uint32_t tunnel = UINT32_MAX;
};

// A process without a client links a node before it fills its index, and unlinks the last NH before its tunnel: an
// encapsulation without its indexes is not there yet.
template <typename Look>
int look_for(Look &look, const egress_encap_key_t &key, Seen &seen) {
  const auto *const halves = reinterpret_cast<const char *>(&key);
  SearchKey tunnel_key = first_of(halves + sizeof(mpls_nh_key_t));
  tunnel_key.last = __builtin_bswap32(key.ifh);
  const Word root = address_of(&egress_encap_db->tun_root);
  if (!look.watch(root)) {
    return kAgain;
  }
  Word tunnel = 0;
  int status = search<mpls_tunnel_entry_t>(look, root, tunnel_key, &tunnel);
  if (status != 0 || tunnel == 0) {
    return status != 0 ? status : ENOENT;
  }
  const Word nhs = tunnel + offsetof(mpls_tunnel_entry_t, nh_root);
  if (!look.watch_too(nhs)) {
    return kAgain;
  }
  Word nh = 0;
  status = search<mpls_nh_entry_t>(look, nhs, first_of(halves), &nh);
  if (status != 0) {
    return status;
  }
  const std::uint32_t tunnel_index = look.half(tunnel + offsetof(mpls_tunnel_entry_t, egr_tun)) & 0xffff;
  if ((tunnel_index == 0) != is_on_null_tunnel(key) || !tunnel_in_range(tunnel_index)) {
    return ENOENT;
  }
  seen.tunnel = tunnel_index;
  const std::uint32_t nh_index = nh != 0 ? look.half(nh + offsetof(mpls_nh_entry_t, nh_index)) : UINT32_MAX;
  if (nh == 0 || !nh_in_range(nh_index)) {
    return ENOENT;
  }
  seen.nh = nh_index;
  return 0;
}

struct Slots {
  egr_nh_info_t nh;
  egr_tun_info_t tunnel;
};

// A damaged address of an array is computed with and not followed.
template <typename Slot>
const Slot *slot_at(Slot *const &array, std::uint32_t number) {
  return at<Slot>(load_word(address_of(&array)) + Word{number} * sizeof(Slot));
}

const egr_tun_info_t *tunnel_slot_at(std::uint32_t tunnel) {
  const std::uint32_t number = (tunnel == 0 ? egress_encap_db->tun_end : tunnel) - egress_encap_db->tun_start;
  return tunnel_in_range(tunnel) ? slot_at(egress_encap_db->tun_info_array, number) : nullptr;
}

template <typename Look>
int look_at(Look &look, std::uint32_t nh, Slots &slots) {
  const auto *const nh_record = slot_at(egress_encap_db->nh_info_array, nh - egress_encap_db->nh_start);
  if (nh_record == nullptr) {
    return EINVAL;
  }
  if (!look.watch(address_of(nh_record))) {
    return kAgain;
  }
  slots.nh = copy(look, nh_record);
  if (slots.nh.valid == 0) {
    return ENOENT;
  }
  const auto *const tunnel = tunnel_slot_at(slots.nh.egr_tun);
  if (tunnel == nullptr) {
    return EINVAL;
  }
  slots.tunnel = copy(look, tunnel);
  return 0;
}

template <typename Look, typename Answer, typename What>
int look_once(What what, Answer *answer, bool last_time) {
  Look look;
  *answer = {};
  return look.end(what(look, *answer), last_time);
}

// Returns: kAgain when another thread holds the lock, which this function does not wait for.
template <typename Answer, typename What>
[[gnu::cold, gnu::noinline]] int look_under_lock(What what, Answer *answer) {
  pthread_mutex_t *const mutex = &egress_encap_db->lock.mutex;
  const int status = pthread_mutex_trylock(mutex);
  if (status == EOWNERDEAD) {
    pthread_mutex_consistent(mutex);  // the next call that changes anything settles what the dead process left open
  } else if (status != 0) {
    return kAgain;
  }
  const int seen = look_once<LogLook>(what, answer, true);
  pthread_mutex_unlock(mutex);
  return seen;
}

template <typename Answer, typename What>
[[gnu::cold, gnu::noinline]] int look_again(What what, Answer *answer) {
  for (int round = 0; round < kRounds; ++round) {
    for (int i = 0; i < kLooks; ++i) {
      const int status = look_once<LogLook>(what, answer, i == kLooks - 1);
      if (status != kAgain) {
        return status;
      }
      if (i >= kSpellOfLooks) {
        __builtin_ia32_pause();
      }
    }
    const int status = look_under_lock(what, answer);
    if (status != kAgain) {
      return status;
    }
  }
  return EAGAIN;
}

template <typename Answer, typename What>
int look(const encap_client_t &client, What what, Answer *answer) {
  if (__builtin_expect(client.generation != generation(), 0)) {
    return EPERM;
  }
  const int status = look_once<PlainLook>(what, answer, false);
  return __builtin_expect(status == kAgain, 0) ? look_again(what, answer) : status;
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
  if (!nh_in_range(nh)) {
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
