#include "acts.h"

#include <sys/wait.h>

#include <chrono>
#include <stdexcept>
#include <thread>

#include "trace_view.h"

namespace demo {
namespace {

constexpr std::uint32_t kAll = UINT32_MAX;
constexpr int kWaitSeconds = 10;  // for the wait of worker B to show
constexpr int kStops = 10'000;    // of worker A, until it stands still with the lock
constexpr std::size_t kTraceRecords = 4;
constexpr std::uint32_t kShown = 6;  // NHs that leave

// The thread that holds the database lock; 0 when it is free.
pid_t lock_holder() {
  constexpr int kThreadBits = 0x3fffffff;
  return __atomic_load_n(&egress_encap_db->lock.mutex.__data.__lock, __ATOMIC_ACQUIRE) & kThreadBits;
}

bool was_killed(int status) {
  return WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
}

}  // namespace

Stage::Stage(const Plan &plan, Report &report) : plan_(plan), report_(report) {
  for (const std::uint32_t worker : {kA, kB}) {
    side_[worker].part = plan.part_of(worker);
  }
}

void Stage::start(std::uint32_t worker) {
  side_[worker].process = std::make_unique<Child>(plan_, worker);
  report_.line("{}  process {} begins", kClientNames[worker], side_[worker].process->pid());
}

// Takes the reply to Verb::kEnter, and enters the same hops into the model.
void Stage::note_entered(std::uint32_t worker, std::string_view how) {
  Side &side = side_[worker];
  const Reply reply = side.process->reply();
  report_.expect(fmt::format("status of the entries of {}", kClientNames[worker]), 0, reply.status);
  const std::size_t before = model_.nhs().size();
  for (std::uint32_t hop = 0; hop < reply.entered && side.entered < side.part.size(); ++hop) {
    model_.enter(worker, side.part[side.entered++]);
  }
  if (how == "in turn") {
    report_.expect("NHs created", model_.nhs().size() - before, std::size_t{reply.created});
  }
  report_.line("{}  {}: {} next hops entered, {} with a new NH, {} on NHs that were there", kClientNames[worker], how,
               reply.entered, reply.created, reply.entered - reply.created);
}

// Neighbouring routes share much: in each quarter the first comes upon new encapsulations, and the second upon those of
// the first.
void Stage::enter_routes() {
  report_.heading("1  Two processes enter their routes");
  start(kA);  // both at once: the one that comes first makes the database
  start(kB);
  constexpr struct {
    std::uint32_t worker;
    std::uint32_t quarter;
  } kTurns[] = {{kA, 1}, {kB, 1}, {kB, 2}, {kA, 2}};
  for (const auto &[worker, quarter] : kTurns) {
    side_[worker].process->command(Verb::kEnter, side_[worker].quarter(quarter));
    note_entered(worker, "in turn");
  }
  client_ = plan_.open(kClientNames[kWorkers]);
  for (const std::uint32_t worker : {kA, kB}) {
    side_[worker].process->command(Verb::kEnter, side_[worker].quarter(3));
  }
  note_entered(kA, "at once");
  note_entered(kB, "at once");
  compare();
}

// Stops worker A again and again, until it stands in the middle of a call with the lock in its hands.
void Stage::stop_with_lock() {
  Child &a = *side_[kA].process;
  a.command(Verb::kChurn);
  for (int stop = 0; stop < kStops; ++stop) {
    a.stop();
    if (lock_holder() == a.pid()) {
      report_.line("worker-A  stands still in the middle of a call, with the lock in its hands");
      return;
    }
    a.go_on();
    std::this_thread::sleep_for(std::chrono::microseconds(100 + stop % 97));
  }
  throw std::runtime_error("worker A never stood still with the lock in its hands");
}

void Stage::expect_wait() {
  const Child &b = *side_[kB].process;
  const std::optional<ptd_wait_t> wait = await_wait(b.pid(), kWaitSeconds);
  if (report_.expect_true("the wait of worker B stands in its trace file", wait.has_value())) {
    const auto mutex = reinterpret_cast<std::uintptr_t>(&egress_encap_db->lock.mutex);
    report_.expect("mutex that worker B waits for", std::uint64_t{mutex}, wait->mutex);
    report_.line("worker-B  waits for mutex {:#x} in {}:{}", wait->mutex, wait->function, wait->line);
  }
  report_.expect_true("worker B waits", !b.has_replied());
}

// The new process has the name and knows the route file. Nothing else has to tell it what it held.
void Stage::restart() {
  Side &a = side_[kA];
  const std::uint32_t held = model_.held(kA);
  start(kA);
  const Reply reply = a.process->ask(Verb::kRefresh);
  report_.expect("status of the refresh", 0, reply.status);
  report_.expect("references that worker A finds again", held, reply.renewed);
  report_.expect("references that no route names", 0U, reply.gone);
  while (a.entered < a.part.size()) {
    model_.enter(kA, a.part[a.entered++]);
  }
  report_.line("worker-A  found its {} references again, and entered {} next hops more", reply.renewed,
               reply.entered - reply.renewed);
}

void Stage::lose_a_process() {
  report_.heading("2  A process dies in the middle of a call, with the lock in its hands");
  Side &a = side_[kA];
  stop_with_lock();
  side_[kB].process->command(Verb::kEnter, kAll);
  expect_wait();
  const pid_t dead = a.process->pid();
  report_.expect_true("worker A died of SIGKILL", was_killed(a.process->kill()));
  report_.line("worker-A  process {} killed with SIGKILL", dead);
  note_entered(kB, "took the lock over");
  report_.gap();
  report_.line("last trace records of the dead process {}:", dead);
  report_.expect_true("the dead process left trace records", print_last_records(dead, kTraceRecords, report_) > 0);
  report_.gap();

  // The entry that it was in, or the release behind it, is either done or not begun.
  encap_client_info_t clients[ENCAP_CLIENT_MAX] = {};
  std::uint32_t count = 0;
  report_.expect("status of the list", 0, encap_client_list(client_, clients, ENCAP_CLIENT_MAX, &count));
  for (const encap_client_info_t &info : clients) {
    if (info.name == std::string(kClientNames[kA]) && info.held == a.entered + 1) {
      model_.enter(kA, a.part[a.entered++]);
    }
  }
  compare();
  restart();
  compare();
}

void Stage::reclaim_a_client() {
  report_.heading("3  A process never returns");
  Side &a = side_[kA];
  const pid_t dead = a.process->pid();
  report_.expect_true("worker A died of SIGKILL", was_killed(a.process->kill()));
  compare();
  const std::uint32_t held = model_.held(kA);
  const std::uint32_t leaving = model_.lose(kA);
  struct {
    std::uint32_t references;
    std::uint32_t nhs;
  } gone{};
  const auto take_out = [](const encap_left_t *left, void *of) {
    auto &sum = *static_cast<decltype(gone) *>(of);
    ++sum.references;
    sum.nhs += left->nh_left;
  };
  report_.expect("status of the reclaim", 0, encap_client_reclaim(client_, kClientNames[kA], take_out, &gone));
  report_.expect("references given back", held, gone.references);
  report_.expect("NHs that leave with them", leaving, gone.nhs);
  report_.line("worker-A  process {} killed with SIGKILL, and nothing starts it again", dead);
  report_.line("reclaimed {} references; {} NHs that nothing else used leave the hardware", gone.references, gone.nhs);
  compare();
}

void Stage::withdraw_routes() {
  report_.heading("4  The routes are withdrawn one by one");
  Side &b = side_[kB];
  std::uint32_t nhs = 0;
  for (const route_file::Hop &hop : b.part) {
    const Model::Gone gone = model_.withdraw(kB, Model::key_of(route_file::key_of(hop)));
    const Reply reply = b.process->ask(Verb::kWithdraw);
    report_.expect("status of the withdrawal of " + hop.prefix, 0, reply.status);
    report_.expect(hop.prefix + ": the NH leaves", gone.nh, reply.left.nh_left != 0);
    report_.expect(hop.prefix + ": the tunnel leaves", gone.tunnel, reply.left.tunnel_left != 0);
    if (gone.nh && ++nhs <= kShown) {
      report_.line("worker-B  {}: NH {} ({} on {}){} the hardware", hop.prefix, reply.left.nh, stack_text(hop), hop.dev,
                   gone.tunnel ? fmt::format(" and tunnel {} leave", reply.left.tunnel) : " leaves");
    }
  }
  report_.line("          ... {} NHs in all", nhs);
  const Reply left = b.process->ask(Verb::kLeave);
  report_.expect("status of the leave", 0, left.status);
  report_.expect("references that worker B still held", 0U, left.gone);
  report_.expect("exit status of worker B", 0, b.process->wait_until_end());
  compare();
  report_.expect("status of the supervisor's leave", 0, encap_client_leave(client_, nullptr, nullptr));
  shmwin_error_t error{};
  report_.expect("status of the window's removal", 0,
                 encap_db_destroy(plan_.directory.c_str(), kWindowName, 0, &error));
}

}  // namespace demo
