// Act 3: the routes are withdrawn one by one, until nothing is left.
#include <sys/wait.h>

#include <algorithm>
#include <string>

#include "encap_db_owner.h"
#include "snapshot.h"
#include "stage.h"
#include "trace_view.h"

namespace demo {
namespace {

constexpr std::uint32_t kShownNhs = 3;  // that leave alone
constexpr std::uint32_t kShownTunnels = 4;
constexpr std::size_t kTraceRecords = 4;

// What leaves the hardware, as the callers report it.
struct Departures {
  std::uint32_t nhs = 0;
  std::uint32_t tunnels = 0;  // labelled ones: the null tunnel is nothing in the hardware
  std::uint32_t hidden = 0;   // NHs that left without a line since the last one
  std::uint32_t last_worker = 0;
};

// Tells of the first ones of either kind.
void tell(Departures &gone, std::uint32_t worker, const route_file::Hop &hop, const Reply &reply, Report &report) {
  const bool tunnel = reply.tun_to_del != 0 && reply.egr_tun != 0;
  ++gone.nhs;
  gone.tunnels += tunnel;
  if (tunnel ? gone.tunnels > kShownTunnels : gone.nhs - gone.tunnels > kShownNhs) {
    ++gone.hidden;
    return;
  }
  if (gone.hidden > 0) {
    report.line("          ... {} more NHs leave ...", gone.hidden);
    gone.hidden = 0;
  }
  report.line("worker {}  {}: NH {} ({} on {}){} the hardware", letter_of(worker), hop.prefix, reply.nh_index,
              stack_text(hop), hop.dev, tunnel ? fmt::format(" and tunnel {} leave", reply.egr_tun) : " leaves");
}

// One reference goes; the model, asked first, says what goes with it.
void withdraw_one(Stage &stage, std::uint32_t worker, const Snapshot &full, Departures &gone) {
  Side &side = stage.side[worker];
  const route_file::Hop &hop = side.part[side.withdrawn++];
  const Key key = key_of(route_file::key_of(hop));
  const Model::Gone expected = stage.model.withdraw(worker, key);
  const Snapshot::Nh nh = full.nhs.contains(key) ? full.nhs.at(key) : Snapshot::Nh{};

  const Reply seen = side.process->ask(Verb::kWithdraw);
  const std::string name = fmt::format("withdrawal of {} by {}: ", hop.prefix, letter_of(worker));
  stage.report.expect(name + "status", 0, seen.status);
  stage.report.expect(name + "NH", nh.nh_index, seen.nh_index);
  stage.report.expect(name + "NH leaves", expected.nh, seen.nh_to_del != 0);
  stage.report.expect(name + "tunnel", expected.nh ? nh.egr_tun : 0, seen.egr_tun);
  stage.report.expect(name + "tunnel leaves", expected.tunnel, seen.tun_to_del != 0);
  if (seen.nh_to_del != 0) {
    tell(gone, worker, hop, seen, stage.report);
  }
  gone.last_worker = worker;
}

// The workers take turns, until neither holds a reference.
Departures withdraw_all(Stage &stage, const Snapshot &full) {
  Departures gone;
  const std::size_t turns = kWorkers * std::max(stage.side[kA].part.size(), stage.side[kB].part.size());
  for (std::size_t turn = 0; turn < turns; ++turn) {
    const auto worker = static_cast<std::uint32_t>(turn % kWorkers);
    if (turn / kWorkers < stage.side[worker].part.size()) {
      withdraw_one(stage, worker, full, gone);
    }
  }
  if (gone.hidden > 0) {
    stage.report.line("          ... {} more NHs leave ...", gone.hidden);
  }
  return gone;
}

void quit(Stage &stage, std::uint32_t worker) {
  Child &process = *stage.side[worker].process;
  process.ask(Verb::kQuit);
  const int status = process.wait();
  stage.report.expect_true(fmt::format("worker {} ended with status 0", letter_of(worker)),
                           WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

void close_database(Stage &stage) {
  shmwin_error_t error{};
  stage.report.expect("status of the close", 0, encap_db_close());
  if (!stage.report.expect("status of the window's removal", 0,
                           encap_db_destroy(stage.plan.directory.c_str(), kWindowName, 0, &error))) {
    stage.report.line("{}", error.text);
  }
}

}  // namespace

void withdraw_routes(Stage &stage) {
  Report &report = stage.report;
  report.heading("3  The routes are withdrawn one by one");
  const Snapshot full = take_snapshot();
  const Departures gone = withdraw_all(stage, full);
  report.expect("NHs that left the hardware", full.nhs.size(), std::size_t{gone.nhs});
  report.expect("tunnels that left the hardware", full.tunnels.size(), std::size_t{gone.tunnels});
  report.line("in all    {} withdrawals took {} NHs and {} tunnels out of the hardware",
              stage.side[kA].withdrawn + stage.side[kB].withdrawn, gone.nhs, gone.tunnels);

  const pid_t last = stage.side[gone.last_worker].process->pid();
  report.gap();
  report.line("last trace records of worker {}, process {}:", letter_of(gone.last_worker), last);
  report.expect_true("the worker wrote trace records", print_last_records(last, kTraceRecords, report) > 0);
  report.gap();
  quit(stage, kA);
  quit(stage, kB);
  const Snapshot empty = take_snapshot();
  expect_empty(empty, full.null_tunnel.valid != 0, report);
  report.line("database  {} NHs, {} tunnels; window: {} NH nodes, {} tunnel nodes, {} arrays, {} pages free",
              empty.nhs.size(), empty.tunnels.size(), empty.usage.nodes40, empty.usage.nodes56, empty.usage.arrays,
              empty.usage.free_pages);
  close_database(stage);
}

}  // namespace demo
