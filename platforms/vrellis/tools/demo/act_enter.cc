// Act 1: two processes enter their routes into one window.
#include <array>
#include <stdexcept>

#include "encap_db_owner.h"
#include "snapshot.h"
#include "stage.h"

namespace demo {
namespace {

// Who enters up to which quarter of its part. Neighbouring routes share much: in each quarter the first comes upon new
// encapsulations, and the second upon those of the first.
constexpr struct {
  std::uint32_t worker;
  std::uint32_t quarter;
} kTurns[] = {{kA, 1}, {kB, 1}, {kB, 2}, {kA, 2}};

// Both at the same moment: whichever comes first makes the database.
void start_both(Stage &stage) {
  stage.start(kA);
  stage.start(kB);
  const std::uint32_t created = stage.first_words(kA).created_database + stage.first_words(kB).created_database;
  stage.report.expect("processes that created the database", 1u, created);
}

// The supervisor only looks.
void open_database(Stage &stage) {
  const encap_db_config_t config = stage.plan.database();
  shmwin_error_t error{};
  int created = 0;
  if (encap_db_open(&config, &created, &error) != 0) {
    throw std::runtime_error(error.text);
  }
  stage.report.expect("databases created by the supervisor", 0, created);
}

// An NH's index tells which worker created it; that worker did so once, and all references of the other are foreign.
void expect_sharing(Stage &stage) {
  const Snapshot seen = take_snapshot();
  std::array<std::uint32_t, kWorkers> created{};
  std::array<std::uint32_t, kWorkers> foreign{};
  for (const auto &[key, nh] : seen.nhs) {
    const std::uint32_t creator = stage.plan.creator_of(nh.nh_index);
    const auto users = stage.model.nhs().find(key);
    ++created[creator];
    foreign[1 - creator] += users == stage.model.nhs().end() ? 0 : users->second[1 - creator];
  }
  for (const std::uint32_t worker : {kA, kB}) {
    const char letter = letter_of(worker);
    stage.report.expect(fmt::format("NHs that {} created", letter), created[worker], stage.side[worker].created);
    stage.report.expect(fmt::format("references of {} on NHs of the other", letter), foreign[worker],
                        stage.side[worker].foreign);
  }
}

}  // namespace

void enter_routes(Stage &stage) {
  stage.report.heading("1  Two processes enter their routes");
  start_both(stage);
  open_database(stage);
  for (const auto &[worker, quarter] : kTurns) {
    stage.side[worker].process->command(Verb::kEnter, stage.side[worker].quarter(quarter));
    stage.note_entered(worker, "in turn");
  }
  expect_sharing(stage);
  for (const std::uint32_t worker : {kA, kB}) {
    stage.side[worker].process->command(Verb::kEnter, stage.side[worker].quarter(3));
  }
  stage.note_entered(kA, "at once");
  stage.note_entered(kB, "at once");
  expect_sharing(stage);
  compare(take_snapshot(), stage.model, stage.report);
}

}  // namespace demo
