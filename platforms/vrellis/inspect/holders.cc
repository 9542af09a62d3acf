#include "holders.h"

#include <algorithm>
#include <cstring>

#include "records/layout.h"
#include "shmwin/process_table.h"

namespace encap_inspect {
namespace {

using namespace clients;

constexpr unsigned kMostSpills = 1U << 16;  // of one bucket; a longer chain is damaged

// A record of the window, which need not be aligned as this machine would have it: copied, or all 0.
template <typename Record>
Record record_at(const View &view, Address address) {
  Record record{};
  const void *const bytes = view.translate(address, sizeof(Record));
  if (bytes != nullptr) {
    std::memcpy(&record, bytes, sizeof record);
  }
  return record;
}

Bucket bucket_of(const View &view, const Ledger &ledger, std::uint32_t number) {
  if (number < kInlineBuckets) {
    return ledger.first[number];
  }
  const std::uint32_t behind = number - kInlineBuckets;
  const std::uint32_t segment = behind / kSegmentBuckets;
  if (segment / kDirectorySegments >= kDirectories) {
    return {};
  }
  const Address directory = ledger.directory[segment / kDirectorySegments];
  const auto page = record_at<Address>(view, directory + sizeof(Address) * (segment % kDirectorySegments));
  return directory == 0 || page == 0 ? Bucket{}
                                     : record_at<Bucket>(view, page + sizeof(Bucket) * (behind % kSegmentBuckets));
}

Holding find_in(const Holding *holding, std::uint32_t count, std::uint32_t nh) {
  const Holding *const end = holding + count;
  const Holding *const found =
      std::find_if(holding, end, [nh](const Holding &each) { return each.held != 0 && each.nh == nh; });
  return found != end ? *found : Holding{};
}

Holding holding_of(const View &view, const Ledger &ledger, std::uint32_t nh) {
  if (ledger.buckets == 0) {
    return {};
  }
  const Bucket bucket = bucket_of(view, ledger, bucket_number(hash_of(nh), ledger.buckets));
  Holding found = find_in(bucket.holding, std::min(bucket.used, kBucketHoldings), nh);
  Address at = bucket.spill;
  for (unsigned spills = 0; at != 0 && found.held == 0 && spills < kMostSpills; ++spills) {
    const auto spill = record_at<Spill>(view, at);
    found = find_in(spill.holding, kSpillHoldings, nh);
    at = spill.next;
  }
  return found;
}

ClientEntry entry_of(const View &view, const ClientRecord &record) {
  ClientEntry entry;
  entry.name.assign(record.name, strnlen(record.name, sizeof record.name));
  entry.pid = static_cast<std::uint32_t>(vrellis::pid_of_entry(record.process));
  entry.closed = record.process == 0;
  const auto *const header = static_cast<const vrellis::WindowHeader *>(view.at(0, sizeof(vrellis::WindowHeader)));
  if (view.is_live() && header != nullptr && !entry.closed) {
    entry.liveness = vrellis::liveness_of_entry(*header, record.process);
  }
  entry.since = record.since;
  entry.since_death = record.seen_dead != 0;
  entry.ledger = record.ledger;
  const auto ledger = record_at<Ledger>(view, record.ledger);
  entry.nhs = ledger.nhs;
  entry.held = ledger.held;
  entry.stale = ledger.held - std::min(ledger.fresh, ledger.held);
  std::copy_n(ledger.calls, entry.calls.size(), entry.calls.begin());
  return entry;
}

}  // namespace

std::vector<ClientEntry> clients_of(const View &view) {
  std::vector<ClientEntry> all;
  const auto root =
      record_at<ClientRoot>(view, view.base() + offsetof(vrellis::WindowHeader, user_area) + clients::kRootOffset);
  for (std::uint32_t i = 0; root.magic == kRootMagic && i < ENCAP_CLIENT_MAX; ++i) {
    const auto record = record_at<ClientRecord>(view, root.clients + sizeof(ClientRecord) * i);
    if (record.name[0] != '\0') {
      all.push_back(entry_of(view, record));
    }
  }
  return all;
}

std::vector<Holder> holders_of(const View &view, const std::vector<ClientEntry> &clients, std::uint32_t nh) {
  std::vector<Holder> holders;
  for (const ClientEntry &client : clients) {
    const auto ledger = record_at<Ledger>(view, client.ledger);
    const Holding holding = holding_of(view, ledger, nh);
    if (holding.held != 0) {
      holders.push_back(
          {client.name, holding.held, holding.held - std::min(fresh_of(holding, ledger.epoch), holding.held)});
    }
  }
  return holders;
}

}  // namespace encap_inspect
