#include <cstdlib>
#include <cstring>

#include "avl/link.h"
#include "survey.h"

namespace encap_inspect {

Claim reach_node(Survey &survey, Address address, int cls) {
  vrellis::Place place{};
  if (!find_place(survey, address, cls, &place)) {
    return Claim::kOutside;
  }
  Reached &reached = survey.reached[place.page];
  if (reached.cls >= 0 && reached.cls != cls) {
    return Claim::kOutside;
  }
  reached.cls = static_cast<std::int8_t>(cls);
  std::uint64_t &word = reached.nodes[place.slot / 64];
  const std::uint64_t bit = std::uint64_t{1} << place.slot % 64;
  if ((word & bit) != 0) {
    return Claim::kAgain;
  }
  word |= bit;
  return Claim::kNew;
}

namespace {

using vrellis::avl::Link;

// An AVL tree of 2^32 nodes is 46 high: what is deeper is none.
constexpr int kMaxDepth = 64;
constexpr int kUnknownHeight = -1;
constexpr std::size_t kKeyBytes[] = {sizeof(mpls_nh_key_t), sizeof(mpls_tunnel_key_t)};

struct Frame {
  Address address;
  Link link;
  int height[2];
  unsigned side;  // whose turn it is; 2: both are done
};

class Walk {
 public:
  Walk(Survey &survey, int cls, std::uint32_t tree, std::vector<Address> *nodes)
      : survey_(survey), cls_(cls), tree_(tree), nodes_(nodes) {}

  void run(Address field) {
    Address root = 0;
    const void *word = survey_.view().translate(field, sizeof root, alignof(Link));
    if (word == nullptr) {
      flaw(FindingKind::kPointerOutside, field);
      return;
    }
    std::memcpy(&root, word, sizeof root);
    if (root == 0 || !enter(root)) {
      return;
    }
    if ((stack_[0].link.up & vrellis::avl::kPlace) != (field | vrellis::avl::kRoot)) {
      flaw(FindingKind::kRootField, root);
    }
    while (depth_ > 0) {
      step();
    }
  }

 private:
  void flaw(FindingKind kind, Address address) { survey_.flaws.push_back({kind, tree_, address}); }

  bool enter(Address address) {
    if (depth_ == kMaxDepth) {
      flaw(FindingKind::kTreeDepth, address);
      return false;
    }
    const Claim claimed = reach_node(survey_, address, cls_);
    if (claimed != Claim::kNew) {
      flaw(claimed == Claim::kAgain ? FindingKind::kTreeCycle : FindingKind::kPointerOutside, address);
      return false;
    }
    Frame &frame = stack_[depth_++];
    frame = {address, {}, {0, 0}, 0};
    std::memcpy(&frame.link, survey_.view().translate(address, sizeof(Link)), sizeof(Link));
    return true;
  }

  void step() {
    Frame &frame = stack_[depth_ - 1];
    if (frame.side == 2) {
      leave(frame);
      return;
    }
    const unsigned side = frame.side++;
    if (side == 1) {
      visit(frame.address);
    }
    const Address child = frame.link.child[side];
    if (child == 0) {
      return;
    }
    frame.height[side] = kUnknownHeight;
    if (enter(child) && (stack_[depth_ - 1].link.up & vrellis::avl::kPlace) != frame.address) {
      flaw(FindingKind::kTreeParent, child);
    }
  }

  void visit(Address address) {
    const void *key = survey_.view().translate(address + sizeof(Link), kKeyBytes[cls_]);
    if (last_key_ != nullptr && std::memcmp(last_key_, key, kKeyBytes[cls_]) >= 0) {
      flaw(FindingKind::kTreeOrder, address);
    }
    last_key_ = key;
    nodes_->push_back(address);
  }

  // Both subtrees of the top are walked: tests its balance and tells its parent its height.
  void leave(const Frame &frame) {
    const int before = frame.height[0];
    const int after = frame.height[1];
    int height = kUnknownHeight;
    if (before != kUnknownHeight && after != kUnknownHeight) {
      const auto lean = before == after ? vrellis::avl::kLevel : vrellis::avl::leaning(after > before ? 1 : 0);
      if (std::abs(after - before) > 1 || vrellis::avl::lean_of(&frame.link) != lean) {
        flaw(FindingKind::kTreeBalance, frame.address);
      }
      height = 1 + (before > after ? before : after);
    }
    --depth_;
    if (depth_ > 0) {
      Frame &parent = stack_[depth_ - 1];
      parent.height[parent.side - 1] = height;
    }
  }

  Survey &survey_;
  int cls_;
  std::uint32_t tree_;
  std::vector<Address> *nodes_;
  Frame stack_[kMaxDepth];
  int depth_ = 0;
  const void *last_key_ = nullptr;
};

}  // namespace

void walk_tree(Survey &survey, Address field, int cls, std::uint32_t tree, std::vector<Address> *nodes) {
  Walk(survey, cls, tree, nodes).run(field);
}

bool place_in_heap(const Survey &survey, Address address, int cls, vrellis::Place *place) {
  const std::uint64_t offset = address - survey.address_of(0, 0);
  const std::uint64_t page = offset / vrellis::kPageBytes;
  if (page >= survey.shape.pages) {
    return false;
  }
  const auto within = static_cast<std::uint32_t>(offset % vrellis::kPageBytes);
  *place = {static_cast<std::uint32_t>(page), vrellis::slot_at(cls, within)};
  const vrellis::NodeClass &node = vrellis::kClass[cls];
  return place->slot * node.bytes == within && place->slot < node.per_page();
}

bool find_place(const Survey &survey, Address address, int cls, vrellis::Place *place) {
  if (!place_in_heap(survey, address, cls, place)) {
    return false;
  }
  const vrellis::PageDescriptor &descriptor = survey.heap.page[place->page];
  const bool others = vrellis::page_kind(descriptor.state) == vrellis::kClass[1 - cls].kind && in_use(descriptor);
  return !others && !survey.arrays[0].has(place->page) && !survey.arrays[1].has(place->page);
}

}  // namespace encap_inspect
