// A repair that dies itself: at each of its calls of the services, the next repair mends what it left.
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

void count_allocation() {
  if (allocations_left >= 0 && allocations_left-- == 0) {
    throw std::bad_alloc();
  }
}

template <typename Real, typename... Args>
auto count_around(Real real, Args... args) {
  count_call();
  const auto result = real(args...);
  count_call();
  return result;
}

}  // namespace

// The linker puts these in the places of the functions, which go on under their second names.
#pragma GCC visibility push(default)
extern "C" {
using FindPlace = void *(void **root, void *node, int *flag, avl_compare_fn compare);
FindPlace __real_avl_insert, __wrap_avl_insert, __real_avl_delete, __wrap_avl_delete;
int __real_shmwin_malloc(uint32_t shm_id, size_t size, void **block);
int __wrap_shmwin_malloc(uint32_t shm_id, size_t size, void **block);
void __real_shmwin_free(void *block);
void __wrap_shmwin_free(void *block);
void *__real__Znwm(std::size_t bytes);
void *__wrap__Znwm(std::size_t bytes);
void *__real__ZnamSt11align_val_t(std::size_t bytes, std::align_val_t alignment);
void *__wrap__ZnamSt11align_val_t(std::size_t bytes, std::align_val_t alignment);

void *__wrap_avl_insert(void **root, void *node, int *flag, avl_compare_fn compare) {
  return count_around(__real_avl_insert, root, node, flag, compare);
}

void *__wrap_avl_delete(void **root, void *node, int *flag, avl_compare_fn compare) {
  return count_around(__real_avl_delete, root, node, flag, compare);
}

int __wrap_shmwin_malloc(uint32_t shm_id, size_t size, void **block) {
  return count_around(__real_shmwin_malloc, shm_id, size, block);
}

void __wrap_shmwin_free(void *block) {
  count_call();
  __real_shmwin_free(block);
  count_call();
}

// operator new(bytes), and new[] of aligned memory, in the inspector and in this test.
void *__wrap__Znwm(std::size_t bytes) {
  count_allocation();
  return __real__Znwm(bytes);
}

void *__wrap__ZnamSt11align_val_t(std::size_t bytes, std::align_val_t alignment) {
  count_allocation();
  return __real__ZnamSt11align_val_t(bytes, alignment);
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

TEST_F(DeathTest, WhileTreesAreRebuilt) {
  fill(2, 9);
  auto *const top = static_cast<mpls_tunnel_entry_t *>(db().tun_root);
  reinterpret_cast<std::uint64_t *>(top->nh_root)[1] = 0x10;
  tunnel(top->egr_tun).ref_count = 2;
  expect_mended_after_every_death();
  open({});
  fill(5, 3);
  auto *const children = static_cast<std::uint64_t *>(db().tun_root);
  std::swap(children[0], children[1]);
  expect_mended_after_every_death();
}

TEST_F(DeathTest, WhileNodesAreMadeAnew) {
  fill(3, 3);
  db().tun_root = nullptr;
  const vrellis::WindowShape shape = vrellis::shape_of_size(bytes_);
  auto *const pages = reinterpret_cast<vrellis::PageDescriptor *>(window_ + shape.descriptors);
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
