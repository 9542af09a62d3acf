// From a view's bytes to a survey: header, trees, slots, heap. Nothing is followed that was not tested.
#include "survey.h"

#include <bit>
#include <cstring>

#include "lock_word.h"

namespace encap_inspect {
namespace {

using vrellis::WindowHeader;

const WindowHeader *header_of(const View &view) {
  return static_cast<const WindowHeader *>(view.at(0, sizeof(WindowHeader), alignof(WindowHeader)));
}

WindowIdentity decode_identity(const WindowHeader &header) {
  WindowIdentity identity;
  identity.is_window = header.magic == vrellis::kWindowMagic && header.version == vrellis::kLayoutVersion &&
                       header.complete == vrellis::kWindowComplete;
  identity.version = header.version;
  identity.shm_id = header.shm_id;
  identity.size = header.size;
  identity.address = header.address;
  identity.pid_namespace = header.pid_namespace;
  identity.created = header.created;
  identity.deaths = header.deaths;
  return identity;
}

// Whether everything that the window says of its shape agrees, so that its bookkeeping lies where it must.
bool has_shape(const View &view, const WindowHeader &header) {
  return header.size >= vrellis::kMinWindowBytes && header.size <= vrellis::kMaxWindowBytes &&
         header.size <= view.size() && header.address % vrellis::kPageBytes == 0 && header.address != 0 &&
         header.address < std::uint64_t{1} << 47 && header.heap_pages == vrellis::shape_of_size(header.size).pages;
}

// The pages of an array of `bytes` that begins at `address`: whole pages of the heap, from a page's start. Empty: none.
PageRange pages_of_array(const Survey &survey, Address address, std::uint64_t bytes) {
  const std::uint64_t offset = address - survey.address_of(0, 0);
  const std::uint64_t page = offset / vrellis::kPageBytes;
  const std::uint64_t pages = bytes == 0 ? 1 : vrellis::round_up(bytes, vrellis::kPageBytes) / vrellis::kPageBytes;
  if (offset % vrellis::kPageBytes != 0 || page >= survey.shape.pages || pages > survey.shape.pages - page) {
    return {};
  }
  return {static_cast<std::uint32_t>(page), static_cast<std::uint32_t>(page + pages)};
}

std::uint64_t array_bytes(const Database &db, int array) {
  return array == 0 ? std::uint64_t{db.nh_end - db.nh_start} * sizeof(egr_nh_info_t)
                    : (std::uint64_t{db.tun_end - db.tun_start} + 1) * sizeof(egr_tun_info_t);
}

// An array as large as a node is in a node's block: the allocator goes by the size alone.
bool find_array(Survey &survey, int array, Address address) {
  const std::uint64_t bytes = array_bytes(survey.db, array);
  const int cls = vrellis::class_of_size(bytes);
  if (cls >= 0) {
    vrellis::Place place{};
    return place_in_heap(survey, address, cls, &place);
  }
  survey.arrays[array] = pages_of_array(survey, address, bytes);
  return survey.arrays[array].end != 0;
}

void decode_header(Survey &survey, const WindowHeader &header) {
  Database &db = survey.db;
  egress_encap_db_t record;
  std::memcpy(&record, header.user_area, sizeof record);
  db.initialised = record.is_initialized != 0;
  db.shm_id = record.shm_id;
  db.nh_start = record.nh_start;
  db.nh_end = record.nh_end;
  db.tun_start = record.tun_start;
  db.tun_end = record.tun_end;
  std::memcpy(&db.tun_root, &record.tun_root, sizeof db.tun_root);
  std::memcpy(&db.nh_array, &record.nh_info_array, sizeof db.nh_array);
  std::memcpy(&db.tun_array, &record.tun_info_array, sizeof db.tun_array);
  if (!db.initialised || db.nh_end < db.nh_start || db.tun_end < db.tun_start) {
    return;
  }
  const bool found = find_array(survey, 0, db.nh_array) && find_array(survey, 1, db.tun_array);
  const PageRange &nh = survey.arrays[0];
  const PageRange &tun = survey.arrays[1];
  const auto page = static_cast<std::uint32_t>((db.nh_array - survey.address_of(0, 0)) / vrellis::kPageBytes);
  const bool apart = nh.end == 0 ? !tun.has(page) : nh.end <= tun.begin || tun.end <= nh.begin;
  db.usable = found && apart;
}

// The recorded index, or the one that all NHs of the tunnel which name one and the same other tunnel slot have: that
// of a node whose index was overwritten.
std::uint32_t believe_index(const Database &db, const TunnelNode &tunnel) {
  std::uint32_t other = kNoIndex;
  for (std::uint32_t n = tunnel.first_nh; n < tunnel.first_nh + tunnel.nh_count; ++n) {
    const egr_nh_info_t *slot = db.nh_slot(db.nhs[n].nh_index);
    if (slot == nullptr || slot->valid == 0 || slot->ifh != tunnel.key.ifh || slot->ref_count == 0) {
      continue;
    }
    const bool differs = slot->egr_tun != tunnel.egr_tun && db.tunnel_in_range(slot->egr_tun);
    if (!differs || (other != kNoIndex && other != slot->egr_tun)) {
      return tunnel.egr_tun;
    }
    other = slot->egr_tun;
  }
  const egr_tun_info_t *slot = other != kNoIndex ? db.tunnel_slot(other) : nullptr;
  return slot != nullptr && slot->valid != 0 && slot->ref_count != 0 ? other : tunnel.egr_tun;
}

void add_tunnel(Survey &survey, Address address) {
  Database &db = survey.db;
  mpls_tunnel_entry_t node;
  std::memcpy(&node, survey.view().translate(address, sizeof node), sizeof node);
  TunnelNode tunnel{};
  tunnel.address = address;
  tunnel.key = node.key;
  tunnel.egr_tun = node.egr_tun;
  std::memcpy(&tunnel.nh_root, &node.nh_root, sizeof tunnel.nh_root);
  db.tunnels.push_back(tunnel);
}

void add_nhs(Survey &survey, std::uint32_t number) {
  Database &db = survey.db;
  TunnelNode &tunnel = db.tunnels[number];
  std::vector<Address> nodes;
  walk_tree(survey, tunnel.address + offsetof(mpls_tunnel_entry_t, nh_root), 0, number, &nodes);
  tunnel.first_nh = static_cast<std::uint32_t>(db.nhs.size());
  tunnel.nh_count = static_cast<std::uint32_t>(nodes.size());
  for (const Address address : nodes) {
    mpls_nh_entry_t node;
    std::memcpy(&node, survey.view().translate(address, sizeof node), sizeof node);
    db.nhs.push_back({address, node.key, node.nh_index, number});
  }
}

// The block of an array that lies among the nodes is none of theirs.
void reach_array(Survey &survey, int array, Address address) {
  const int cls = vrellis::class_of_size(array_bytes(survey.db, array));
  vrellis::Place place{};
  if (cls >= 0 && place_in_heap(survey, address, cls, &place)) {
    survey.reached[place.page].cls = static_cast<std::int8_t>(cls);
    survey.reached[place.page].nodes[place.slot / 64] |= std::uint64_t{1} << place.slot % 64;
  }
}

void survey_trees(Survey &survey) {
  Database &db = survey.db;
  survey.reached.resize(survey.shape.pages);
  reach_array(survey, 0, db.nh_array);
  reach_array(survey, 1, db.tun_array);
  std::vector<Address> nodes;
  walk_tree(survey, db.window.address + offsetof(WindowHeader, user_area), 1, kNoNode, &nodes);
  for (const Address address : nodes) {
    add_tunnel(survey, address);
  }
  for (std::uint32_t number = 0; number < db.tunnels.size(); ++number) {
    add_nhs(survey, number);
    survey.believed.push_back(believe_index(db, db.tunnels[number]));
  }
  survey.nh_tree_broken.resize(db.tunnels.size());
  for (const Flaw &flaw : survey.flaws) {
    if (flaw.tree == kNoNode) {
      survey.tunnel_tree_broken = true;
    } else {
      survey.nh_tree_broken[flaw.tree] = true;
    }
  }
}

void match_slots(Survey &survey) {
  Database &db = survey.db;
  db.node_of_slot.assign(db.nh_slots(), kNoNode);
  db.tunnel_of_slot.assign(db.tunnel_slots(), kNoNode);
  for (std::uint32_t number = 0; number < db.tunnels.size(); ++number) {
    const std::uint32_t index = survey.believed[number];
    if (db.tunnel_in_range(index) && db.tunnel_of_slot[db.tunnel_slot_number(index)] == kNoNode) {
      db.tunnel_of_slot[db.tunnel_slot_number(index)] = number;
    }
  }
  for (std::uint32_t n = 0; n < db.nhs.size(); ++n) {
    const NhNode &nh = db.nhs[n];
    const egr_nh_info_t *slot = db.nh_slot(nh.nh_index);
    if (slot != nullptr && slot->valid != 0 && slot->egr_tun == survey.believed[nh.tunnel] &&
        slot->ifh == db.tunnels[nh.tunnel].key.ifh && same_key(nh.key, *slot) &&
        db.node_of_slot[nh.nh_index - db.nh_start] == kNoNode) {
      db.node_of_slot[nh.nh_index - db.nh_start] = n;
    }
  }
}

void collect_orphans(Survey &survey, std::uint32_t page, int cls) {
  const vrellis::PageDescriptor &descriptor = survey.heap.page[page];
  const vrellis::NodeClass &node = vrellis::kClass[cls];
  for (std::uint32_t word = 0; word < 2; ++word) {
    std::uint64_t bits = descriptor.used[word] & node.all[word] & ~survey.reached[page].nodes[word];
    for (; bits != 0; bits &= bits - 1) {
      const std::uint32_t slot = 64 * word + static_cast<std::uint32_t>(std::countr_zero(bits));
      survey.orphans.push_back({survey.address_of(page, std::uint64_t{slot} * node.bytes), cls});
    }
  }
}

void survey_heap(Survey &survey) {
  HeapUse &use = survey.db.heap;
  const vrellis::Heap &heap = survey.heap;
  use.pages = heap.pages;
  use.pages_used = heap.header->pages_used;
  use.high_water = heap.header->high_water;
  use.bad_releases = heap.header->bad_releases;
  use.overhead = survey.shape.heap;
  for (std::uint32_t page = 0; page < heap.pages; ++page) {
    const vrellis::PageDescriptor &descriptor = heap.page[page];
    const int cls = vrellis::class_of_kind(vrellis::page_kind(descriptor.state));
    if (vrellis::is_free(heap, page)) {
      ++use.free_pages;
    } else if (cls >= 0) {
      ++use.node_pages;
      const int nodes = std::popcount(descriptor.used[0] & vrellis::kClass[cls].all[0]) +
                        std::popcount(descriptor.used[1] & vrellis::kClass[cls].all[1]);
      (cls == 0 ? use.nodes40 : use.nodes56) += static_cast<std::uint64_t>(nodes);
      const Reached *reached = survey.db.usable ? &survey.reached[page] : nullptr;
      const bool of_array = survey.arrays[0].has(page) || survey.arrays[1].has(page);
      if (reached != nullptr && !of_array && (reached->cls < 0 || reached->cls == cls)) {
        collect_orphans(survey, page, cls);
      }
    } else if (vrellis::page_kind(descriptor.state) == vrellis::kRunHead) {
      ++use.arrays;
      use.array_pages += vrellis::run_length(heap, page);
    }
  }
}

}  // namespace

Survey survey_header(const View &view) {
  Survey survey;
  Database &db = survey.db;
  db.view = &view;
  db.lock = decode_lock(view);
  db.processes = decode_processes(view);
  const WindowHeader *header = header_of(view);
  if (header == nullptr) {
    return survey;
  }
  db.window = decode_identity(*header);
  std::memcpy(&db.undo_count, header->tree_area, sizeof db.undo_count);
  if (db.window.is_window && has_shape(view, *header)) {
    survey.shape = vrellis::shape_of_size(header->size);
    survey.heap = vrellis::heap_at(const_cast<WindowHeader *>(header), survey.shape);  // nothing is written through it
    decode_header(survey, *header);
  }
  return survey;
}

Survey survey(const View &view) {
  Survey survey = survey_header(view);
  if (survey.db.usable) {
    survey_trees(survey);
    survey_clients(survey);
    match_slots(survey);
  }
  if (survey.shape.pages != 0) {
    survey_heap(survey);
  }
  return survey;
}

}  // namespace encap_inspect
