// encapctl show: the NHs and the tunnels as tables.
#include <fmt/format.h>

#include <algorithm>
#include <optional>

#include "verbs.h"
#include "window/window.h"

namespace encapctl {
namespace {

using encap_inspect::Database;

struct ShowOptions {
  SourceOptions window;
  OutputOptions output;
  std::optional<std::uint32_t> ifh, label, index, tunnel, min_ref, max_ref, proto;
  std::string valid = "yes";
  std::string sort = "index";
  bool reverse = false;
  std::uint64_t limit = kNoLimit;
};

// One line of a table, with what it can be filtered and sorted by.
struct Entry {
  std::uint32_t index;
  std::uint32_t tunnel;
  std::uint32_t ifh;
  std::uint32_t ref_count;
  std::uint32_t nhs;
  std::array<std::uint32_t, 3> label;
  std::uint32_t protocol;
  bool valid;
  NhView nh;          // of an NH
  TunnelView egress;  // of a tunnel
};

Entry nh_entry(const Database &db, const NhView &nh) {
  const egr_nh_info_t &slot = *nh.slot;
  return {nh.index,        slot.egr_tun, slot.ifh, slot.ref_count, 0, labels_of(db, nh), slot.protocol,
          slot.valid != 0, nh,           {}};
}

Entry tunnel_entry(const TunnelView &tunnel) {
  const mpls_tunnel_key_t &key = tunnel.node->key;
  const bool has_slot = tunnel.slot != nullptr;
  return {tunnel.node->egr_tun,
          tunnel.node->egr_tun,
          key.ifh,
          has_slot ? tunnel.slot->ref_count : 0,
          tunnel.node->nh_count,
          {key.out_label2, key.out_label2, key.out_label3},
          0,
          has_slot && tunnel.slot->valid != 0,
          {},
          tunnel};
}

template <typename T>
bool passes(const std::optional<T> &wanted, T value) {
  return !wanted || *wanted == value;
}

bool passes(const ShowOptions &options, const Entry &entry) {
  const auto has_label = [&](std::uint32_t label) {
    return std::find(std::begin(entry.label), std::end(entry.label), label) != std::end(entry.label);
  };
  return passes(options.ifh, entry.ifh) && passes(options.index, entry.index) && passes(options.tunnel, entry.tunnel) &&
         passes(options.proto, entry.protocol) && (!options.label || has_label(*options.label)) &&
         entry.ref_count >= options.min_ref.value_or(0) && entry.ref_count <= options.max_ref.value_or(UINT32_MAX) &&
         (options.valid == "all" || entry.valid == (options.valid == "yes"));
}

struct SortKey {
  std::string_view name;
  std::uint32_t (*value)(const Entry &);
};
constexpr SortKey kSortKeys[] = {
    {"index", [](const Entry &entry) { return entry.index; }},
    {"ref", [](const Entry &entry) { return entry.ref_count; }},
    {"label", [](const Entry &entry) { return entry.label[0]; }},
    {"ifh", [](const Entry &entry) { return entry.ifh; }},
    {"tunnel", [](const Entry &entry) { return entry.tunnel; }},
    {"nhs", [](const Entry &entry) { return entry.nhs; }},
};

// Filters, sorts and cuts. Returns: how many passed the filters.
std::size_t select(const ShowOptions &options, std::vector<Entry> &entries) {
  std::erase_if(entries, [&](const Entry &entry) { return !passes(options, entry); });
  const auto key = std::find_if(std::begin(kSortKeys), std::end(kSortKeys),
                                [&](const SortKey &each) { return each.name == options.sort; });
  std::stable_sort(entries.begin(), entries.end(), [&](const Entry &a, const Entry &b) {
    return options.reverse ? key->value(b) < key->value(a) : key->value(a) < key->value(b);
  });
  const std::size_t found = entries.size();
  entries.resize(std::min<std::uint64_t>(found, options.limit));
  return found;
}

std::string tunnel_name(std::uint32_t index) {
  return index == 0 ? "null" : fmt::format("{}", index);
}

// "P": protected TE, "F": failover NH, "L": L2VPN preferred path, "!": no node in the trees agrees with the slot.
std::string letters_of(const NhView &nh) {
  std::string letters;
  letters += nh.slot->is_protected_te_nh != 0 ? "P" : "";
  letters += nh.slot->is_failover_nh != 0 ? "F" : "";
  letters += nh.slot->is_l2vpn_pref_path != 0 ? "L" : "";
  letters += nh.slot->valid != 0 && nh.node == nullptr ? "!" : "";
  return letters.empty() ? "-" : letters;
}

std::vector<std::string> nh_cells(const Window &window, const Entry &entry) {
  const egr_nh_info_t &slot = *entry.nh.slot;
  const bool no_failover = slot.failover_nh == 0 && slot.failover_id == 0;
  return {fmt::format("{}", entry.index),
          fmt::format("{}", entry.ref_count),
          tunnel_name(entry.tunnel),
          fmt::format("{:#x}", entry.ifh),
          stack_text(window.db, entry.nh),
          fmt::format("{}", std::uint32_t{slot.te_local_label}),
          fmt::format("{}", entry.protocol),
          letters_of(entry.nh),
          fmt::format("{}", slot.seed_nh),
          no_failover ? "-" : fmt::format("{}/{}", slot.failover_nh, std::uint32_t{slot.failover_id}),
          holders_text(window, entry.nh)};
}

std::vector<std::string> tunnel_cells(const Entry &entry) {
  return {tunnel_name(entry.index), fmt::format("{:#x}", entry.ifh), stack_text(entry.egress.node->key),
          fmt::format("{}", entry.ref_count), fmt::format("{}", entry.nhs)};
}

// What differs between the two tables.
struct Listing {
  std::string_view kind;
  std::string_view plural;
  Table table;
  std::vector<Entry> entries;
};

int print(const ShowOptions &options, const Window &window, Listing listing) {
  const std::size_t matched = select(options, listing.entries);
  const Output out(options.output);
  for (const Entry &entry : listing.entries) {
    const bool is_nh = entry.nh.slot != nullptr;
    const bool sound = entry.valid ? !is_nh || entry.nh.node != nullptr : is_nh;
    if (out.json()) {
      out.object(listing.kind, is_nh ? nh_json(window, entry.nh) : tunnel_json(entry.egress));
    } else {
      listing.table.row(is_nh ? nh_cells(window, entry) : tunnel_cells(entry), sound ? Style::plain : Style::bad);
    }
  }
  const std::size_t shown = listing.entries.size();
  if (out.json()) {
    out.object(
        "show",
        {{"path", window.view.path()}, {"stillness", stillness_name(window)}, {"shown", shown}, {"matched", matched}});
  } else {
    listing.table.print(out);
    const std::string count = shown == matched ? fmt::format("{}", shown) : fmt::format("{} of {}", shown, matched);
    out.line("{}", out.styled(Style::faint, fmt::format("{} {}", count, listing.plural)));
  }
  return matched != 0 ? kDone : kFindings;
}

int show_nhs(ShowOptions &options) {
  const std::unique_ptr<Window> window = read_database(options.window);
  const Database &db = window->db;
  Listing listing{"nh",
                  "NHs",
                  {{"NH"},
                   {"refs"},
                   {"tunnel"},
                   {"interface"},
                   {"labels", Align::left},
                   {"te"},
                   {"proto"},
                   {"flags", Align::left},
                   {"seed"},
                   {"failover"},
                   {"held by", Align::left}},
                  {}};
  for (std::uint32_t index = db.nh_start; index != db.nh_end; ++index) {
    listing.entries.push_back(nh_entry(db, nh_at(db, index)));
  }
  return print(options, *window, std::move(listing));
}

int show_tunnels(ShowOptions &options) {
  const std::unique_ptr<Window> window = read_database(options.window);
  Listing listing{"tunnel",
                  "tunnels; the null tunnel's entries share one count",
                  {{"tunnel"}, {"interface"}, {"labels", Align::left}, {"refs"}, {"NHs"}},
                  {}};
  for (std::uint32_t number = 0; number < window->db.tunnels.size(); ++number) {
    listing.entries.push_back(tunnel_entry(tunnel_at(window->db, number)));
  }
  return print(options, *window, std::move(listing));
}

void add_filters(CLI::App &verb, ShowOptions &options, const std::vector<std::string> &sort_keys) {
  verb.add_option("--ifh", options.ifh, "Of this interface handle (0x.. is hexadecimal)")->type_name("IFH");
  verb.add_option("--label", options.label, "With this label anywhere in the stack")->type_name("LABEL");
  verb.add_option("--index", options.index, "With this index")->type_name("N");
  verb.add_option("--valid", options.valid, "Slots that are in use, that are not, or all")
      ->check(CLI::IsMember({"yes", "no", "all"}))
      ->capture_default_str();
  verb.add_option("--min-ref", options.min_ref, "With at least so many references")->type_name("N");
  verb.add_option("--max-ref", options.max_ref, "With at most so many references")->type_name("N");
  verb.add_option("--sort", options.sort, "Order")->check(CLI::IsMember(sort_keys))->capture_default_str();
  verb.add_flag("--reverse", options.reverse, "The other way round");
  add_limit_option(verb, options.limit, "Print the first N alone");
}

}  // namespace

void add_show(CLI::App &app, int &status) {
  CLI::App &show = add_command(app, "show", "Tables of NHs or tunnels, filtered and sorted",
                               "  encapctl show nhs --min-ref 2 --sort ref --reverse --limit 10\n"
                               "  encapctl show tunnels --ifh 0x1000001");
  show.require_subcommand(1);
  auto [nhs, of_nhs] =
      add_verb<ShowOptions>(show, status, show_nhs, "nhs", "NHs by index; exit status 1 when none passes the filters",
                            "  encapctl show nhs --tunnel 101\n"
                            "  encapctl show nhs --label 16001 --json\n"
                            "Flags: P protected TE, F failover NH, L L2VPN preferred path, ! in no tree.");
  add_filters(nhs, of_nhs, {"index", "ref", "label", "ifh", "tunnel"});
  nhs.add_option("--tunnel", of_nhs.tunnel, "On this tunnel; 0 is the null tunnel")->type_name("N");
  nhs.add_option("--proto", of_nhs.proto, "With this protocol code")->type_name("CODE");

  auto [tunnels, of_tunnels] = add_verb<ShowOptions>(show, status, show_tunnels, "tunnels",
                                                     "Tunnels; exit status 1 when none passes the filters",
                                                     "  encapctl show tunnels --sort nhs --reverse --limit 5");
  add_filters(tunnels, of_tunnels, {"index", "ref", "label", "ifh", "nhs"});
}

}  // namespace encapctl
