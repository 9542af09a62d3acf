// Act 2: a process dies with the lock in its hands; the other takes over; a new one finds the dead one's state again.
#include <sys/wait.h>

#include <chrono>
#include <csignal>
#include <map>

#include "snapshot.h"
#include "stage.h"
#include "trace_view.h"

namespace demo {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kWaitSeconds = 10;  // for worker B's wait to show
constexpr std::size_t kTraceRecords = 4;
constexpr std::size_t kTableRows = 8;

std::uint64_t monotonic_ns() {
  return static_cast<std::uint64_t>(
      std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count());
}

// Worker A stops in the middle of an entry: lock taken, key looked up, nothing inserted.
void hold_lock(Stage &stage) {
  Side &a = stage.side[kA];
  a.process->command(Verb::kEnter, a.quarter(4) / 2);
  stage.note_entered(kA, "goes on");
  const Reply holding = a.process->ask(Verb::kHold);
  stage.report.expect("hop that worker A is at", a.entered, holding.hop);
  stage.report.line("worker A  holds the lock, in the middle of entering {}", a.part[a.entered].prefix);
}

void expect_wait(Stage &stage, const Child &b) {
  Report &report = stage.report;
  const std::optional<ptd_wait_t> wait = await_wait(b.pid(), kWaitSeconds);
  if (report.expect_true("worker B's wait stands in its trace file", wait.has_value())) {
    const auto mutex = reinterpret_cast<std::uintptr_t>(&egress_encap_db->lock.mutex);
    report.expect("mutex that worker B waits for", std::uint64_t{mutex}, wait->mutex);
    report.expect("function that waits", std::string("vrl_egress_encap_db_lock"), std::string(wait->function));
    report.line("worker B  waits for mutex {:#x} in {}:{}, for {} us so far", wait->mutex, wait->function, wait->line,
                (monotonic_ns() - wait->since_ns) / 1000);
  }
  report.expect_true("worker B waits", !b.has_replied());
}

void kill_holder(Stage &stage) {
  Report &report = stage.report;
  const pid_t dead = stage.side[kA].process->pid();
  const Clock::time_point killed = Clock::now();
  stage.side[kA].process->kill();
  const int status = stage.side[kA].process->wait();
  report.expect_true("worker A died of SIGKILL", WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
  report.line("worker A  process {} killed with SIGKILL", dead);
  const Reply reply = stage.note_entered(kB, "took the lock over");
  const auto took = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - killed).count();
  report.expect_true("worker B had to wait for the lock", reply.wait_us > 0);
  report.line("worker B  waited {} us for the lock; had all its routes entered {} us after the kill", reply.wait_us,
              took);
  report.gap();
  report.line("last trace records of the dead process {}:", dead);
  report.expect_true("the dead process left trace records", print_last_records(dead, kTraceRecords, report) > 0);
  report.gap();
}

// The new process knows the route file; the database and worker B tell it the rest.
void restart(Stage &stage) {
  Side &a = stage.side[kA];
  Child &b = *stage.side[kB].process;
  stage.start(kA);
  stage.report.expect("databases created by the restarted worker", 0u, stage.first_words(kA).created_database);
  std::vector<Reference> others;
  b.command(Verb::kHoldings);
  b.reply(others);
  a.process->recover(others);
  const Reply found = a.process->reply();
  stage.report.expect("status of the recovery", 0, found.status);
  stage.report.expect("references that the restarted worker finds", a.entered, found.entered);
  stage.report.line("worker A  found its {} references again: the database's counts less what worker B holds",
                    found.entered);
  a.process->command(Verb::kEnter, kAll);
  stage.note_entered(kA, "goes on");
}

// What a worker says it holds, by NH index, against the model.
void expect_holdings(Stage &stage, const Snapshot &seen, std::uint32_t worker) {
  std::map<std::uint32_t, std::uint32_t> expected;
  for (const auto &[key, users] : stage.model.nhs()) {
    if (users[worker] > 0 && seen.nhs.contains(key)) {
      expected[seen.nhs.at(key).nh_index] = users[worker];
    }
  }
  std::vector<Reference> references;
  stage.side[worker].process->command(Verb::kHoldings);
  stage.side[worker].process->reply(references);
  std::map<std::uint32_t, std::uint32_t> held;
  for (const Reference &reference : references) {
    held[reference.nh_index] = reference.count;
  }
  stage.report.expect_true(fmt::format("worker {} holds what the routes say", letter_of(worker)), expected == held);
}

}  // namespace

void lose_a_process(Stage &stage) {
  stage.report.heading("2  A process dies with the lock in its hands");
  hold_lock(stage);
  Child &b = *stage.side[kB].process;
  b.command(Verb::kEnter, kAll);
  expect_wait(stage, b);
  kill_holder(stage);
  compare(take_snapshot(), stage.model, stage.report);
  restart(stage);
  const Snapshot seen = take_snapshot();
  compare(seen, stage.model, stage.report);
  for (const std::uint32_t worker : {kA, kB}) {
    const Side &side = stage.side[worker];
    stage.report.expect("next hops entered", side.part.size(), std::size_t{side.entered});
    expect_holdings(stage, seen, worker);
  }
  print_table(seen, stage.model, stage.plan, kTableRows, stage.report);
}

}  // namespace demo
