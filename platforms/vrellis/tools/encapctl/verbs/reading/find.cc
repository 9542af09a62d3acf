// encapctl find: what is known of an encapsulation: its entry, its tunnel, its counts, the last records about it.
#include <fmt/format.h>

#include <algorithm>
#include <charconv>

#include "trace/window_traces.h"
#include "verbs.h"

namespace encapctl {
namespace {

using encap_inspect::Database;
using encap_inspect::NhNode;
using encap_inspect::TunnelNode;

struct FindOptions {
  SourceOptions window;
  TraceOptions traces;
  OutputOptions output;
  std::vector<std::string> terms;
  std::uint64_t limit = 5;
  std::uint64_t records = 8;
};

// What a term compares. `of_nh` is 0 for a field of the tunnel's key alone.
struct Field {
  std::string_view name;
  std::uint32_t (*of_nh)(const NhNode &nh);
  std::uint32_t (*of_tunnel)(const TunnelNode &tunnel);
};
constexpr Field kFields[] = {
    {"nh", [](const NhNode &nh) { return nh.nh_index; }, nullptr},
    {"label1", [](const NhNode &nh) -> std::uint32_t { return nh.key.out_label1; }, nullptr},
    {"te", [](const NhNode &nh) -> std::uint32_t { return nh.key.te_local_label; }, nullptr},
    {"proto", [](const NhNode &nh) -> std::uint32_t { return nh.key.protocol; }, nullptr},
    {"failover", [](const NhNode &nh) -> std::uint32_t { return nh.key.is_failover_nh; }, nullptr},
    {"l2vpn", [](const NhNode &nh) -> std::uint32_t { return nh.key.is_l2vpn_pref_path; }, nullptr},
    {"tun", nullptr, [](const TunnelNode &tunnel) { return tunnel.egr_tun; }},
    {"label2", nullptr, [](const TunnelNode &tunnel) -> std::uint32_t { return tunnel.key.out_label2; }},
    {"label3", nullptr, [](const TunnelNode &tunnel) -> std::uint32_t { return tunnel.key.out_label3; }},
    {"ifh", nullptr, [](const TunnelNode &tunnel) { return tunnel.key.ifh; }},
};

struct Term {
  const Field *field;
  std::uint32_t value;
};

Term parse_term(const std::string &text) {
  const std::size_t equals = std::min(text.find('='), text.size());
  const auto field = std::find_if(std::begin(kFields), std::end(kFields),
                                  [&](const Field &each) { return each.name == text.substr(0, equals); });
  Term term{field, 0};
  const bool hexadecimal = text.compare(equals, 3, "=0x") == 0;
  const char *const digits = text.data() + std::min(equals + (hexadecimal ? 3 : 1), text.size());
  const char *const end = text.data() + text.size();
  const auto [stop, problem] = std::from_chars(digits, end, term.value, hexadecimal ? 16 : 10);
  if (field == std::end(kFields) || problem != std::errc{} || stop != end) {
    throw Failure(
        fmt::format("'{}' is no KEY: one is nh, tun, label1, label2, label3, ifh, te, proto, failover or "
                    "l2vpn, '=' and a number",
                    text));
  }
  return term;
}

bool matches(const std::vector<Term> &terms, const TunnelNode &tunnel) {
  return std::all_of(terms.begin(), terms.end(), [&](const Term &term) {
    return term.field->of_tunnel == nullptr || term.field->of_tunnel(tunnel) == term.value;
  });
}

bool matches(const std::vector<Term> &terms, const NhNode &nh) {
  return std::all_of(terms.begin(), terms.end(), [&](const Term &term) {
    return term.field->of_nh == nullptr || term.field->of_nh(nh) == term.value;
  });
}

// The trace records of the attached processes, or of all, read when the first is asked for.
class Records {
 public:
  Records(const Window &window, const FindOptions &options) : window_(window), options_(options) {}

  // The newest about an NH or a tunnel, oldest first.
  std::vector<vrellis::TraceRecord> about(std::optional<std::uint32_t> nh, std::optional<std::uint32_t> tunnel) {
    if (!read_) {
      files_ = options_.traces.all ? open_traces(options_.traces, [](const auto &, uid_t) { return true; })
                                   : traces_of(attached_to(window_), options_.traces);
      events_ = vrellis::merge_traces(files_).events;
      read_ = true;
    }
    RecordFilter filter;
    filter.nh = nh;
    filter.tunnel = tunnel;
    filter.since_ns = static_cast<std::int64_t>(window_.db.window.created);
    std::vector<vrellis::TraceRecord> found;
    for (auto event = events_.rbegin(); event != events_.rend() && found.size() < options_.records; ++event) {
      if (filter.admits(*event)) {
        found.push_back(*event);
      }
    }
    std::reverse(found.begin(), found.end());
    return found;
  }

 private:
  const Window &window_;
  const FindOptions &options_;
  TraceFiles files_;
  std::vector<vrellis::TraceRecord> events_;
  bool read_ = false;
};

Json events_json(const std::vector<vrellis::TraceRecord> &events) {
  Json all = Json::array();
  for (const vrellis::TraceRecord &event : events) {
    all.push_back(event_json(event));
  }
  return all;
}

void print_events(const Output &out, const std::vector<vrellis::TraceRecord> &events) {
  out.fact("records", events.empty() ? "none in the trace files of the attached processes (see --all-traces)"
                                     : fmt::format("the last {}:", events.size()));
  for (const vrellis::TraceRecord &event : events) {
    out.line("  {}", out.styled(is_error(event) ? Style::bad : Style::plain, event_text(event)));
  }
}

std::string tunnel_text(const Database &db, std::uint32_t number) {
  const TunnelView tunnel = tunnel_at(db, number);
  const std::string name = tunnel.node->egr_tun == 0 ? "null" : fmt::format("{}", tunnel.node->egr_tun);
  return fmt::format("{}: interface {:#x}, labels {}, {} NHs, counted {}", name, tunnel.node->key.ifh,
                     stack_text(tunnel.node->key), tunnel.node->nh_count,
                     tunnel.slot != nullptr ? tunnel.slot->ref_count : 0);
}

void print_nh(const Output &out, const Window &window, const NhView &nh, Records &records) {
  const Database &db = window.db;
  const std::vector<vrellis::TraceRecord> events = records.about(nh.index, std::nullopt);
  if (out.json()) {
    Json fields = nh_json(window, nh);
    fields["egress"] = nh.node != nullptr ? tunnel_json(tunnel_at(db, nh.node->tunnel)) : Json(nullptr);
    fields["records"] = events_json(events);
    out.object("encapsulation", fields);
    return;
  }
  const egr_nh_info_t &slot = *nh.slot;
  const bool found = slot.valid != 0;
  out.line("{}", out.styled(Style::strong, fmt::format("NH {}{}", nh.index, found ? "" : ": free")));
  if (found) {
    out.fact("labels", stack_text(db, nh));
    out.fact("references", fmt::format("{}", slot.ref_count));
    out.fact("held by", holders_text(window, nh));
    out.fact("tunnel", nh.node != nullptr ? tunnel_text(db, nh.node->tunnel)
                                          : fmt::format("{}, but no tree has this NH: see encapctl check",
                                                        std::uint32_t{slot.egr_tun}));
    out.fact("key", fmt::format("te {}, proto {}, failover {}, l2vpn {}", std::uint32_t{slot.te_local_label},
                                std::uint32_t{slot.protocol}, std::uint32_t{slot.is_failover_nh},
                                std::uint32_t{slot.is_l2vpn_pref_path}));
    out.fact("data",
             fmt::format("seed_nh {}, failover_nh {}, failover_id {}, protected_te {}", slot.seed_nh, slot.failover_nh,
                         std::uint32_t{slot.failover_id}, std::uint32_t{slot.is_protected_te_nh}));
  }
  print_events(out, events);
}

void print_tunnel(const Output &out, const Database &db, std::uint32_t number, Records &records) {
  const TunnelNode &node = db.tunnels[number];
  const std::vector<vrellis::TraceRecord> events = records.about(std::nullopt, node.egr_tun);
  Json nhs = Json::array();
  std::string indexes;
  constexpr std::uint32_t kNamed = 8;
  for (std::uint32_t i = 0; i < node.nh_count; ++i) {
    const std::uint32_t index = db.nhs[node.first_nh + i].nh_index;
    nhs.push_back(index);
    indexes += i < kNamed ? fmt::format("{}{}", i == 0 ? "" : " ", index) : i == kNamed ? " ..." : "";
  }
  if (out.json()) {
    Json fields = tunnel_json(tunnel_at(db, number));
    fields["nh_indexes"] = nhs;
    fields["records"] = events_json(events);
    out.object("egress_tunnel", fields);
    return;
  }
  out.line("{}", out.styled(Style::strong, fmt::format("tunnel {}", tunnel_text(db, number))));
  out.fact("NHs", indexes.empty() ? "none" : indexes);
  print_events(out, events);
}

// What the terms name, as numbers of things to print; a free NH when it is named by its index.
struct Found {
  std::vector<std::uint32_t> nhs;      // indexes
  std::vector<std::uint32_t> tunnels;  // numbers in Database::tunnels
};

// By an index alone: what the slot says, without a look at the trees.
bool find_by_slot(const Database &db, const std::vector<Term> &terms, Found &found) {
  if (terms.size() != 1 || terms[0].field->name != "nh") {
    return false;
  }
  if (!db.nh_in_range(terms[0].value)) {
    throw Failure(fmt::format("NH index {} is out of the range {} to {}", terms[0].value, db.nh_start,
                              std::int64_t{db.nh_end} - 1));
  }
  found.nhs.push_back(terms[0].value);
  return true;
}

Found find(const Database &db, const std::vector<Term> &terms) {
  Found found;
  if (find_by_slot(db, terms, found)) {
    return found;
  }
  const bool tunnels_alone =
      std::all_of(terms.begin(), terms.end(), [](const Term &term) { return term.field->of_nh == nullptr; }) &&
      std::any_of(terms.begin(), terms.end(), [](const Term &term) { return term.field->name == "tun"; });
  for (std::uint32_t number = 0; number < db.tunnels.size(); ++number) {
    const TunnelNode &tunnel = db.tunnels[number];
    if (!matches(terms, tunnel)) {
      continue;
    }
    if (tunnels_alone) {
      found.tunnels.push_back(number);
      continue;
    }
    for (std::uint32_t i = tunnel.first_nh; i < tunnel.first_nh + tunnel.nh_count; ++i) {
      if (matches(terms, db.nhs[i]) && db.nh_in_range(db.nhs[i].nh_index)) {
        found.nhs.push_back(db.nhs[i].nh_index);
      }
    }
  }
  return found;
}

int run(FindOptions &options) {
  std::vector<Term> terms;
  std::transform(options.terms.begin(), options.terms.end(), std::back_inserter(terms), parse_term);
  const std::unique_ptr<Window> window = read_database(options.window);
  const Database &db = window->db;
  const Found found = find(db, terms);
  const Output out(options.output);
  Records records(*window, options);
  std::uint64_t shown = 0;
  for (std::size_t i = 0; i < found.nhs.size() && shown < options.limit; ++i, ++shown) {
    print_nh(out, *window, nh_at(db, found.nhs[i]), records);
  }
  for (std::size_t i = 0; i < found.tunnels.size() && shown < options.limit; ++i, ++shown) {
    print_tunnel(out, db, found.tunnels[i], records);
  }
  const std::size_t all = found.nhs.size() + found.tunnels.size();
  if (out.json()) {
    out.object(
        "find",
        {{"path", window->view.path()}, {"stillness", stillness_name(*window)}, {"shown", shown}, {"matched", all}});
  } else if (all > shown) {
    out.line("{} of {} shown: narrow the search, or raise --limit", shown, all);
  }
  if (all == 0) {
    warn("nothing in the database matches");
  }
  const bool free_slot = terms.size() == 1 && found.nhs.size() == 1 && db.nh_slot(found.nhs[0])->valid == 0;
  return all == 0 || free_slot ? kFindings : kDone;
}

}  // namespace

void add_find(CLI::App &app, int &status) {
  auto [verb, options] = add_verb<FindOptions>(
      app, status, run, "find", "An encapsulation by key or index: entry, tunnel, counts, last trace records",
      "  encapctl find nh=4711\n"
      "  encapctl find label1=16001 label2=200 ifh=0x1000000\n"
      "  encapctl find tun=101\n"
      "What is not named may be anything. Exit status 1: nothing matches, or the NH is free.");
  verb.add_option("key", options.terms,
                  "nh=, tun=, label1=, label2=, label3=, ifh=, te=, proto=, failover=, l2vpn= and a number")
      ->type_name("KEY")
      ->required();
  add_limit_option(verb, options.limit, "Show at most N of what matches");
  verb.get_option("--limit")->capture_default_str();
  verb.add_option("--records", options.records, "Trace records of each")->type_name("N")->capture_default_str();
}

}  // namespace encapctl
