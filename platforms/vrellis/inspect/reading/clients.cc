// The clients of a database: the blocks that they keep in the window, and their ledgers beside the counts.
#include <cstring>

#include "records/layout.h"
#include "survey.h"

namespace encap_inspect {
namespace {

using clients::Bucket;
using clients::ClientRecord;
using clients::ClientRoot;
using clients::Holding;
using clients::IndexQueue;
using clients::Ledger;
using clients::QueuePage;
using clients::Spill;

// Follows what clients refer to, and marks each block once. What cannot be a block of theirs is not followed.
class ClientWalk {
 public:
  explicit ClientWalk(Survey &survey) : survey_(survey), view_(survey.view()) {
    survey.client_page.resize(survey.shape.pages);
  }

  void run() {
    const Address user_area = survey_.db.window.address + offsetof(vrellis::WindowHeader, user_area);
    const auto *root = view_.record<ClientRoot>(user_area + clients::kRootOffset);
    if (root == nullptr || root->magic != clients::kRootMagic) {
      return;
    }
    const auto *records = page<ClientRecord[ENCAP_CLIENT_MAX]>(root->clients);
    for (int i = 0; records != nullptr && i < ENCAP_CLIENT_MAX; ++i) {
      if ((*records)[i].name[0] != '\0') {
        follow_ledger((*records)[i].ledger);
      }
    }
    follow_queue(root->nhs);
    follow_queue(root->tunnels);
  }

 private:
  const void *damaged() {
    survey_.clients_damaged = true;
    return nullptr;
  }

  // The page of the heap at `address`, marked. Returns: nullptr when it is none, or was marked before.
  template <typename Record>
  const Record *page(Address address) {
    static_assert(sizeof(Record) == vrellis::kPageBytes);
    const std::uint64_t offset = address - survey_.address_of(0, 0);
    const std::uint64_t number = offset / vrellis::kPageBytes;
    const bool is_page = offset % vrellis::kPageBytes == 0 && number < survey_.shape.pages;
    if (!is_page || survey_.client_page[number] || survey_.reached[number].cls >= 0) {
      return static_cast<const Record *>(damaged());
    }
    survey_.client_page[number] = true;
    return static_cast<const Record *>(view_.translate(address, sizeof(Record)));
  }

  const Spill *spill(Address address) {
    if (reach_node(survey_, address, 1) != Claim::kNew) {
      return static_cast<const Spill *>(damaged());
    }
    return view_.record<Spill>(address);
  }

  void add(const Holding &holding) {
    const Database &db = survey_.db;
    if (holding.nh < db.nh_start || holding.nh >= db.nh_end) {
      damaged();
      return;
    }
    survey_.client_references.resize(db.nh_end - db.nh_start);
    survey_.client_references[holding.nh - db.nh_start] += holding.held;
  }

  void follow_bucket(const Bucket &bucket) {
    if (bucket.used > clients::kBucketHoldings) {
      damaged();
      return;
    }
    for (std::uint32_t i = 0; i < bucket.used; ++i) {
      add(bucket.holding[i]);
    }
    for (Address at = bucket.spill; at != 0;) {
      const Spill *const more = spill(at);
      if (more == nullptr) {
        return;
      }
      for (const Holding &holding : more->holding) {
        if (holding.held != 0) {
          add(holding);
        }
      }
      at = more->next;
    }
  }

  // The buckets of a segment, as many as there are left.
  void follow_segment(Address address, std::uint32_t *left) {
    const auto *const segment = page<Bucket[clients::kSegmentBuckets]>(address);
    for (std::uint32_t i = 0; segment != nullptr && i<clients::kSegmentBuckets && * left> 0; ++i, --*left) {
      follow_bucket((*segment)[i]);
    }
  }

  void follow_directory(Address address, std::uint32_t *left) {
    const auto *const directory = page<Address[clients::kDirectorySegments]>(address);
    for (std::uint32_t i = 0; directory != nullptr && i < clients::kDirectorySegments; ++i) {
      if ((*directory)[i] != 0) {
        follow_segment((*directory)[i], left);
      }
    }
  }

  void follow_ledger(Address address) {
    const auto *const ledger = page<Ledger>(address);
    if (ledger == nullptr) {
      return;
    }
    for (const Bucket &bucket : ledger->first) {
      follow_bucket(bucket);
    }
    std::uint32_t left = ledger->buckets > clients::kInlineBuckets ? ledger->buckets - clients::kInlineBuckets : 0;
    for (const Address directory : ledger->directory) {
      if (directory != 0) {
        follow_directory(directory, &left);
      }
    }
    if (left != 0) {
      damaged();
    }
  }

  void follow_queue(const IndexQueue &queue) {
    for (Address at = queue.oldest; at != 0;) {
      const auto *const indexes = page<QueuePage>(at);
      at = indexes != nullptr ? indexes->next : 0;
    }
  }

  Survey &survey_;
  const View &view_;
};

}  // namespace

void survey_clients(Survey &survey) {
  ClientWalk(survey).run();
}

}  // namespace encap_inspect
