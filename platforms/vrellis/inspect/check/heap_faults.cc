// The window's bookkeeping: page descriptors, blocks that nothing reaches, nodes in blocks that are free, hints.
#include <algorithm>
#include <iterator>

#include "faults.h"

namespace encap_inspect {
namespace {

using vrellis::PageDescriptor;

class HeapFaults {
 public:
  HeapFaults(const Survey &survey, Faults *faults) : survey_(survey), heap_(survey.heap), out_(*faults) {}

  void run() {
    for (const PageRange &array : survey_.arrays) {
      judge_array(array);
    }
    for (std::uint32_t page = 0; page < heap_.pages; ++page) {
      if (!is_of_array(page)) {
        judge_page(page);
      }
      judge_hints(page);
    }
    judge_orphans();
    judge_counts();
  }

 private:
  void add(FindingKind kind, Address address, std::uint64_t found = 0, std::uint64_t wanted = 0) {
    out_.all.push_back({kind, kNoIndex, kNoIndex, address, found, wanted, kNoNode});
  }

  Address page_address(std::uint32_t page) const { return survey_.address_of(page, 0); }

  bool is_of_array(std::uint32_t page) const { return survey_.arrays[0].has(page) || survey_.arrays[1].has(page); }

  void judge_array(const PageRange &array) {
    const std::uint64_t head = vrellis::page_state(vrellis::kRunHead, array.end - array.begin);
    for (std::uint32_t page = array.begin; page < array.end; ++page) {
      const std::uint64_t wanted = page == array.begin ? head : vrellis::page_state(vrellis::kRunTail, array.begin);
      if (heap_.page[page].state != wanted) {
        add(FindingKind::kBlockNotTaken, page_address(page), heap_.page[page].state, wanted);
      }
    }
  }

  // A run that is not one of the arrays, at its head. Returns: whether its pages are such as the allocator makes.
  bool is_whole_run(std::uint32_t head) const {
    const std::uint32_t length = vrellis::run_length(heap_, head);
    for (std::uint32_t page = head + 1; page < head + length; ++page) {
      if (heap_.page[page].state != vrellis::page_state(vrellis::kRunTail, head) || is_of_array(page)) {
        return false;
      }
    }
    return length != 0;
  }

  void judge_page(std::uint32_t page) {
    const PageDescriptor &descriptor = heap_.page[page];
    const Reached &reached = survey_.reached[page];
    const vrellis::PageKind kind = vrellis::page_kind(descriptor.state);
    const int cls = vrellis::class_of_kind(kind);
    if (reached.cls >= 0 && cls != reached.cls) {
      add(FindingKind::kBlockNotTaken, page_address(page), descriptor.state,
          vrellis::page_state(vrellis::kClass[reached.cls].kind));
      return;
    }
    if (cls >= 0) {
      judge_node_page(page, cls);
    } else if (kind > vrellis::kRunTail || (kind == vrellis::kRunHead && !is_whole_run(page))) {
      add(FindingKind::kHeapPage, page_address(page), descriptor.state);
    } else if (kind == vrellis::kRunHead && !survey_.client_page[page] && !survey_.clients_damaged) {
      add(FindingKind::kBlockUnreachable, page_address(page), descriptor.state);
    }
  }

  void judge_node_page(std::uint32_t page, int cls) {
    const PageDescriptor &descriptor = heap_.page[page];
    const vrellis::NodeClass &node = vrellis::kClass[cls];
    const bool bits_past_end = ((descriptor.used[0] & ~node.all[0]) | (descriptor.used[1] & ~node.all[1])) != 0;
    if (bits_past_end || vrellis::page_argument(descriptor.state) != 0) {
      add(FindingKind::kHeapPage, page_address(page), descriptor.state);
    }
    for (std::uint32_t word = 0; word < 2; ++word) {
      if ((survey_.reached[page].nodes[word] & ~descriptor.used[word]) != 0) {
        add(FindingKind::kBlockNotTaken, page_address(page), descriptor.state, descriptor.state);
        return;
      }
    }
  }

  void judge_hints(std::uint32_t page) {
    const PageDescriptor &descriptor = heap_.page[page];
    const bool belongs[] = {vrellis::has_room(descriptor, 0), vrellis::has_room(descriptor, 1),
                            vrellis::is_free(heap_, page)};
    for (std::uint32_t set = 0; set < std::size(belongs); ++set) {
      if (belongs[set] && !survey_.page_set(set).is_found(page)) {
        add(FindingKind::kHeapHint, page_address(page), set);
      }
    }
  }

  // But for those that come back into a tree.
  void judge_orphans() {
    std::vector<Address> adopted;
    for (const Fault &fault : out_.all) {
      if (fault.kind == FindingKind::kTreeLost && fault.address != 0) {
        adopted.push_back(fault.address);
      }
    }
    std::sort(adopted.begin(), adopted.end());
    for (const Orphan &orphan : survey_.orphans) {
      // A node of a tunnel's size may be a client's, if those cannot be followed.
      const bool may_be_a_clients = survey_.clients_damaged && orphan.cls == 1;
      if (!may_be_a_clients && !std::binary_search(adopted.begin(), adopted.end(), orphan.address)) {
        add(FindingKind::kBlockUnreachable, orphan.address, vrellis::kClass[orphan.cls].bytes);
      }
    }
  }

  void judge_counts() {
    const HeapUse &use = survey_.db.heap;
    const std::uint64_t used = use.pages - use.free_pages;
    if (use.pages_used != used || use.high_water < used || use.high_water > use.pages) {
      add(FindingKind::kHeapCount, 0, use.pages_used, used);
    }
  }

  const Survey &survey_;
  const vrellis::Heap &heap_;
  Faults &out_;
};

}  // namespace

void find_heap_faults(const Survey &survey, Faults *faults) {
  HeapFaults(survey, faults).run();
}

}  // namespace encap_inspect
