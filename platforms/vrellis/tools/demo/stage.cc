#include "stage.h"

#include <stdexcept>

namespace demo {

Stage::Stage(const Plan &the_plan, const std::string &the_route_file, Report &the_report)
    : plan(the_plan), route_file(the_route_file), report(the_report) {
  for (const std::uint32_t worker : {kA, kB}) {
    side[worker].part = plan.part_of(worker);
  }
}

void Stage::start(std::uint32_t worker) {
  side[worker].process = std::make_unique<Child>(worker, route_file, plan.directory);
}

Reply Stage::first_words(std::uint32_t worker) {
  const Child &process = *side[worker].process;
  const Reply reply = side[worker].process->reply();
  if (reply.status != 0) {
    throw std::runtime_error(fmt::format("worker {} has no database", letter_of(worker)));
  }
  report.line("worker {}  process {} {} the database", letter_of(worker), process.pid(),
              reply.created_database != 0 ? "created" : "attached");
  return reply;
}

Reply Stage::note_entered(std::uint32_t worker, std::string_view how) {
  Side &own = side[worker];
  const Reply reply = own.process->reply();
  report.expect(fmt::format("status of the entries of worker {}", letter_of(worker)), 0, reply.status);
  for (std::uint32_t hop = 0; hop < reply.entered && own.entered < own.part.size(); ++hop) {
    model.enter(worker, key_of(route_file::key_of(own.part[own.entered++])));
  }
  own.created += reply.created;
  own.foreign += reply.foreign;
  report.line("worker {}  {}: {} next hops entered, {} with a new NH, {} on NHs that {} created", letter_of(worker),
              how, reply.entered, reply.created, reply.foreign, letter_of(1 - worker));
  return reply;
}

}  // namespace demo
