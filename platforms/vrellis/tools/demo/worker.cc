// A worker: a client of the database that enters its part of the routes and withdraws them, as the supervisor asks.
#include <sys/socket.h>

#include "child.h"

namespace demo {
namespace {

class Worker {
 public:
  Worker(const Plan &plan, std::uint32_t worker) : part_(plan.part_of(worker)), nhs_(part_.size()) {
    client_ = plan.open(kClientNames[worker]);
  }

  int run() {
    for (Command command{}; recv(kWorkerFd, &command, sizeof command, 0) == sizeof command;) {
      Reply reply{};
      obey(command, reply);
      send(kWorkerFd, &reply, sizeof reply, MSG_NOSIGNAL);
      if (command.verb == Verb::kLeave) {
        return reply.status == 0 ? 0 : 1;
      }
    }
    return 1;
  }

 private:
  void obey(const Command &command, Reply &reply) {
    switch (command.verb) {
      case Verb::kEnter:
        for (std::uint32_t hop = 0; hop < command.count && entered_ < part_.size() && reply.status == 0; ++hop) {
          enter(reply);
        }
        return;
      case Verb::kChurn:
        while (reply.status == 0) {
          enter(reply);
          reply.status = encap_client_release(client_, nhs_[--entered_], nullptr);
        }
        return;
      case Verb::kRefresh:
        reply.status = encap_client_refresh_begin(client_);
        while (entered_ < part_.size() && reply.status == 0) {
          enter(reply);
        }
        reply.status = reply.status != 0 ? reply.status : encap_client_refresh_end(client_, count_gone, &reply);
        return;
      case Verb::kWithdraw:
        reply.status = encap_client_release(client_, nhs_[withdrawn_++], &reply.left);
        return;
      case Verb::kLeave:
        reply.status = encap_client_leave(client_, count_gone, &reply);
        return;
    }
  }

  void enter(Reply &reply) {
    encap_entry_t entry{};
    reply.status = encap_client_enter(client_, route_file::key_of(part_[entered_]), nullptr, &entry);
    nhs_[entered_++] = entry.nh;
    ++reply.entered;
    reply.created += entry.nh_created;
    reply.renewed += entry.renewed;
  }

  static void count_gone(const encap_left_t *, void *reply) { ++static_cast<Reply *>(reply)->gone; }

  std::vector<route_file::Hop> part_;
  std::vector<std::uint32_t> nhs_;  // by hop
  std::size_t entered_ = 0;         // hops from the front of its part
  std::size_t withdrawn_ = 0;       // likewise
  encap_client_t *client_;
};

}  // namespace

int run_worker(const Plan &plan, std::uint32_t worker) {
  return Worker(plan, worker).run();
}

}  // namespace demo
