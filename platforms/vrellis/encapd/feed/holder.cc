#include "holder.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <unordered_map>
#include <utility>

namespace encapd {
namespace {

// How many of those that wait are tried, so that a step or a tick takes no longer than a few milliseconds.
constexpr std::size_t kTriesAfterRoom = 64;
constexpr std::size_t kTriesAtTick = 4096;

}  // namespace

std::uint32_t Holder::find(const egress_encap_key_t &key) const {
  return by_key_.find(hash_words(&key, 5),
                      [&](std::uint32_t number) { return std::memcmp(&pool_[number].key, &key, sizeof key) == 0; });
}

std::uint32_t Holder::number_of(const egress_encap_key_t &key) {
  if (const std::uint32_t known = find(key); known != kNone) {
    return known;
  }
  const std::uint32_t number = pool_.take();
  pool_[number].key = key;
  by_key_.add(number, [&](std::uint32_t each) { return hash_of(each); });
  mark(number);
  return number;
}

void Holder::mark(std::uint32_t number) {
  if (!std::exchange(pool_[number].is_changed, true)) {
    changed_.push_back(number);
  }
}

void Holder::want(std::uint32_t number, std::int64_t change, const RouteKey &cause) {
  Encapsulation &encapsulation = pool_[number];
  encapsulation.wanted += static_cast<std::uint32_t>(change);
  encapsulation.cause = cause;
  wanted_ += static_cast<std::uint64_t>(change);
  mark(number);
}

void Holder::name(std::uint32_t number, int change) {
  pool_[number].named += static_cast<std::uint32_t>(change);
  mark(number);
}

void Holder::apply() {
  room_came_ = false;
  for (const std::uint32_t number : changed_) {
    Encapsulation &encapsulation = pool_[number];
    while (encapsulation.held < encapsulation.wanted && enter(encapsulation)) {
    }
  }
  for (const std::uint32_t number : changed_) {
    Encapsulation &encapsulation = pool_[number];
    while (encapsulation.held > encapsulation.wanted && release(encapsulation)) {
    }
  }
  for (const std::uint32_t number : changed_) {
    finish(number);
  }
  changed_.clear();
  if (room_came_ && !waiting_.empty()) {
    try_waiting(kTriesAfterRoom);
  }
  events_.flush();
}

// Puts a changed encapsulation where it belongs: among those that wait, or out of the pool.
void Holder::finish(std::uint32_t number) {
  Encapsulation &encapsulation = pool_[number];
  encapsulation.is_changed = false;
  if (encapsulation.held != encapsulation.wanted) {
    if (!std::exchange(encapsulation.waits, true)) {
      waiting_.push_back(number);
    }
    return;
  }
  encapsulation.refused = 0;
  if (encapsulation.wanted == 0 && encapsulation.named == 0 && !encapsulation.waits && !encapsulation.is_old) {
    by_key_.remove(number, [&](std::uint32_t each) { return hash_of(each); });
    pool_.give_back(number);
  }
}

void Holder::retry() {
  try_waiting(kTriesAtTick);
  events_.flush();
}

// Those that wait take turns, so that each is tried although not all are.
void Holder::try_waiting(std::size_t most) {
  most = std::min(most, waiting_.size());
  const std::vector<std::uint32_t> turn(waiting_.begin(), waiting_.begin() + static_cast<std::ptrdiff_t>(most));
  waiting_.erase(waiting_.begin(), waiting_.begin() + static_cast<std::ptrdiff_t>(most));
  for (const std::uint32_t number : turn) {
    Encapsulation &encapsulation = pool_[number];
    encapsulation.waits = false;
    while (encapsulation.held < encapsulation.wanted && enter(encapsulation)) {
    }
    while (encapsulation.held > encapsulation.wanted && release(encapsulation)) {
    }
    finish(number);
  }
  if (waiting_.empty() && told_ != 0) {
    told_ = 0;
    log(Level::kInfo, "nothing waits for the database any more");
  }
}

bool Holder::enter(Encapsulation &encapsulation) {
  encap_entry_t entry{};
  const int status = encap_client_enter(client_, encapsulation.key, nullptr, &entry);
  if (status != 0) {
    refuse(encapsulation, status);
    return false;
  }
  encapsulation.nh = entry.nh;
  ++encapsulation.held;
  ++held_;
  ++(entry.renewed != 0 ? counters_.renewed : counters_.entered);
  if (entry.tunnel_created != 0) {
    ++counters_.tunnels_entered;
    events_.tunnel(true, entry.tunnel, encapsulation.key, &encapsulation.cause);
  }
  if (entry.nh_created != 0) {
    ++counters_.nhs_entered;
    events_.nh(true, entry.nh, entry.tunnel, encapsulation.key, &encapsulation.cause);
  }
  return true;
}

bool Holder::release(Encapsulation &encapsulation) {
  encap_left_t left{};
  const int status = encap_client_release(client_, encapsulation.nh, &left);
  if (status != 0 && status != ENOENT) {
    refuse(encapsulation, status);
    return false;
  }
  --encapsulation.held;
  --held_;
  if (status == ENOENT) {
    log(Level::kError, "the database does not know of a reference on NH {}, which {} no longer needs", encapsulation.nh,
        text_of(encapsulation.cause));
    return true;
  }
  ++counters_.released;
  if (left.nh_left != 0) {
    room_came_ = true;
    ++counters_.nhs_left;
    events_.nh(false, left.nh, left.tunnel, encapsulation.key, &encapsulation.cause);
  }
  if (left.tunnel_left != 0) {
    ++counters_.tunnels_left;
    events_.tunnel(false, left.tunnel, encapsulation.key, &encapsulation.cause);
  }
  return true;
}

// Counts each reference once, and writes one message for a reason until nothing waits for the database any more.
void Holder::refuse(Encapsulation &encapsulation, int status) {
  const std::uint32_t missing =
      encapsulation.wanted > encapsulation.held ? encapsulation.wanted - encapsulation.held : 0;
  std::uint64_t &counter = status == ENOSPC   ? counters_.no_room
                           : status == ENOMEM ? counters_.no_memory
                                              : counters_.database;
  counter += missing > encapsulation.refused ? missing - encapsulation.refused : 0;
  encapsulation.refused = std::max(encapsulation.refused, missing);
  const std::uint32_t bit = status == ENOSPC ? 1 : status == ENOMEM ? 2 : 4;
  if ((std::exchange(told_, told_ | bit) & bit) != 0) {
    return;
  }
  const std::string prefix = text_of(encapsulation.cause);
  if (status == ENOSPC) {
    log(Level::kWarning, "no index is free for {}: it and all that follow wait until there is room", prefix);
  } else if (status == ENOMEM) {
    log(Level::kWarning, "the window has no memory for {}: it and all that follow wait until there is room", prefix);
  } else {
    log(Level::kError, "the database refuses a call for {}, which is tried again: {} ({})", prefix,
        std::strerror(status), status);
  }
}

void Holder::begin_refresh() {
  if (const int status = encap_client_refresh_begin(client_); status != 0) {
    log(Level::kError, "the database refuses to mark what is held as stale: {} ({})", std::strerror(status), status);
  }
  by_key_.each([&](std::uint32_t number) {
    Encapsulation &encapsulation = pool_[number];
    encapsulation.is_old = encapsulation.is_old || encapsulation.held != 0;
    encapsulation.wanted = encapsulation.held = encapsulation.named = encapsulation.refused = 0;
    mark(number);
  });
  wanted_ = held_ = 0;
  settled_ = false;
  apply();
}

// What is known of the NHs that a sweep releases.
struct Holder::Departure {
  Holder *holder;
  std::unordered_map<std::uint32_t, egress_encap_key_t> keys;

  void tell(const encap_left_t &left) {
    ++holder->counters_.swept;
    holder->counters_.nhs_left += left.nh_left;
    holder->counters_.tunnels_left += left.tunnel_left;
    const auto key = keys.find(left.nh);
    if (left.nh_left == 0 || key == keys.end()) {
      return;
    }
    const std::uint32_t number = holder->find(key->second);
    const RouteKey *const cause = number != kNone ? &holder->pool_[number].cause : nullptr;
    holder->events_.nh(false, left.nh, left.tunnel, key->second, cause);
    if (left.tunnel_left != 0) {
      holder->events_.tunnel(false, left.tunnel, key->second, cause);
    }
  }
};

void Holder::sweep(int (*call)(encap_client_t *, void (*)(const encap_left_t *, void *), void *)) {
  Departure departure{this, {}};
  if (events_.wanted()) {
    const auto keep = [](const encap_holding_t *holding, void *arg) {
      static_cast<Departure *>(arg)->keys[holding->nh] = holding->key;
    };
    encap_client_each(client_, keep, &departure);
  }
  const auto tell = [](const encap_left_t *left, void *arg) { static_cast<Departure *>(arg)->tell(*left); };
  const int status = call(client_, tell, &departure);
  if (status != 0) {
    log(Level::kError, "the database refuses to release what is stale: {} ({})", std::strerror(status), status);
  }
  events_.flush();
}

void Holder::end_refresh() {
  sweep(encap_client_refresh_end);
  settled_ = true;
  by_key_.each([&](std::uint32_t number) {
    pool_[number].is_old = false;
    mark(number);
  });
  apply();
  try_waiting(waiting_.size());
  events_.flush();
}

void Holder::leave() {
  sweep(encap_client_leave);
}

}  // namespace encapd
