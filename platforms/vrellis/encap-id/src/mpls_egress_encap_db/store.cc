// The database of this process, and the first initialisation of a database.
#include <cerrno>
#include <cstddef>
#include <cstring>

#include "../diag/component.h"
#include "../diag/points.h"
#include "../mpls_egress_encap_db.h"
#include "shmwin.h"

constinit egress_encap_db_t *egress_encap_db = nullptr;

namespace encap {
namespace {

// Allocates and zeroes one slot array of the database. The allocator writes the address to the field of the header.
// Returns: the allocator's status; 12 when it reports success without a block.
template <typename Slot>
int allocate_array(std::uint32_t shm_id, std::size_t slots, Slot **array) {
  const std::size_t bytes = sizeof(Slot) * slots;
  const int status = shmwin_malloc(shm_id, bytes, reinterpret_cast<void **>(array));
  if (status != 0 || bytes == 0) {
    return status;
  }
  void *block;  // the allocator stored a plain address into the field: read it back as one
  std::memcpy(&block, array, sizeof block);
  if (block == nullptr) {
    return ENOMEM;
  }
  std::memset(block, 0, bytes);
  return 0;
}

int mpls_egress_encap_init_nh_array(std::uint32_t nh_size) {
  emit<Point::nh_array_entry>(nh_size);
  const int status = allocate_array(egress_encap_db->shm_id, nh_size, &egress_encap_db->nh_info_array);
  emit<Point::nh_array_return>(status);
  return status;
}

// The array has one slot more than tunnels; the last one is the null tunnel slot.
int mpls_egress_encap_init_tunnel_array(std::uint32_t tun_size) {
  emit<Point::tunnel_array_entry>(tun_size + 1);
  const int status =
      allocate_array(egress_encap_db->shm_id, std::size_t{tun_size} + 1, &egress_encap_db->tun_info_array);
  emit<Point::tunnel_array_return>(status);
  return status;
}

// Sets a new database up. No failure undoes the steps before it.
int initialise(std::uint32_t shm_id, std::uint32_t nh_size, std::uint32_t tun_size, std::uint32_t nh_start,
               std::uint32_t tun_start) {
  egress_encap_db_t &db = *egress_encap_db;
  emit<Point::init_first>(shm_id, nh_start, nh_start + nh_size, tun_start, tun_start + tun_size);
  db.tun_root = nullptr;
  db.shm_id = shm_id;
  db.nh_start = nh_start;
  db.tun_start = tun_start;
  db.nh_end = nh_start + nh_size;
  db.tun_end = tun_start + tun_size;
  int status = mpls_egress_encap_init_nh_array(nh_size);
  if (status != 0) {
    emit<Point::init_nh_array_failed>(status);
    return status;
  }
  status = mpls_egress_encap_init_tunnel_array(tun_size);
  if (status != 0) {
    emit<Point::init_tunnel_array_failed>(status);
    return status;
  }
  status = eencap_lock_init(&db.lock);
  if (status != 0) {
    emit<Point::init_lock_failed>(status);
  }
  return status;
}

}  // namespace
}  // namespace encap

int mpls_egress_encap_db_init(uint32_t shm_id, uint32_t nh_size, uint32_t tun_size, uint32_t nh_start,
                              uint32_t tun_start, egress_encap_db_t *header) {
  using encap::Point;
  encap::emit<Point::init_entry>();
  if (header == nullptr) {
    return EINVAL;
  }
  encap::mpls_egress_encap_dbg_init();
  egress_encap_db = header;
  if (header->is_initialized == 0) {
    const int status = encap::initialise(shm_id, nh_size, tun_size, nh_start, tun_start);
    if (status != 0) {
      return status;
    }
  }
  encap::emit<Point::init_done>(0);
  return 0;
}
