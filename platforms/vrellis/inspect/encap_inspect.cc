// The C interface. Exceptions end here.
#include "encap_inspect.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>

#include "reading/lock_word.h"
#include "reading/survey.h"
#include "repair/repair.h"

namespace encap_inspect {
namespace {

constexpr std::chrono::milliseconds kPatience{5000};

// A record as the caller's version of the header has it: what its `bytes` covers, the rest 0.
template <typename Record>
Record read_record(const Record *given) {
  Record record{};
  if (given != nullptr) {
    const std::size_t bytes = given->bytes != 0 ? given->bytes : sizeof record;
    std::memcpy(&record, given, std::min(bytes, sizeof record));
  }
  return record;
}

template <typename Record>
void write_record(Record record, Record *out) {
  if (out != nullptr) {
    record.bytes = out->bytes;
    std::memcpy(out, &record, std::min<std::size_t>(out->bytes != 0 ? out->bytes : sizeof record, sizeof record));
  }
}

template <typename Record>
void set_text(Record *record, const std::string &text) {
  std::snprintf(record->text, sizeof record->text, "%s", text.c_str());
}

std::chrono::milliseconds patience_of(std::uint32_t milliseconds) {
  return milliseconds != 0 ? std::chrono::milliseconds(milliseconds) : kPatience;
}

bool names_window(const encap_db_config_t *config) {
  return config != nullptr && config->name != nullptr;
}

std::string path_of(const encap_db_config_t &config) {
  return std::string(config.directory != nullptr ? config.directory : "/dev/shm") + "/" + config.name;
}

// The code of a file that cannot be read.
int status_of_file(const encap_db_config_t &config) {
  return access(path_of(config).c_str(), R_OK) != 0 ? errno : EINVAL;
}

std::uint32_t lock_of(const LockState &lock) {
  if (!lock.recognised) {
    return ENCAP_LOCK_DAMAGED;
  }
  if (!lock.held) {
    return ENCAP_LOCK_FREE;
  }
  return lock.owner_died ? ENCAP_LOCK_LEFT : lock.lost() ? ENCAP_LOCK_LOST : ENCAP_LOCK_HELD;
}

std::uint64_t deaths_in(const Database &db) {
  const auto died = [](const AttachedProcess &process) { return process.liveness == Liveness::kDead; };
  return db.window.deaths + static_cast<std::uint64_t>(std::count_if(db.processes.begin(), db.processes.end(), died));
}

void describe_window(const Database &db, encap_check_result_t *result) {
  result->deaths = deaths_in(db);
  for (const AttachedProcess &process : db.processes) {
    result->attached += process.liveness != Liveness::kDead ? 1 : 0;
  }
  result->lock = lock_of(db.lock);
  result->holder_pid = db.lock.owner_pid;
  result->holder_tid = db.lock.owner_tid;
  result->nhs = static_cast<std::uint32_t>(db.nhs.size());
  result->tunnels = static_cast<std::uint32_t>(db.tunnels.size());
}

void tell(const Report &report, encap_finding_fn each, void *arg) {
  for (const Finding &found : report.findings) {
    encap_finding_t finding{};
    finding.severity = static_cast<std::uint32_t>(severity_of(found.kind));
    finding.nh = found.nh_index;
    finding.tunnel = found.tunnel;
    finding.address = found.address;
    finding.name = name_of(found.kind);
    finding.text = found.text.c_str();
    finding.repair = repair_of(found.kind);
    each(&finding, arg);
  }
}
static_assert(static_cast<int>(Severity::kNote) == ENCAP_FINDING_NOTE &&
              static_cast<int>(Severity::kPartial) == ENCAP_FINDING_DEATH &&
              static_cast<int>(Severity::kDamage) == ENCAP_FINDING_DAMAGE);

std::string not_still(const View &view, const Database &db) {
  if (view.stillness() == Stillness::kMoving) {
    return "the window was not still while it was read";
  }
  char who[vrellis::kProcessTextBytes] = "a process that cannot be told from here";
  if (db.lock.owner_pid != 0) {
    vrellis::describe_process(db.lock.owner_pid, who);
  }
  return std::string("the lock is held by ") + who + ", which may be in the middle of an operation";
}

int look(const encap_db_config_t *config, const encap_check_options_t &options, encap_finding_fn each, void *arg,
         encap_check_result_t *result) {
  if (!names_window(config)) {
    set_text(result, "a check needs a configuration that names a window, it has none");
    return EINVAL;
  }
  std::string error;
  const std::optional<View> view =
      View::open_patiently(config->directory, config->name, patience_of(options.patience_ms), &error);
  if (!view) {
    set_text(result, error);
    return status_of_file(*config);
  }
  const View settled = view->settled(nullptr);
  Database db = decode(settled);
  describe_window(db, result);
  const Report report = check(*view);
  if (view->stillness() == Stillness::kMoving || (view->stillness() == Stillness::kHeld && !report.sound())) {
    set_text(result, not_still(*view, db));
    return EAGAIN;
  }
  result->sound = report.sound() ? 1 : 0;
  result->findings = report.faults();
  result->from_death = report.of(Severity::kPartial);
  result->notes = report.of(Severity::kNote);
  set_text(result, report.sound() ? "the database is sound"
                                  : "the database has " + std::to_string(report.faults()) +
                                        " findings, the first: " + report.findings.front().text);
  if (each != nullptr) {
    tell(report, each, arg);
  }
  return 0;
}

constexpr std::uint32_t kKnownFlags = ENCAP_REPAIR_DRY_RUN | ENCAP_REPAIR_KEEP_EMPTY_TUNNELS |
                                      ENCAP_REPAIR_DROP_UNREFERENCED | ENCAP_REPAIR_DROP_GIVEN_BACK;

int mend_database(const encap_db_config_t *config, const encap_repair_options_t &given, encap_change_fn each, void *arg,
                  encap_repair_result_t *result) {
  if (!names_window(config) || (given.flags & ~kKnownFlags) != 0) {
    set_text(result, "a repair needs a configuration that names a window, and flags that it knows");
    return EINVAL;
  }
  RepairOptions options;
  options.keep_empty_tunnels = (given.flags & ENCAP_REPAIR_KEEP_EMPTY_TUNNELS) != 0;
  options.drop_unreferenced = (given.flags & ENCAP_REPAIR_DROP_UNREFERENCED) != 0;
  options.drop_given_back = (given.flags & ENCAP_REPAIR_DROP_GIVEN_BACK) != 0;
  options.patience = patience_of(given.patience_ms);
  const bool dry_run = (given.flags & ENCAP_REPAIR_DRY_RUN) != 0;
  const RepairResult done = dry_run ? rehearse_window(*config, options) : repair_window(*config, options);
  result->holder_pid = done.holder;
  result->changes = done.changes.size();
  result->before = done.before.faults();
  result->from_death = done.before.of(Severity::kPartial);
  result->after = done.after.faults();
  set_text(result, !done.error.empty() ? done.error
                                       : std::to_string(done.changes.size()) +
                                             (dry_run ? " changes would be made" : " changes were made"));
  for (const Change &change : done.changes) {
    const encap_change_t told{change.nh_index, change.tunnel, change.address, name_of(change.because),
                              change.text.c_str()};
    if (each != nullptr) {
      each(&told, arg);
    }
  }
  return done.status;
}

// Runs `work` on a result of its own, so that the caller's record gets no more than it has room for.
template <typename Result, typename Work>
int guarded(Result *out, Work work) noexcept {
  Result result{};
  int status = 0;
  try {
    status = work(&result);
  } catch (const std::bad_alloc &) {
    std::strcpy(result.text, "this process has no memory for the call");
    status = ENOMEM;
  } catch (...) {
    std::strcpy(result.text, "the C++ runtime failed");
    status = EIO;
  }
  write_record(result, out);
  return status;
}

}  // namespace
}  // namespace encap_inspect

using namespace encap_inspect;

int encap_db_check(const encap_db_config_t *config, const encap_check_options_t *options, encap_finding_fn each,
                   void *arg, encap_check_result_t *result) {
  return guarded(result, [&](encap_check_result_t *out) { return look(config, read_record(options), each, arg, out); });
}

int encap_db_repair(const encap_db_config_t *config, const encap_repair_options_t *options, encap_change_fn each,
                    void *arg, encap_repair_result_t *result) {
  return guarded(
      result, [&](encap_repair_result_t *out) { return mend_database(config, read_record(options), each, arg, out); });
}

int encap_db_deaths(const encap_db_config_t *config, uint64_t *deaths) {
  encap_check_result_t unused{};
  return guarded(&unused, [&](encap_check_result_t *) {
    std::string error;
    if (!names_window(config)) {
      return EINVAL;
    }
    const std::optional<View> head = View::open_head(path_of(*config).c_str(), &error);
    if (!head) {
      return status_of_file(*config);
    }
    const Database db = survey_header(*head).db;
    if (!db.window.is_window) {
      return EINVAL;
    }
    *deaths = deaths_in(db);
    return 0;
  });
}
