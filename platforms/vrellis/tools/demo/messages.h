// What the supervisor and its workers say to each other, over a pipe each way. Both ends are this one program.
#ifndef ENCAP_DEMO_MESSAGES_H
#define ENCAP_DEMO_MESSAGES_H

#include <cstdint>
#include <type_traits>
#include <vector>

namespace demo {

enum class Verb : std::uint32_t {
  kEnter,     // enter the next `count` of its hops that are not entered yet
  kHold,      // take the lock, look the next hop up, answer, and sleep for ever with the lock held
  kHoldings,  // tell the references it holds
  kRecover,   // find its references again; those that the other process holds follow
  kWithdraw,  // give back the reference of the first hop still entered
  kQuit,      // close the database and end
};

struct Command {
  Verb verb;
  std::uint32_t count;  // kEnter: hops; kRecover: References behind this record
};

struct Reference {
  std::uint32_t nh_index;
  std::uint32_t count;
};

// Answer to every command, and a worker's first words.
struct Reply {
  std::int32_t status;             // first status of an operation that was not 0
  std::uint32_t created_database;  // first words: 1 when it set the database up
  std::uint32_t entered;           // hops: entered by this command, or found again
  std::uint32_t created;           // of these: with a new NH
  std::uint32_t foreign;           // of these: on an NH that the other process created
  std::uint32_t wait_us;           // longest time that it waited for the lock
  std::uint32_t hop;               // kHold, kWithdraw: which of its hops
  std::uint32_t nh_index;          // kWithdraw: the NH
  std::uint32_t nh_to_del;         //   1: it leaves the hardware
  std::uint32_t egr_tun;           //   its tunnel, when it leaves
  std::uint32_t tun_to_del;        //   1: the tunnel's last reference went
  std::uint32_t references;        // References behind this record
};

static_assert(std::is_trivially_copyable_v<Command> && std::is_trivially_copyable_v<Reply>);

// Whole records over a file descriptor. Return false when the other end is gone.
bool read_all(int fd, void *record, std::size_t size);
bool write_all(int fd, const void *record, std::size_t size);

template <typename Record>
bool receive(int fd, Record &record) {
  return read_all(fd, &record, sizeof record);
}

template <typename Record>
bool send(int fd, const Record &record) {
  return write_all(fd, &record, sizeof record);
}

inline bool receive(int fd, std::vector<Reference> &records) {
  return read_all(fd, records.data(), records.size() * sizeof(Reference));
}

inline bool send(int fd, const std::vector<Reference> &records) {
  return write_all(fd, records.data(), records.size() * sizeof(Reference));
}

}  // namespace demo

#endif
