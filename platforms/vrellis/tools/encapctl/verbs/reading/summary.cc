// encapctl summary: the database in numbers.
#include <fmt/format.h>

#include <algorithm>
#include <bit>
#include <vector>

#include "verbs.h"
#include "window/window.h"

namespace encapctl {
namespace {

using encap_inspect::Database;

struct SummaryOptions {
  SourceOptions window;
  OutputOptions output;
};

// How many things have a count of low to high.
struct Bar {
  std::uint64_t low;
  std::uint64_t high;
  std::uint64_t things;
};

// Counts by powers of two: 0, 1, 2-3, 4-7, ...; up to the last that anything has.
class Histogram {
 public:
  void add(std::uint32_t count) {
    const auto bar = static_cast<std::size_t>(std::bit_width(count));
    bars_.resize(std::max(bars_.size(), bar + 1));
    ++bars_[bar];
  }

  std::vector<Bar> bars() const {
    std::vector<Bar> out;
    for (std::size_t bar = 0; bar < bars_.size(); ++bar) {
      const std::uint64_t low = bar == 0 ? 0 : std::uint64_t{1} << (bar - 1);
      out.push_back({low, bar == 0 ? 0 : 2 * low - 1, bars_[bar]});
    }
    return out;
  }

 private:
  std::vector<std::uint64_t> bars_;
};

struct Summary {
  std::uint64_t nhs = 0;
  std::uint64_t references = 0;
  std::uint64_t tunnels = 0;  // labelled ones
  std::uint64_t null_tunnels = 0;
  std::uint64_t null_tunnel_nhs = 0;
  std::uint32_t null_tunnel_count = 0;
  Histogram reference_counts;
  Histogram nhs_of_tunnel;
};

Summary summarise(const Database &db) {
  Summary sum;
  for (std::uint32_t index = db.nh_start; index != db.nh_end; ++index) {
    const egr_nh_info_t &slot = *db.nh_slot(index);
    if (slot.valid != 0) {
      ++sum.nhs;
      sum.references += slot.ref_count;
      sum.reference_counts.add(slot.ref_count);
    }
  }
  for (const encap_inspect::TunnelNode &tunnel : db.tunnels) {
    if (tunnel.egr_tun == 0) {
      ++sum.null_tunnels;
      sum.null_tunnel_nhs += tunnel.nh_count;
    } else {
      ++sum.tunnels;
      sum.nhs_of_tunnel.add(tunnel.nh_count);
    }
  }
  sum.null_tunnel_count = db.tunnel_slot(0)->ref_count;
  return sum;
}

Json bars_json(const Histogram &histogram) {
  Json bars = Json::array();
  for (const Bar &bar : histogram.bars()) {
    bars.push_back({{"low", bar.low}, {"high", bar.high}, {"count", bar.things}});
  }
  return bars;
}

void print_json(const Output &out, const Window &window, const Summary &sum) {
  const Database &db = window.db;
  out.object("summary",
             {{"path", window.view.path()},
              {"stillness", stillness_name(window)},
              {"nhs", {{"used", sum.nhs}, {"free", db.nh_slots() - sum.nhs}, {"references", sum.references}}},
              {"tunnels", {{"used", sum.tunnels}, {"free", db.tunnel_slots() - 1 - sum.tunnels}}},
              {"null_tunnel",
               {{"entries", sum.null_tunnels}, {"nhs", sum.null_tunnel_nhs}, {"ref_count", sum.null_tunnel_count}}},
              {"reference_counts", bars_json(sum.reference_counts)},
              {"nhs_per_tunnel", bars_json(sum.nhs_of_tunnel)},
              {"heap",
               {{"pages", db.heap.pages},
                {"pages_used", db.heap.pages - db.heap.free_pages},
                {"high_water", db.heap.high_water},
                {"nodes40", db.heap.nodes40},
                {"nodes56", db.heap.nodes56},
                {"arrays", db.heap.arrays},
                {"bad_releases", db.heap.bad_releases}}}});
}

void print_histogram(const Output &out, std::string_view title, const Histogram &histogram) {
  constexpr std::uint64_t kWidth = 40;
  const std::vector<Bar> bars = histogram.bars();
  std::uint64_t most = 1;
  for (const Bar &bar : bars) {
    most = std::max(most, bar.things);
  }
  out.line("\n{}", out.styled(Style::strong, title));
  for (const Bar &bar : bars) {
    const std::string range =
        bar.low == bar.high ? fmt::format("{}", bar.low) : fmt::format("{}-{}", bar.low, bar.high);
    out.line("  {:>13} {:>8}{}{:#<{}}", range, bar.things, bar.things == 0 ? "" : "  ", "",
             (bar.things * kWidth + most - 1) / most);
  }
}

void print_text(const Output &out, const Window &window, const Summary &sum) {
  const Database &db = window.db;
  const encap_inspect::HeapUse &heap = db.heap;
  out.fact("NHs", fmt::format("{} in use, {} free of {}; {} references", sum.nhs, db.nh_slots() - sum.nhs,
                              db.nh_slots(), sum.references));
  out.fact("tunnels", fmt::format("{} in use, {} free of {}", sum.tunnels, db.tunnel_slots() - 1 - sum.tunnels,
                                  db.tunnel_slots() - 1));
  out.fact("null tunnel", fmt::format("{} interfaces, {} NHs, counted {}", sum.null_tunnels, sum.null_tunnel_nhs,
                                      sum.null_tunnel_count));
  const std::uint64_t used = heap.pages - heap.free_pages;
  out.fact("window",
           fmt::format("{} of {} pages in use ({}), at most {} so far; {} NH nodes, {} tunnel nodes", used, heap.pages,
                       percent_text(used, heap.pages), heap.high_water, heap.nodes40, heap.nodes56));
  if (heap.bad_releases != 0) {
    out.fact("", out.styled(Style::bad, fmt::format("{} wrong or double releases caught", heap.bad_releases)));
  }
  print_histogram(out, "NHs by their references", sum.reference_counts);
  print_histogram(out, "Tunnels by their NHs", sum.nhs_of_tunnel);
}

int run(SummaryOptions &options) {
  const std::unique_ptr<Window> window = read_database(options.window);
  const Summary sum = summarise(window->db);
  const Output out(options.output);
  if (out.json()) {
    print_json(out, *window, sum);
  } else {
    print_text(out, *window, sum);
  }
  return kDone;
}

}  // namespace

void add_summary(CLI::App &app, int &status) {
  add_verb<SummaryOptions>(app, status, run, "summary",
                           "The database in numbers: counts, free indexes, histograms, window use",
                           "  encapctl summary\n  encapctl summary --file before-the-upgrade.snap --json");
}

}  // namespace encapctl
