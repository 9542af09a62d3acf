// Whole streams: random ones beside a model, and recorded ones, in pieces of any size.
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>

#include "feed_fixture.h"

namespace encapd_tests {
namespace {

using router::Labels, router::Path;

// What a router has, kept in the plainest way.
class Model {
 public:
  explicit Model(std::uint32_t seed) : engine_(seed) {}

  // A random change, as messages.
  Buffer change() {
    const std::string prefix = "10." + std::to_string(below(40)) + ".0.0/16";
    const std::uint32_t id = 1 + below(12);
    switch (below(8)) {
      case 0:
        routes_.erase(prefix);
        return withdrawal(prefix);
      case 1:
        objects_.erase(id);
        return router::no_object(id);
      case 2:
      case 3:
        if (below(3) == 0) {
          return add_group(id);
        }
        objects_[id] = {{path()}, {}};
        return router::object(id, objects_[id].paths[0]);
      case 4:
      case 5:
        routes_[prefix] = {{}, id};
        return named(prefix, id);
      default:
        return add_route(prefix);
    }
  }

  // Everything, as after a new connection, in a random order.
  Buffer all() {
    std::vector<Buffer> messages;
    for (const auto &[id, each] : objects_) {
      messages.push_back(each.paths.empty() ? router::group(id, each.members) : router::object(id, each.paths[0]));
    }
    for (const auto &[prefix, each] : routes_) {
      messages.push_back(each.id != 0 ? named(prefix, each.id) : route(prefix, each.paths));
    }
    std::shuffle(messages.begin(), messages.end(), engine_);
    Buffer bytes;
    for (const Buffer &each : messages) {
      bytes = bytes + frame({each});
    }
    return bytes;
  }

  // Takes everything back, as messages.
  Buffer nothing() {
    Buffer bytes;
    for (std::uint32_t id = 1; id <= 12; ++id) {
      bytes = bytes + frame({router::no_object(id)});
    }
    for (const auto &[prefix, each] : std::exchange(routes_, {})) {
      bytes = bytes + frame({withdrawal(prefix)});
    }
    objects_.clear();
    return bytes;
  }

  References references() const {
    References result;
    for (const auto &[prefix, each] : routes_) {
      add(each.paths, result);
      const auto object = objects_.find(each.id);
      if (object == objects_.end()) {
        continue;
      }
      add(object->second.paths, result);
      for (const std::uint32_t member : object->second.members) {
        if (const auto found = objects_.find(member); found != objects_.end()) {
          add(found->second.paths, result);
        }
      }
    }
    return result;
  }

  std::uint32_t below(std::uint32_t limit) { return static_cast<std::uint32_t>(engine_()) % limit; }

 private:
  struct Route {
    std::vector<Path> paths;
    std::uint32_t id = 0;
  };
  struct Object {
    std::vector<Path> paths;
    std::vector<std::uint32_t> members;
  };

  // Of 1 to 4 labels, sometimes none.
  Path path() {
    Labels labels(below(6) % 5);
    for (std::uint32_t &label : labels) {
      label = 16 + below(4);
    }
    return {labels, 6 + below(2)};
  }

  Buffer add_group(std::uint32_t id) {
    std::vector<std::uint32_t> members(1 + below(3));
    for (std::uint32_t &member : members) {
      member = 1 + below(12);  // also itself, or another group, of which nothing is taken
    }
    objects_[id] = {{}, members};
    return router::group(id, members);
  }

  Buffer add_route(const std::string &prefix) {
    std::vector<Path> paths(1 + below(3));
    for (Path &each : paths) {
      each = path();
    }
    routes_[prefix] = {paths, 0};
    return route(prefix, paths);
  }

  static void add(const std::vector<Path> &paths, References &result) {
    for (const auto &[labels, interface] : paths) {
      if (!labels.empty() && labels.size() <= 3) {
        const std::size_t depth = labels.size();
        ++result[{labels[depth - 1], depth > 1 ? labels[depth - 2] : 0, depth > 2 ? labels[0] : 0, interface}];
      }
    }
  }

  std::mt19937 engine_;
  std::map<std::string, Route> routes_;
  std::map<std::uint32_t, Object> objects_;
};

class StreamTest : public FeedTest {};

TEST_F(StreamTest, EveryReferenceIsCountedWhateverChangesAndBreaks) {
  const std::uint32_t seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  Model model(seed);
  start();
  feed_->connected();
  for (int step = 0; step < 3000 && !HasFailure(); ++step) {
    switch (model.below(60)) {
      case 0: {  // a new connection, of which only a part arrives; sometimes encapd is restarted as well
        if (model.below(2) == 0) {
          restart();
        }
        feed_->connected();
        const Buffer all = model.all();
        send({all.begin(), all.begin() + model.below(static_cast<std::uint32_t>(all.size() + 1))});
        feed_->disconnected();
        [[fallthrough]];
      }
      case 1:
        feed_->connected();
        send(model.all());
        EXPECT_EQ(feed_->holder().held(), feed_->holder().wanted());
        pass(30s);
        EXPECT_EQ(references(), model.references());
        break;
      default:
        send(frame({model.change(), model.change()}), 1 + model.below(200));
        if (feed_->holder().is_settled()) {
          EXPECT_EQ(references(), model.references());
        }
    }
  }
  send(model.nothing());
  pass(30s);
  EXPECT_EQ(references(), References{});
  EXPECT_EQ(feed_->routes().objects() + feed_->routes().routes() + feed_->holder().encapsulations(), 0U);
  expect_sound();
}

TEST_F(StreamTest, PiecesOfAnySizeEndTheSame) {
  config_.nh_size = 60'000;
  config_.tun_size = 30'000;
  std::vector<std::pair<std::string, Buffer>> streams(1);
  const std::uint32_t seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  Model model(seed);
  for (int i = 0; i < 300; ++i) {
    streams[0].second = streams[0].second + frame({model.change()});
  }
  for (const auto &entry : std::filesystem::directory_iterator(ENCAPD_STREAMS)) {
    ASSERT_EQ(entry.path().extension(), ".fpm");
    std::ifstream file(entry.path(), std::ios::binary);
    streams.emplace_back(entry.path().filename(), Buffer(std::istreambuf_iterator<char>(file), {}));
  }
  start();
  // Of the recorded streams: the labelled paths that the router had at the end.
  const std::map<std::string, std::uint64_t> known{{"static.fpm", 2}, {"objects.fpm", 156}, {"inline.fpm", 155},
                                                   {"ipv6.fpm", 4},   {"lsp.fpm", 3},       {"rare.fpm", 7},
                                                   {"link.fpm", 140}, {"bgp.fpm", 300},     {"restart.fpm", 500}};
  for (const auto &[name, stream] : streams) {
    std::optional<References> expected;
    for (const std::size_t piece : {encapd::Frames::kRoom, std::size_t{1}, std::size_t{1 + model.below(5000)}}) {
      feed_->connected();
      ASSERT_TRUE(send(stream, piece));
      pass(30s);
      const References end = references();
      EXPECT_EQ(end, expected.value_or(end)) << name << " in pieces of " << piece;
      EXPECT_TRUE(name.empty() || known.at(name) == feed_->holder().held()) << name << feed_->holder().held();
      expected = end;
      EXPECT_EQ(feed_->counters().malformed_messages, 0U);
    }
  }
  expect_sound();
}

}  // namespace
}  // namespace encapd_tests
