// The allocator's bookkeeping, made right. Each store leaves what the next repair goes on from.
#include <algorithm>

#include "mend.h"
#include "shmwin/store.h"

namespace encap_inspect {
namespace {

using vrellis::load_word;
using vrellis::store_word;

std::uint32_t page_of(const Survey &survey, const Fault &fault) {
  return static_cast<std::uint32_t>((fault.address - survey.address_of(0, 0)) / vrellis::kPageBytes);
}

}  // namespace

void mend_block_not_taken(const Survey &survey, const Fault &fault) {
  const std::uint32_t page = page_of(survey, fault);
  vrellis::PageDescriptor &descriptor = survey.heap.page[page];
  const Reached &reached = survey.reached[page];
  const bool same_class = fault.found == fault.wanted;
  for (int word = 0; reached.cls >= 0 && word < 2; ++word) {
    store_word(descriptor.used[word], (same_class ? load_word(descriptor.used[word]) : 0) | reached.nodes[word]);
  }
  store_word(descriptor.state, fault.wanted);
}

void mend_page(const Survey &survey, const Fault &fault) {
  vrellis::PageDescriptor &descriptor = survey.heap.page[page_of(survey, fault)];
  const vrellis::PageKind kind = vrellis::page_kind(descriptor.state);
  const int cls = vrellis::class_of_kind(kind);
  for (int word = 0; cls >= 0 && word < 2; ++word) {
    store_word(descriptor.used[word], load_word(descriptor.used[word]) & vrellis::kClass[cls].all[word]);
  }
  store_word(descriptor.state, vrellis::page_state(cls >= 0 ? kind : vrellis::kFree));
}

void mend_hint(const Survey &survey, const Fault &fault) {
  vrellis::PageSet set = survey.page_set(static_cast<std::uint32_t>(fault.found));
  set.restore(page_of(survey, fault));
}

void mend_page_count(const Survey &survey, const Fault & /*fault*/) {
  vrellis::WindowHeader &header = *survey.heap.header;
  std::uint64_t used = 0;
  for (std::uint32_t page = 0; page < survey.heap.pages; ++page) {
    used += vrellis::is_free(survey.heap, page) ? 0U : 1U;
  }
  store_word(header.pages_used, used);
  store_word(header.high_water, std::clamp<std::uint64_t>(load_word(header.high_water), used, survey.heap.pages));
}

}  // namespace encap_inspect
