// Scenarios of the operations and of the allocator's boundaries.
#include "scenarios.h"

#include "support/window.h"

namespace crash {
namespace {

constexpr std::uint32_t kNodes40 = 102;  // nodes of a page

// Many encapsulations on tunnel `label2`, with labels from `first` on.
void fill(Story &story, std::uint32_t count, std::uint32_t first, std::uint32_t label2) {
  for (std::uint32_t i = 0; i < count; ++i) {
    story.enter(first + i, label2);
  }
}

// Runs of pages belong to no operation but the first initialisation: taken and given here under the lock.
void with_lock(const std::function<void()> &work) {
  vrl_egress_encap_db_lock(&egress_encap_db->lock.mutex);
  work();
  pthread_mutex_unlock(&egress_encap_db->lock.mutex);
}

void *run_of_two_pages() {
  void *block = nullptr;
  with_lock([&] { shmwin_malloc(kWindowId, 5000, &block); });
  return block;
}

}  // namespace

Story::Story(std::string name) : model_(kNhStart, kNhSize, kTunStart, kTunSize) {
  scenario_.name = std::move(name);
}

void Story::given(const Operation &operation) {
  on_model(model_, operation);
  scenario_.given.push_back(operation);
}

Operation Story::entry(std::uint32_t label1, std::uint32_t label2, std::uint32_t ifh) const {
  return entering(model_, key_of(label1, label2, ifh), model_.free_nh(), label2 == 0 ? 0 : model_.free_tunnel());
}

std::uint32_t Story::enter(std::uint32_t label1, std::uint32_t label2, std::uint32_t ifh) {
  const Operation operation = entry(label1, label2, ifh);
  given(operation);
  return operation.nh;
}

std::uint32_t Story::nh_of(std::uint32_t label1, std::uint32_t label2, std::uint32_t ifh) const {
  const egress_encap_key_t key = key_of(label1, label2, ifh);
  return model_.tunnels.at(encap_test::tunnel_key(key)).nhs.at(encap_test::nh_key(key));
}

Scenario Story::dies_in(const Operation &operation) {
  scenario_.when = {operation};
  return scenario_;
}

Scenario Story::dies_in(std::function<void()> work) {
  scenario_.work = std::move(work);
  return scenario_;
}

// Each among others: two tunnels and the null tunnel with NHs that must not be touched.
template <typename Add>
void add_removals(const Add &add, Verb verb, const std::string &name) {
  add(name + "of several users", [verb](Story &s) {
    s.given(on_nh(Verb::kShare, s.nh_of(41, 210)));
    return s.dies_in(on_nh(verb, s.nh_of(41, 210)));
  });
  add(name + "the NH goes", [verb](Story &s) { return s.dies_in(on_nh(verb, s.nh_of(41, 210))); });
  add(name + "the tunnel goes", [verb](Story &s) { return s.dies_in(on_nh(verb, s.nh_of(40, 220, 2))); });
  for (const std::uint32_t ifh : {3u, 4u}) {
    add(name + (ifh == 3 ? "the NH on the null tunnel goes" : "a null tunnel node goes, others stay"),
        [verb, ifh](Story &s) {
          s.enter(50, 0, ifh);
          return s.dies_in(on_nh(verb, s.nh_of(50, 0, ifh)));
        });
  }
}

std::vector<Scenario> database_scenarios() {
  std::vector<Scenario> all;
  const auto add = [&all](const std::string &name, auto &&tell) {
    Story story(name);
    for (const std::uint32_t label : {40u, 41u, 42u}) {
      story.enter(label, 210);
    }
    story.enter(40, 220, 2);
    story.enter(40, 0, 3);
    all.push_back(tell(story));
  };
  add("insert: new tunnel and NH", [](Story &s) { return s.dies_in(s.entry(16, 200)); });
  add("insert: new NH on a known tunnel", [](Story &s) { return s.dies_in(s.entry(16, 210)); });
  add("insert: new NH and null tunnel node", [](Story &s) { return s.dies_in(s.entry(16, 0, 9)); });
  add("insert: new NH on a known null tunnel", [](Story &s) { return s.dies_in(s.entry(16, 0, 3)); });
  add("insert: the first of the null tunnel's after the last went", [](Story &s) {
    s.given(on_nh(Verb::kDetach, s.nh_of(40, 0, 3)));
    return s.dies_in(s.entry(16, 0, 3));
  });
  add("attach: new tunnel and NH, count 5", [](Story &s) {
    Operation attach = s.entry(16, 200);
    attach.verb = Verb::kAttach;
    attach.count = 5;
    return s.dies_in(attach);
  });
  add("attach: new NH, count 0", [](Story &s) {
    Operation attach = s.entry(16, 210);
    attach.verb = Verb::kAttach;
    return s.dies_in(attach);
  });
  add("find and share", [](Story &s) {
    Operation share = s.entry(41, 210);
    share.verb = Verb::kFindShare;
    share.nh = s.nh_of(41, 210);
    return s.dies_in(share);
  });
  add("share", [](Story &s) { return s.dies_in(on_nh(Verb::kShare, s.nh_of(41, 210))); });
  add("set", [](Story &s) { return s.dies_in(on_nh(Verb::kSet, s.nh_of(41, 210), 7)); });
  add("update", [](Story &s) { return s.dies_in(on_nh(Verb::kUpdate, s.nh_of(41, 210))); });
  add("read", [](Story &s) { return s.dies_in(on_nh(Verb::kRead, s.nh_of(41, 210))); });
  add_removals(add, Verb::kRelease, "release: ");
  add_removals(add, Verb::kDetach, "detach: ");
  return all;
}

std::vector<Scenario> heap_scenarios() {
  std::vector<Scenario> all;
  const auto add = [&all](const char *name, auto &&tell) {
    Story story(name);
    all.push_back(tell(story));
  };
  add("first node of a page", [](Story &s) {
    fill(s, kNodes40, 1, 200);
    return s.dies_in(s.entry(500, 200));
  });
  add("a page becomes free", [](Story &s) {
    fill(s, kNodes40 + 1, 1, 200);
    return s.dies_in(on_nh(Verb::kDetach, s.nh_of(kNodes40 + 1, 200)));
  });
  add("both pages become free", [](Story &s) {
    s.enter(1, 200);
    return s.dies_in(on_nh(Verb::kDetach, s.nh_of(1, 200)));
  });
  add("a run of pages is taken", [](Story &s) {
    s.enter(1, 200);
    return s.dies_in([] { run_of_two_pages(); });
  });
  add("a run of pages is given", [](Story &s) {
    s.enter(1, 200);
    static void *block = nullptr;
    Scenario scenario = s.dies_in([] { with_lock([] { shmwin_free(block); }); });
    scenario.prepare = [] { block = run_of_two_pages(); };
    return scenario;
  });
  return all;
}

// Of the trees: turns of both kinds, and ways in which a node leaves, in both trees. The test of the tree service has
// all shapes of small trees.
namespace {

struct Shape {
  const char *name;
  std::vector<std::uint32_t> keys;  // entered in this order
  Verb verb;
  std::uint32_t key;
};

const Shape kShapes[] = {
    {"the first node", {}, Verb::kInsert, 1},
    {"no turn", {2, 1}, Verb::kInsert, 3},
    {"single turn at the root, right", {3, 2}, Verb::kInsert, 1},
    {"double turn below the root, left-right", {8, 4, 12, 2}, Verb::kInsert, 3},
    {"single turn with subtrees, left", {8, 4, 12, 10, 14}, Verb::kInsert, 15},
    {"double turn with subtrees, right-left, inner right", {8, 4, 12, 10, 14}, Verb::kInsert, 11},
    {"the last node", {1}, Verb::kDetach, 1},
    {"a node with one child", {2, 1, 3, 4}, Verb::kDetach, 3},
    {"a root whose neighbour is deep, left", {8, 4, 12, 2, 6, 10, 14, 5}, Verb::kDetach, 8},
    {"a node below the root whose neighbour is deep", {16, 8, 20, 4, 12, 24, 10}, Verb::kDetach, 8},
    {"double turn, left-right", {3, 1, 4, 2}, Verb::kDetach, 4},
    {"turns on two levels", {8, 5, 11, 3, 7, 10, 12, 2, 4, 6, 9, 1}, Verb::kDetach, 12},
    {"turns on two levels after a swap", {8, 5, 11, 3, 7, 10, 12, 2, 4, 6, 9, 1}, Verb::kDetach, 11},
};

// In an NH tree the keys are labels of the NHs of one tunnel; in the tunnel tree of tunnels with one NH each.
Scenario in_tree(const Shape &shape, bool of_tunnels) {
  constexpr std::uint32_t kLabel = 16, kTunnel = 200;
  Story story(std::string(of_tunnels ? "tunnel tree, " : "NH tree, ") +
              (shape.verb == Verb::kInsert ? "insert: " : "delete: ") + shape.name);
  const auto label1 = [&](std::uint32_t key) { return of_tunnels ? kLabel : kLabel + key; };
  const auto label2 = [&](std::uint32_t key) { return of_tunnels ? kTunnel + key : kTunnel; };
  for (const std::uint32_t key : shape.keys) {
    story.enter(label1(key), label2(key));
  }
  if (shape.verb == Verb::kInsert) {
    return story.dies_in(story.entry(label1(shape.key), label2(shape.key)));
  }
  return story.dies_in(on_nh(shape.verb, story.nh_of(label1(shape.key), label2(shape.key))));
}

}  // namespace

std::vector<Scenario> tree_scenarios() {
  std::vector<Scenario> all;
  for (const bool of_tunnels : {false, true}) {
    for (const Shape &shape : kShapes) {
      all.push_back(in_tree(shape, of_tunnels));
    }
  }
  return all;
}

}  // namespace crash
