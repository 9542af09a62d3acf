// A repair that dies itself: at each of its calls of the services, the next repair mends what it left.
#include <cstdlib>
#include <new>

#include "avl.h"
#include "child.h"
#include "inspect_fixture.h"

namespace {

// Allocations left until one throws. Negative: none does.
int allocations_left = -1;

// Calls left until this process dies: before a call, and behind it. Negative: never.
int calls_left = -1;

void count_call() {
  if (calls_left >= 0 && calls_left-- == 0) {
    _exit(42);
  }
}

void *allocate(std::size_t bytes, std::size_t alignment) {
  if (allocations_left >= 0 && allocations_left-- == 0) {
    throw std::bad_alloc();
  }
  return std::aligned_alloc(alignment, (bytes + alignment) / alignment * alignment);
}

}  // namespace

// All that the inspector uses, since AddressSanitizer compares how a block was taken and given back.
[[gnu::noinline]] void *operator new(std::size_t bytes) {
  return allocate(bytes, 16);
}
[[gnu::noinline]] void *operator new[](std::size_t bytes, std::align_val_t alignment) {
  return allocate(bytes, static_cast<std::size_t>(alignment));
}
[[gnu::noinline]] void *operator new(std::size_t bytes, const std::nothrow_t &) noexcept {
  return std::malloc(bytes + 1);
}
[[gnu::noinline]] void operator delete(void *block) noexcept {
  std::free(block);
}
[[gnu::noinline]] void operator delete(void *block, std::size_t) noexcept {
  std::free(block);
}
[[gnu::noinline]] void operator delete[](void *block, std::align_val_t) noexcept {
  std::free(block);
}

#pragma GCC visibility push(default)
extern "C" {
// The linker puts these in the places of the services' functions, which go on under their second names.
void *__real_avl_insert(void **root, void *node, int *flag, avl_compare_fn compare);
void *__real_avl_delete(void **root, void *node, int *flag, avl_compare_fn compare);
int __real_shmwin_malloc(uint32_t shm_id, size_t size, void **block);
void __real_shmwin_free(void *block);
void *__wrap_avl_insert(void **root, void *node, int *flag, avl_compare_fn compare);
void *__wrap_avl_delete(void **root, void *node, int *flag, avl_compare_fn compare);
int __wrap_shmwin_malloc(uint32_t shm_id, size_t size, void **block);
void __wrap_shmwin_free(void *block);

void *__wrap_avl_insert(void **root, void *node, int *flag, avl_compare_fn compare) {
  count_call();
  void *const result = __real_avl_insert(root, node, flag, compare);
  count_call();
  return result;
}

void *__wrap_avl_delete(void **root, void *node, int *flag, avl_compare_fn compare) {
  count_call();
  void *const result = __real_avl_delete(root, node, flag, compare);
  count_call();
  return result;
}

int __wrap_shmwin_malloc(uint32_t shm_id, size_t size, void **block) {
  count_call();
  const int status = __real_shmwin_malloc(shm_id, size, block);
  count_call();
  return status;
}

void __wrap_shmwin_free(void *block) {
  count_call();
  __real_shmwin_free(block);
  count_call();
}
}
#pragma GCC visibility pop

namespace inspect_tests {
namespace {

class DeathTest : public InspectTest {
 protected:
  void expect_mended_after_every_death() {
    const std::vector<std::uint8_t> damaged(window_, window_ + bytes_);
    int call = 0;
    do {
      std::memcpy(window_, damaged.data(), bytes_);
      SCOPED_TRACE("call " + std::to_string(call));
      const int end = test_support::in_child([&] {
        calls_left = call;
        repair(kId);
        return 0;
      });
      expect_mended();
      if (end != 42) {
        EXPECT_EQ(end, 0);
        break;
      }
    } while (++call < 2000 && !HasFailure());
    EXPECT_GT(call, 0);
  }
};

TEST_F(DeathTest, WhileAnNhTreeIsRebuilt) {
  fill(2, 9);
  auto *top = static_cast<mpls_tunnel_entry_t *>(db().tun_root);
  reinterpret_cast<std::uint64_t *>(top->nh_root)[1] = 0x10;
  tunnel(top->egr_tun).ref_count = 2;
  expect_mended_after_every_death();
}

TEST_F(DeathTest, WhileTheTunnelTreeIsRebuilt) {
  fill(5, 3);
  auto *words = static_cast<std::uint64_t *>(db().tun_root);
  std::swap(words[0], words[1]);
  expect_mended_after_every_death();
}

TEST_F(DeathTest, WhileNodesAreMadeAnew) {
  fill(3, 3);
  db().tun_root = nullptr;
  const vrellis::WindowShape shape = vrellis::shape_of_size(bytes_);
  auto *pages = reinterpret_cast<vrellis::PageDescriptor *>(window_ + shape.descriptors);
  for (std::uint64_t page = 0; page < shape.pages; ++page) {
    if (pages[page].state == vrellis::page_state(vrellis::kNodes40)) {
      std::memset(pages[page].used, 0, sizeof pages[page].used);
      std::memset(window_ + shape.heap + page * vrellis::kPageBytes, 0x5a, vrellis::kPageBytes);
    }
  }
  expect_mended_after_every_death();
}

// A change of a tree that was cut off is looked at in a copy, which takes memory, too.
TEST_F(DeathTest, WithoutMemoryTheLockIsGivenBack) {
  fill(2, 9);
  for (std::uint32_t tunnel_index : {6U, 7U}) {
    --tunnel(tunnel_index).ref_count;
  }
  auto *const word = static_cast<std::uint64_t *>(db().tun_root) + 2;
  const std::uint64_t log[4] = {1, reinterpret_cast<std::uint64_t>(&db().tun_root),
                                reinterpret_cast<std::uint64_t>(word), *word};
  std::memcpy(window_header().tree_area, log, sizeof log);
  *word ^= 3;
  const std::vector<std::uint8_t> damaged(window_, window_ + bytes_);
  int refused = 0;
  for (bool done = false; !done && refused < 2000; ++refused) {
    std::memcpy(window_, damaged.data(), bytes_);
    allocations_left = refused;
    try {
      repair(kId);
      done = allocations_left >= 0;
    } catch (const std::bad_alloc &) {
    }
    allocations_left = -1;
    ASSERT_EQ(db().lock.mutex.__data.__lock, 0) << "allocation " << refused;
  }
  EXPECT_GT(refused, 10);
  expect_mended();
  allocations_left = 0;
  EXPECT_THROW(View::copy_of(window_, bytes_), std::bad_alloc);
}

}  // namespace
}  // namespace inspect_tests
