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

// From the top, as the allocator does it.
void mend_hint(const Survey &survey, const Fault &fault) {
  const std::uint64_t offset = sizeof(vrellis::WindowHeader) + fault.found * survey.shape.set_bytes;
  auto *const words = const_cast<std::uint64_t *>(
      static_cast<const std::uint64_t *>(survey.view().at(offset, survey.shape.set_bytes, 8)));
  std::uint64_t *level[vrellis::kMaxLevels] = {};
  int depth = 0;
  std::uint64_t count = survey.shape.pages;
  for (std::uint64_t *next = words; depth == 0 || count > 1; next += count) {
    count = vrellis::words_above(count);
    level[depth++] = next;
  }
  for (int i = depth - 1; i >= 0; --i) {
    const std::uint64_t index = std::uint64_t{page_of(survey, fault)} >> 6 * i;
    // NOLINTNEXTLINE(clang-analyzer-core.NullDereference): the sets lie in the window, whose shape they come from
    std::uint64_t &word = level[i][index / 64];
    store_word(word, load_word(word) | std::uint64_t{1} << index % 64);
  }
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
