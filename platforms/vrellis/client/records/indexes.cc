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

bool is_free_nh(std::uint32_t place) {
  return egress_encap_db->nh_info_array[place].valid == 0;
}

bool is_free_tunnel(std::uint32_t place) {
  // Index 0 is the null tunnel, also where the range begins with it.
  return egress_encap_db->tun_start + place != 0 && egress_encap_db->tun_info_array[place].valid == 0;
}

struct Kind {
  bool (*is_free_at)(std::uint32_t place);
  std::uint32_t egress_encap_db_t::*start_field;
  std::uint32_t egress_encap_db_t::*end_field;
  std::int64_t next_look_ns;  // guarded by the database lock

  std::uint32_t start() const { return egress_encap_db->*start_field; }
  std::uint32_t end() const { return egress_encap_db->*end_field; }
  // False for a damaged index, too.
  bool is_free(std::uint32_t index) const { return index >= start() && index < end() && is_free_at(index - start()); }
};
constinit Kind nh_indexes{is_free_nh, &egress_encap_db_t::nh_start, &egress_encap_db_t::nh_end, 0};
constinit Kind tunnel_indexes{is_free_tunnel, &egress_encap_db_t::tun_start, &egress_encap_db_t::tun_end, 0};

// Whether an index waits that can be taken. In a damaged queue none does.
bool has_waiting(const IndexQueue &queue, const Kind &kind) {
  return queue.waiting != 0 && queue.waiting <= kind.end() - kind.start() && queue.take < kPageIndexes &&
         at<QueuePage>(queue.oldest) != nullptr;
}

// Takes the index that waited longest off the queue. Requires one that waits.
void take_oldest(IndexQueue &queue) {
  auto *const page = at<QueuePage>(queue.oldest);
  note_fields(queue.take, queue.waiting);
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
std::uint32_t first_free(const Kind &kind, std::uint32_t from) {
  std::uint32_t index = std::max(from, kind.start());
  while (index < kind.end() && !kind.is_free(index)) {
    ++index;
  }
  return index;
}

std::int64_t monotonic_ns() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return std::int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

// A look at the whole range. Returns: false when no slot is free, or when the last look that found none is not long ago.
bool look_again(Kind &kind, std::uint32_t *index) {
  if (monotonic_ns() < kind.next_look_ns) {
    return false;
  }
  *index = first_free(kind, kind.start());
  if (*index < kind.end()) {
    return true;
  }
  kind.next_look_ns = monotonic_ns() + kNextLookNs;
  return false;
}

int choose(IndexQueue &queue, Kind &kind, Choice *choice) {
  const std::uint32_t fresh = first_free(kind, queue.fresh);
  if (fresh != queue.fresh) {
    begin_change();
    put(queue.fresh, fresh);
    avl_change_commit();
  }
  *choice = {fresh, false};
  if (fresh < kind.end()) {
    return 0;
  }
  while (has_waiting(queue, kind)) {
    *choice = {at<QueuePage>(queue.oldest)->index[queue.take], true};
    if (kind.is_free(choice->index)) {
      return 0;
    }
    begin_change();
    take_oldest(queue);
    avl_change_commit();
  }
  *choice = {0, false};
  return look_again(kind, &choice->index) ? 0 : ENOSPC;
}

void take_chosen(IndexQueue &queue, const Choice &choice) {
  if (choice.has_waited) {
    take_oldest(queue);
  } else {
    put(queue.fresh, choice.index + 1);
  }
}

// An index that cannot be put into the queue for want of memory is found by the next look at every slot.
void give_back(IndexQueue &queue, const Kind &kind, std::uint32_t index) {
  auto *page = at<QueuePage>(queue.newest);
  const bool damaged = page == nullptr ? queue.waiting != 0 : queue.put > kPageIndexes;
  // One that was never given out comes anyway, and a queue as long as the range has them all.
  if (index >= queue.fresh || queue.waiting >= kind.end() - kind.start() || damaged) {
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
  put(page->index[queue.put], index);
  note_fields(queue.put, queue.waiting);
  ++queue.put;
  ++queue.waiting;
}

}  // namespace

int choose_nh(ClientRoot &root, Choice *choice) {
  return choose(root.nhs, nh_indexes, choice);
}

int choose_tunnel(ClientRoot &root, Choice *choice) {
  return choose(root.tunnels, tunnel_indexes, choice);
}

void take_nh(ClientRoot &root, const Choice &choice) {
  take_chosen(root.nhs, choice);
}

void take_tunnel(ClientRoot &root, const Choice &choice) {
  take_chosen(root.tunnels, choice);
}

void give_nh_back(ClientRoot &root, std::uint32_t index) {
  give_back(root.nhs, nh_indexes, index);
}

void give_tunnel_back(ClientRoot &root, std::uint32_t index) {
  give_back(root.tunnels, tunnel_indexes, index);
}

}  // namespace clients
