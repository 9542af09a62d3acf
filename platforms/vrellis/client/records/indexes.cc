#include "indexes.h"

#include <algorithm>
#include <cerrno>
#include <ctime>

#include "window.h"

namespace clients {
namespace {

constexpr std::uint32_t kPageIndexes = sizeof(QueuePage::index) / sizeof(std::uint32_t);

// After a look at every slot that found none free, the next one is due so much later. Only processes that use the
// database's operations directly give indexes back without telling the queue.
constexpr std::int64_t kNextLookNs = 100'000'000;

// Indexes of NHs, or of tunnels.
struct NhKind {
  static std::uint32_t start() { return egress_encap_db->nh_start; }
  static std::uint32_t end() { return egress_encap_db->nh_end; }
  static bool is_free_at(std::uint32_t place) { return egress_encap_db->nh_info_array[place].valid == 0; }
  inline static constinit std::int64_t next_look_ns = 0;  // guarded by the database lock
};

struct TunnelKind {
  static std::uint32_t start() { return egress_encap_db->tun_start; }
  static std::uint32_t end() { return egress_encap_db->tun_end; }
  // Index 0 is the null tunnel, also where the range begins with it.
  static bool is_free_at(std::uint32_t place) {
    return start() + place != 0 && egress_encap_db->tun_info_array[place].valid == 0;
  }
  inline static constinit std::int64_t next_look_ns = 0;
};

// False for a damaged index, too.
template <typename Kind>
bool is_free(std::uint32_t index) {
  return index >= Kind::start() && index < Kind::end() && Kind::is_free_at(index - Kind::start());
}

// Whether an index waits that can be taken. In a damaged queue none does.
template <typename Kind>
bool has_waiting(const IndexQueue &queue) {
  return queue.waiting != 0 && queue.waiting <= Kind::end() - Kind::start() && queue.take < kPageIndexes &&
         at<QueuePage>(queue.oldest) != nullptr;
}

// Takes the index that waited longest off the queue. Requires one that waits.
void take_oldest(IndexQueue &queue) {
  auto *const page = at<QueuePage>(queue.oldest);
  note(queue.take, queue.waiting);
  --queue.waiting;
  ++queue.take;
  if (queue.waiting == 0) {
    put(queue.oldest, std::uint64_t{0});
    put(queue.newest, std::uint64_t{0});
  } else if (queue.take == kPageIndexes) {
    put(queue.oldest, page->next);
  } else {
    return;
  }
  queue.take = 0;
  shmwin_free(page);
}

// The first free index from `from` on; the end of the range when there is none.
template <typename Kind>
std::uint32_t first_free(std::uint32_t from) {
  std::uint32_t index = std::max(from, Kind::start());
  while (index < Kind::end() && !Kind::is_free_at(index - Kind::start())) {
    ++index;
  }
  return index;
}

std::int64_t monotonic_ns() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return std::int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

// A look at the whole range. Returns: false when no slot is free, or the last look that found none is not long ago.
template <typename Kind>
bool look_again(std::uint32_t *index) {
  if (monotonic_ns() < Kind::next_look_ns) {
    return false;
  }
  *index = first_free<Kind>(Kind::start());
  if (*index < Kind::end()) {
    return true;
  }
  Kind::next_look_ns = monotonic_ns() + kNextLookNs;
  return false;
}

template <typename Kind>
int choose(IndexQueue &queue, Choice *choice) {
  const std::uint32_t fresh = first_free<Kind>(queue.fresh);
  if (fresh != queue.fresh) {
    begin_change();
    put(queue.fresh, fresh);
    avl_change_commit();
  }
  *choice = {fresh, false};
  if (fresh < Kind::end()) {
    return 0;
  }
  while (has_waiting<Kind>(queue)) {
    *choice = {at<QueuePage>(queue.oldest)->index[queue.take], true};
    if (is_free<Kind>(choice->index)) {
      return 0;
    }
    begin_change();
    take_oldest(queue);
    avl_change_commit();
  }
  *choice = {0, false};
  return look_again<Kind>(&choice->index) ? 0 : ENOSPC;
}

void take_chosen(IndexQueue &queue, const Choice &choice) {
  if (choice.has_waited) {
    take_oldest(queue);
  } else {
    put(queue.fresh, choice.index + 1);
  }
}

// An index that cannot be put into the queue for want of memory is found by the next look at every slot.
template <typename Kind>
void give_back(IndexQueue &queue, std::uint32_t index) {
  auto *page = at<QueuePage>(queue.newest);
  const bool damaged = page == nullptr ? queue.waiting != 0 : queue.put > kPageIndexes;
  // One that was never given out comes anyway, and a queue as long as the range has them all.
  if (index >= queue.fresh || queue.waiting >= Kind::end() - Kind::start() || damaged) {
    return;
  }
  if (page == nullptr || queue.put == kPageIndexes) {
    auto *const more = take<QueuePage>();
    if (more == nullptr) {
      return;
    }
    if (page == nullptr) {
      put(queue.oldest, address_of(more));
      put(queue.take, 0U);
    } else {
      put(page->next, address_of(more));
    }
    put(queue.newest, address_of(more));
    put(queue.put, 0U);
    page = more;
  }
  note(page->index[queue.put], queue.put, queue.waiting);
  page->index[queue.put] = index;
  ++queue.put;
  ++queue.waiting;
}

}  // namespace

int choose_nh(ClientRoot &root, Choice *choice) {
  return choose<NhKind>(root.nhs, choice);
}

int choose_tunnel(ClientRoot &root, Choice *choice) {
  return choose<TunnelKind>(root.tunnels, choice);
}

void take_nh(ClientRoot &root, const Choice &choice) {
  take_chosen(root.nhs, choice);
}

void take_tunnel(ClientRoot &root, const Choice &choice) {
  take_chosen(root.tunnels, choice);
}

void give_nh_back(ClientRoot &root, std::uint32_t index) {
  give_back<NhKind>(root.nhs, index);
}

void give_tunnel_back(ClientRoot &root, std::uint32_t index) {
  give_back<TunnelKind>(root.tunnels, index);
}

}  // namespace clients
