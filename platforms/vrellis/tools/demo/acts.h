// The acts of the demo, and what they share: the workers and the model.
#ifndef ENCAP_DEMO_ACTS_H
#define ENCAP_DEMO_ACTS_H

#include <array>
#include <memory>
#include <string_view>

#include "child.h"
#include "model/model.h"

namespace demo {

// A worker, and what the supervisor knows of it.
struct Side {
  std::vector<route_file::Hop> part;
  std::unique_ptr<Child> process;
  std::uint32_t entered = 0;  // hops from the front of its part

  // Hops that it has to enter up to the end of a quarter of its part.
  std::uint32_t quarter(std::uint32_t number) const {
    return static_cast<std::uint32_t>(part.size() * number / 4) - entered;
  }
};

class Stage {
 public:
  Stage(const Plan &plan, Report &report);

  // In this order. Each throws std::runtime_error when it cannot go on.
  void enter_routes();
  void lose_a_process();
  void reclaim_a_client();
  void withdraw_routes();

 private:
  void start(std::uint32_t worker);
  void note_entered(std::uint32_t worker, std::string_view how);
  void stop_with_lock();
  void expect_wait();
  void restart();
  void compare() { model_.compare(client_, report_); }

  const Plan &plan_;
  Report &report_;
  Model model_;
  std::array<Side, kWorkers> side_;
  encap_client_t *client_ = nullptr;  // the supervisor's: it holds nothing, and looks
};

}  // namespace demo

#endif
