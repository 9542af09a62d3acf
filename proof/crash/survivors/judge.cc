#include "judge.h"

#include <algorithm>
#include <cstdio>

#include "repair/repair.h"

namespace crash {
namespace {

using encap_test::Model;

constexpr const char *kWrongLabels = "wrong labels";

// The sound databases that the interrupted operation passes through. What they answer is normal.
std::vector<Model> whole_states(const Expectation &expected) {
  const Operation &op = expected.interrupted().front();
  std::vector<Model> all{expected.before(), expected.after()};
  if (op.verb == Verb::kAttach) {  // entered, and its count not yet set
    all.push_back(expected.before());
    Operation insert = op;
    insert.verb = Verb::kInsert;
    on_model(all.back(), insert);
  }
  if (op.verb == Verb::kRelease) {  // counted down, and still linked
    all.push_back(expected.before());
    --all.back().nh(op.nh).count;
  }
  const encap_test::TunnelKey key = encap_test::tunnel_key(op.key);
  const bool had = expected.before().tunnels.contains(key);
  if (had != expected.after().tunnels.contains(key)) {  // the tunnel alone
    all.push_back(had ? expected.after() : expected.before());
    all.back().add_tunnel(expected.tunnel(), op.key);
  }
  return all;
}

// An answer in the words of the table.
class Words {
 public:
  explicit Words(const Expectation &expected) : expected_(expected), others_(keys_of_trials(expected)) {}

  std::string operator()(const Call &call) const {
    const Answer &is = call.is;
    const std::string status = std::to_string(is.status);
    switch (call.operation.verb) {
      case Verb::kFind:
      case Verb::kFindShare:
        return (is.status == 0 ? "" : status + ", ") + found(is.info);
      case Verb::kDetach:
        return status + (is.outs.second == 1 ? ", T goes" : "");
      case Verb::kRelease:
        return status + (is.outs.second == 1 ? ", the NH goes" : "") + (is.outs.third == 1 ? ", T goes" : "");
      case Verb::kRead:
        return is.status != 0 ? status : labels(is.key) + tunnel(is.aux.egr_tun);
      default:
        return status;
    }
  }

 private:
  std::string tunnel(std::uint32_t index) const {
    return index == expected_.tunnel() ? " on T" : index == 0 ? " on tunnel 0" : " on another tunnel";
  }
  std::string found(const egress_encap_info_t &info) const {
    if (info.tun_found == 0) {
      return "no tunnel";
    }
    const std::uint32_t n = expected_.interrupted().front().nh;
    const char *nh = info.nh_found == 0 ? "no NH" : info.egr_nh == n ? "N" : info.egr_nh == 0 ? "NH 0" : "another NH";
    return nh + tunnel(info.egr_tun);
  }
  std::string labels(const egress_encap_key_t &key) const {
    const encap_test::Bytes is = encap_test::bytes_of(key);
    const bool new_one = std::any_of(others_.begin(), others_.end(), [&](const egress_encap_key_t &other) {
      return encap_test::bytes_of(other) == is;
    });
    return new_one                                                           ? "its labels"
           : is == encap_test::bytes_of(expected_.interrupted().front().key) ? "K's labels"
                                                                             : kWrongLabels;
  }

  const Expectation &expected_;
  std::vector<egress_encap_key_t> others_;
};

// A caller that keeps the rules enters nothing at an index that is in use.
bool keeps_the_rules(const Model &model, const Operation &operation) {
  if (operation.verb != Verb::kInsert && operation.verb != Verb::kAttach) {
    return true;
  }
  const egress_encap_info_t &info = operation.info;
  const bool tunnel_free = info.tun_found != 0 || info.egr_tun == 0 || model.tunnel(info.egr_tun).valid == 0;
  return model.nh(operation.nh).valid == 0 && tunnel_free;
}

// Whether the survivor relies on what it was answered, so that later answers have to agree with it.
bool commits(const Call &call) {
  const Verb verb = call.operation.verb;
  return call.is.status == 0 && verb != Verb::kFind && verb != Verb::kRead && verb != Verb::kCanDelete;
}

// The models that give the same answer, with the operation made on them.
std::vector<Model> agree(const std::vector<Model> &models, const Call &call, bool repaired) {
  std::vector<Model> agreeing;
  for (const Model &model : models) {
    if (!keeps_the_rules(model, call.operation)) {
      continue;
    }
    Model after = model;
    const Answer should = on_model(after, call.operation);
    const bool emptied = repaired && call.operation.verb == Verb::kFind && call.is.info.tun_found == 0 &&
                         should.info.nh_found == 0;  // repair takes a tunnel without NHs out
    if (should == call.is || emptied) {
      agreeing.push_back(std::move(after));
    }
  }
  return agreeing;
}

}  // namespace

void Tally::fail(const std::string &text) {
  constexpr std::uint64_t kTold = 20;
  if (++failures <= kTold) {
    std::printf("FAILED after a death: %s\n", text.c_str());
    std::fflush(stdout);
  }
}

// Lets the services take back what a change of a tree left unfinished, as the next operation would.
Facts Judge::recover(const Image &image) const {
  window_.put(image);
  on_database({});
  return facts_of(expected_);
}

bool Judge::is_known(const Image &image) {
  recover(image);
  return !known_.insert(crash::hash_of(window_.image())).second;
}

void Judge::fail(const Survivor &survivor, const std::string &what) const {
  std::string calls, last;
  for (const Call &call : survivor.calls) {
    calls += call.name == last ? "" : (calls.empty() ? "" : ", ") + call.name;
    last = call.name;
  }
  tally_.fail(what + "\n  in: " + calls);
}

void Judge::play(const Image &image, std::size_t trial) {
  Survivor survivor(expected_, recover(image));
  window_.put(image);
  trials()[trial](survivor);
  const std::size_t before_repair = survivor.calls.size();
  if (before_repair == 0 || !repairs(survivor)) {
    return;
  }
  survivor.find("K after the repair", survivor.interrupted().key);
  const Call last = survivor.calls[before_repair - 1];
  if (last.operation.verb == Verb::kShare && last.is.status == 0) {
    survivor.on_nh(Verb::kDetach, "N after the repair", last.operation.nh);
  }
  for (const Operation &entered : survivor.entered) {
    survivor.find("the new NH after the repair", entered.key);
    survivor.on_nh(Verb::kRead, "the new NH after the repair", entered.nh);
  }
  compare_answers(survivor, before_repair);
}

// What the survivor's calls left is mended as the state alone would have been.
bool Judge::repairs(const Survivor &survivor) const {
  const encap_inspect::RepairResult repaired = encap_inspect::repair(kWindowId);
  std::string wrong = repaired.status != 0 ? repaired.error : text_of(repaired.after, Findings::kBeyondNotes);
  for (const encap_inspect::Finding &finding : repaired.before.findings) {
    if (encap_inspect::severity_of(finding.kind) == encap_inspect::Severity::kDamage) {
      wrong += "called damage, which no death leaves: " + finding.text + ' ';
    }
  }
  for (const auto &[key, nh] : expected_.untouched()) {
    const auto calls_it = [nh = nh](const Call &call) { return call.operation.nh == nh; };
    const egr_nh_info_t &slot = egress_encap_db->nh_info_array[nh - kNhStart];
    if (std::none_of(survivor.calls.begin(), survivor.calls.end(), calls_it) &&
        encap_test::bytes_of(slot) != expected_.before().nh(nh).image()) {
      wrong += "NH " + std::to_string(nh) + " of another process has changed ";
    }
  }
  wrong += encap_test::inconsistency(*egress_encap_db) + bad_releases();
  if (!wrong.empty()) {
    fail(survivor, std::string(text_of(survivor.facts.state)) + ": after a repair: " + wrong);
  }
  return wrong.empty();
}

void Judge::compare_answers(const Survivor &survivor, std::size_t before_repair) const {
  const Words words(expected_);
  std::vector<Model> possible = whole_states(expected_);
  for (std::size_t i = 0; i < survivor.calls.size(); ++i) {
    const Call &call = survivor.calls[i];
    const std::string answer = words(call);
    const std::vector<Model> agreeing = agree(possible, call, i >= before_repair);
    if (!agreeing.empty() && !answer.starts_with(kWrongLabels)) {
      possible = commits(call) ? agreeing : possible;
      continue;
    }
    const std::string row = std::string(text_of(survivor.facts.state)) + " | " + call.name + " | " + answer;
    if (const auto listed = answer_rows().find(row); listed != answer_rows().end()) {
      ++tally_.answered[std::distance(answer_rows().begin(), listed)];
    } else {
      fail(survivor, row);
    }
    if (call.operation.verb != Verb::kFind && call.operation.verb != Verb::kRead) {
      return;  // the caller knows that something is wrong
    }
  }
}

}  // namespace crash
