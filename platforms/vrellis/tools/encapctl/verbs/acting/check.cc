// encapctl check and repair: every inconsistency by name, and mending what a death left.
#include <fmt/format.h>

#include <cerrno>

#include "repair/repair.h"
#include "verbs.h"
#include "window/window.h"

namespace encapctl {
namespace {

using namespace encap_inspect;

struct CheckOptions {
  SourceOptions window;
  OutputOptions output;
  std::uint64_t limit = kNoLimit;
  bool notes = false;
};

struct RepairVerbOptions {
  OwnedWindowOptions window;
  OutputOptions output;
  RepairOptions repair;
  bool dry_run = false;
};

Json index_json(std::uint32_t index) {
  return index == kNoIndex ? Json(nullptr) : Json(index);
}

Json finding_json(const Finding &finding) {
  return {{"name", name_of(finding.kind)},      {"severity", name_of(severity_of(finding.kind))},
          {"nh", index_json(finding.nh_index)}, {"tunnel", index_json(finding.tunnel)},
          {"address", finding.address},         {"text", finding.text},
          {"repair", repair_of(finding.kind)}};
}

Style style_of(Severity severity) {
  return severity == Severity::kDamage ? Style::bad : severity == Severity::kNote ? Style::faint : Style::strong;
}

void print_finding(const Output &out, const Finding &finding) {
  if (out.json()) {
    out.object("finding", finding_json(finding));
    return;
  }
  const Severity severity = severity_of(finding.kind);
  out.line("{} {}", out.styled(style_of(severity), fmt::format("{} [{}]", name_of(finding.kind), name_of(severity))),
           finding.text);
}

constexpr std::chrono::seconds kPatience{5};  // for a moment between two operations, as of a snapshot

// What is found beside a process that may be in the middle of an operation says nothing yet.
int status_of(const Report &report) {
  if (report.stillness == Stillness::kMoving || (report.stillness == Stillness::kHeld && !report.sound())) {
    return kUnable;
  }
  return report.sound() ? kDone : kFindings;
}

std::string verdict(const Window &window, const Report &report) {
  if (report.stillness == Stillness::kMoving) {
    return fmt::format("{} was not still for {} s: nothing was checked", window.label, kPatience.count());
  }
  if (report.sound()) {
    return fmt::format("{} is sound: {} NHs, {} tunnels", window.label, window.db.nhs.size(), window.db.tunnels.size());
  }
  const std::string found = fmt::format("{}: {}", window.label, counted(report.faults(), "finding"));
  if (report.stillness == Stillness::kStill) {
    return found;
  }
  char who[vrellis::kProcessTextBytes] = "a process that cannot be told from here";
  if (window.db.lock.owner_pid != 0) {
    vrellis::describe_process(window.db.lock.owner_pid, who);
  }
  return fmt::format("{}, seen while the lock is held by {}, perhaps in the middle of an operation", found, who);
}

void print_verdict(const Output &out, const Window &window, const Report &report) {
  if (out.json()) {
    out.object("check", {{"path", window.view.path()},
                         {"stillness", stillness_name(window)},
                         {"looked", report.looked},
                         {"sound", report.sound()},
                         {"faults", report.faults()}});
  } else {
    out.line("{}", out.styled(report.sound() ? Style::good : Style::bad, verdict(window, report)));
  }
}

int run_check(CheckOptions &options) {
  const std::unique_ptr<Window> window = copy_window(options.window, kPatience);
  const Output out(options.output);
  const Report report = check(window->view);
  std::uint64_t shown = 0;
  std::uint64_t left = 0;
  for (const Finding &finding : report.findings) {
    if (severity_of(finding.kind) == Severity::kNote && !options.notes) {
      continue;
    }
    if (shown < options.limit) {
      print_finding(out, finding);
      ++shown;
    } else {
      ++left;
    }
  }
  if (left != 0 && !out.json()) {
    out.line("... and {} more", left);
  }
  print_verdict(out, *window, report);
  return status_of(report);
}

void print_change(const Output &out, const Change &change) {
  if (out.json()) {
    out.object("change", {{"because", name_of(change.because)},
                          {"nh", index_json(change.nh_index)},
                          {"tunnel", index_json(change.tunnel)},
                          {"address", change.address},
                          {"text", change.text}});
  } else {
    out.line("{} {}", out.styled(Style::strong, name_of(change.because)), change.text);
  }
}

int print_result(const Output &out, const RepairVerbOptions &options, const RepairResult &result) {
  for (const Change &change : result.changes) {
    print_change(out, change);
  }
  for (const Finding &finding : options.dry_run ? std::vector<Finding>{} : result.after.findings) {
    if (severity_of(finding.kind) != Severity::kNote) {
      print_finding(out, finding);
    }
  }
  const std::uint64_t left = result.after.faults();
  if (out.json()) {
    out.object("repair", {{"path", options.window.path()},
                          {"dry_run", options.dry_run},
                          {"changes", result.changes.size()},
                          {"faults_before", result.before.faults()},
                          {"faults_after", left},
                          {"sound", result.after.sound()}});
  } else if (options.dry_run) {
    out.line("dry run: {} would be made; {} and {} now; nothing was changed", counted(result.changes.size(), "change"),
             counted(result.before.faults(), "finding"), counted(result.before.of(Severity::kNote), "note"));
  } else {
    out.line("{}; {} before, {} after", counted(result.changes.size(), "change"),
             counted(result.before.faults(), "finding"), left);
  }
  return result.after.sound() ? kDone : kFindings;
}

int run_repair(RepairVerbOptions &options) {
  encap_db_config_t config{};
  config.directory = options.window.directory.c_str();
  config.name = options.window.name.c_str();
  trust(options.window.owner, &config);
  const RepairResult result =
      options.dry_run ? rehearse_window(config, options.repair) : repair_window(config, options.repair);
  if (result.status != 0 && result.status != EIO) {
    throw Failure(fmt::format("window '{}' cannot be repaired: {}", options.window.path(), result.error));
  }
  return print_result(Output(options.output), options, result);
}

}  // namespace

void add_check(CLI::App &app, int &status) {
  auto [verb, options] =
      add_verb<CheckOptions>(app, status, run_check, "check", "Every inconsistency of the database, by name",
                             "  encapctl check && echo sound\n  encapctl check --json | jq .name\n"
                             "Exit status: 0 sound; 1 findings; 2 could not look, or it would not hold still.");
  verb.add_flag("--notes", options.notes, "Also what is sound and worth knowing");
  add_limit_option(verb, options.limit, "Print the first N findings alone");
}

void add_repair(CLI::App &app, int &status) {
  auto [verb, options] = add_verb<RepairVerbOptions>(
      app, status, run_repair, "repair", "Mend what check finds, under the database's lock, while others run",
      "  encapctl repair --dry-run\n  encapctl repair\n"
      "Exit status: 0 sound now; 1 findings are left (of a dry run: there are some); 2 could not.");
  verb.add_flag("--dry-run", options.dry_run, "Tell what would be changed, and change nothing");
  verb.add_flag("--keep-empty-tunnels", options.repair.keep_empty_tunnels, "Leave tunnels without NHs where they are");
  verb.add_flag("--drop-unreferenced", options.repair.drop_unreferenced, "Take NHs with a count of 0 out as well");
  verb.add_flag("--drop-given-back", options.repair.drop_given_back,
                "Take the last NH of a tunnel that counts none out even if it has users");
}

}  // namespace encapctl
