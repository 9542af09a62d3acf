// encapd's feed: any bytes, in any pieces. Afterwards the client's ledger must have what the routes need.
#include <algorithm>
#include <iterator>
#include <optional>

#include "database.h"
#include "feed/feed.h"
#include "fuzz_input.h"

namespace {

struct World {
  World() {
    encapd::set_level(encapd::Level::kError);
    // Small ranges, so that some find no room.
    const encap_client_config_t config{test_support::database_in(directory.path(), "encaps", 1, {1, 8}, {1, 4}), "fpm"};
    shmwin_error_t error{};
    if (encap_client_open(&config, &client, &error) != 0) {
      fuzz::found(error.text);
    }
    feed.emplace(client, events, std::nullopt);
  }
  ~World() { feed->leave(); }

  // References, and of these stale ones.
  void count(std::uint64_t &held, std::uint64_t &stale) {
    encap_client_info_t info{};
    std::uint32_t names = 0;
    encap_client_list(client, &info, 1, &names);
    held = info.held;
    stale = info.stale;
  }

  const test_support::Directory directory;
  encap_client_t *client = nullptr;
  encapd::Events events{-1};
  std::optional<encapd::Feed> feed;
};

void expect_counts(World &world) {
  std::uint64_t held = 0;
  std::uint64_t stale = 0;
  world.count(held, stale);
  const encapd::Holder &holder = world.feed->holder();
  if (held - stale != holder.held() || holder.held() > holder.wanted()) {
    fuzz::found("the ledger has " + std::to_string(held) + " references, " + std::to_string(stale) +
                " of them stale; " + std::to_string(holder.held()) + " are held, " + std::to_string(holder.wanted()) +
                " wanted");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  static World world;
  fuzz::Input input(data, size);
  constexpr std::size_t kPieces[] = {encapd::Frames::kRoom, 1, 61};
  const std::size_t piece = kPieces[size % std::size(kPieces)];
  encapd::Feed &feed = *world.feed;
  feed.connected();
  for (bool sound = true; sound && !input.empty();) {
    const std::span<std::uint8_t> room = feed.room();
    const std::size_t count = std::min({piece, room.size(), input.left()});
    for (std::size_t i = 0; i < count; ++i) {
      room[i] = input.take<std::uint8_t>();
    }
    sound = feed.take(count, encapd::Clock::now());
  }
  expect_counts(world);
  feed.settle();
  feed.tick(encapd::Clock::now());
  expect_counts(world);
  return 0;
}
