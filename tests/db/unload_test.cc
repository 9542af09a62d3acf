// The libraries in a process that loads and unloads them at run time.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstring>

#include "database.h"
#include "ed.h"
#include "ed_catalogue.h"

namespace {

template <typename Function>
Function *find(void *library, const char *name) {
  return reinterpret_cast<Function *>(dlsym(library, name));
}

TEST(Unload, ThePointsCanBeListedAndSwitchedAfterwards) {
  void *const services = dlopen(SERVICES_LIBRARY, RTLD_NOW);
  void *const database = dlopen(DATABASE_LIBRARY, RTLD_NOW);
  void *const owner = dlopen(OWNER_LIBRARY, RTLD_NOW);
  ASSERT_TRUE(services != nullptr && database != nullptr && owner != nullptr) << dlerror();
  const test_support::Directory directory;
  const encap_db_config_t config = test_support::database_in(directory.path(), "encaps", 0, {1000, 10}, {0, 0});
  shmwin_error_t error{};
  EXPECT_EQ(find<decltype(encap_db_open)>(owner, "encap_db_open")(&config, nullptr, &error), 0) << error.text;
  EXPECT_EQ(find<decltype(encap_db_close)>(owner, "encap_db_close")(), 0);
  auto *const query = find<decltype(ed_query)>(services, "ed_query");
  auto *const for_each_point = find<decltype(ed_for_each_point)>(services, "ed_for_each_point");
  for (void *const library : {owner, database, services}) {
    EXPECT_EQ(dlclose(library), 0);
  }

  EXPECT_EQ(query("func vrl_find_egress_encap category event +t", nullptr), 0);
  std::size_t bytes = 0;
  for_each_point(
      [](void *sum, const ed_point_t *point) {
        *static_cast<std::size_t *>(sum) += std::strlen(point->function) + std::strlen(point->text);
      },
      &bytes);
  EXPECT_GT(bytes, 120u);
}

}  // namespace
