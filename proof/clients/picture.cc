#include "picture.h"

#include "records/layout.h"
#include "records/ledger.h"
#include "records/lookup.h"

namespace client_proof {
namespace {

using clients::at;
using clients::ClientRecord;
using clients::ClientRoot;
using clients::Holding;
using clients::IndexQueue;
using clients::Ledger;
using clients::QueuePage;

const ClientRoot &root() {
  return *reinterpret_cast<const ClientRoot *>(reinterpret_cast<const char *>(egress_encap_db) + clients::kRootOffset);
}

std::vector<std::uint32_t> waiting_in(const IndexQueue &queue) {
  std::vector<std::uint32_t> waiting;
  std::uint32_t place = queue.take;
  const auto *page = at<const QueuePage>(queue.oldest);
  while (waiting.size() < queue.waiting) {
    if (place == std::size(page->index)) {
      page = at<const QueuePage>(page->next);
      place = 0;
    }
    waiting.push_back(page->index[place++]);
  }
  return waiting;
}

void draw_client(const ClientRecord &record, Ledger &ledger, Picture &picture) {
  auto &held = picture.held[record.name];
  std::uint64_t sum = 0, fresh = 0;
  for (std::uint32_t number = 0; number < ledger.buckets; ++number) {
    clients::each_in(clients::bucket_at(ledger, number), [&](const Holding &holding) {
      const std::uint32_t own_fresh = clients::fresh_of(holding, ledger.epoch);
      held[holding.nh] = {holding.held, holding.held - own_fresh};
      sum += holding.held;
      fresh += own_fresh;
      if (clients::bucket_number(clients::hash_of(holding.nh), ledger.buckets) != number) {
        picture.wrong = "a holding lies in the wrong bucket";
      }
    });
  }
  if (held.size() != ledger.nhs || sum != ledger.held || fresh != ledger.fresh) {
    picture.wrong = std::string("the totals of ") + record.name + " are not the sums of its holdings";
  }
  if (record.process != 0) {
    picture.taken.insert(record.name);
  }
}

void draw_clients(Picture &picture) {
  if (root().magic != clients::kRootMagic) {
    return;
  }
  auto *const records = at<ClientRecord>(root().clients);
  for (int i = 0; i < ENCAP_CLIENT_MAX; ++i) {
    if (records[i].name[0] != '\0') {
      draw_client(records[i], *at<Ledger>(records[i].ledger), picture);
    }
  }
}

std::string wrong_counts(const Picture &picture) {
  std::map<std::uint32_t, std::uint32_t> sum = picture.others;
  for (const auto &[name, held] : picture.held) {
    for (const auto &[nh, counts] : held) {
      sum[nh] += counts.first;
    }
  }
  const std::uint32_t start = egress_encap_db->nh_start;
  for (std::uint32_t nh = start; nh < egress_encap_db->nh_end; ++nh) {
    const egr_nh_info_t &slot = clients::nh_slot(nh);
    if (slot.ref_count != sum[nh] || (slot.valid != 0) != (sum[nh] != 0)) {
      return "NH " + std::to_string(nh) + " counts " + std::to_string(slot.ref_count) +
             ", the ledgers and others hold " + std::to_string(sum[nh]);
    }
  }
  return "";
}

template <typename IsFree>
std::string wrong_indexes(const IndexQueue &queue, std::uint32_t start, Queues queues, IsFree is_free) {
  std::set<std::uint32_t> waiting;
  for (const std::uint32_t index : waiting_in(queue)) {
    if (!waiting.insert(index).second || index >= queue.fresh) {
      return "index " + std::to_string(index) + " waits twice, or was never given out";
    }
  }
  for (std::uint32_t index = start; queues != Queues::kOthersChoose && index < queue.end; ++index) {
    const bool queued = index >= queue.fresh || waiting.contains(index);
    if (index != 0 && (queued ? !is_free(index) : is_free(index) && queues == Queues::kWhole)) {
      return "index " + std::to_string(index) + (queued ? " is in use and free" : " is lost");
    }
  }
  return "";
}

}  // namespace

Picture draw() {
  Picture picture;
  picture.trees = encap_test::model_of(*egress_encap_db).tunnels;
  draw_clients(picture);
  const std::size_t nhs = egress_encap_db->nh_end - egress_encap_db->nh_start;
  const std::size_t tunnels = egress_encap_db->tun_end - egress_encap_db->tun_start + 1;
  picture.slots.assign(reinterpret_cast<const char *>(egress_encap_db->nh_info_array), nhs * sizeof(egr_nh_info_t));
  picture.slots.append(reinterpret_cast<const char *>(egress_encap_db->tun_info_array),
                       tunnels * sizeof(egr_tun_info_t));
  picture.waiting_nhs = waiting_in(root().nhs);
  picture.waiting_tunnels = waiting_in(root().tunnels);
  picture.fresh_nh = root().nhs.fresh;
  picture.fresh_tunnel = root().tunnels.fresh;
  return picture;
}

std::string contradiction(const Picture &picture, const crash::Window &window, Queues queues, crash::Findings which) {
  const std::string found = crash::findings_in(window, which);
  if (!found.empty() || root().magic != clients::kRootMagic) {
    return found;
  }
  for (const std::string &wrong :
       {picture.wrong, which == crash::Findings::kBlocks ? "" : wrong_counts(picture),
        wrong_indexes(root().nhs, egress_encap_db->nh_start, queues,
                      [](std::uint32_t nh) { return clients::nh_slot(nh).valid == 0; }),
        wrong_indexes(root().tunnels, egress_encap_db->tun_start, queues,
                      [](std::uint32_t tunnel) { return clients::tunnel_slot(tunnel).valid == 0; })}) {
    if (!wrong.empty()) {
      return wrong;
    }
  }
  return "";
}

std::string difference(const Picture &a, const Picture &b) {
  std::string text;
  const auto add = [&](bool same, const char *what) { text += same ? "" : std::string(" ") + what; };
  add(a.held == b.held, "holdings");
  add(a.trees == b.trees, "trees");
  add(a.slots == b.slots, "slots");
  add(a.waiting_nhs == b.waiting_nhs && a.fresh_nh == b.fresh_nh, "NH indexes");
  add(a.waiting_tunnels == b.waiting_tunnels && a.fresh_tunnel == b.fresh_tunnel, "tunnel indexes");
  add(a.taken == b.taken, "names");
  return text;
}

}  // namespace client_proof
