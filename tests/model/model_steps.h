// The single steps of the model's operations, as a listener hears of them: calls of the lock and of the services, which
// the listener may fail, and reports.
#ifndef ENCAP_TESTS_MODEL_STEPS_H
#define ENCAP_TESTS_MODEL_STEPS_H

#include <array>
#include <cerrno>
#include <cstdint>
#include <initializer_list>
#include <span>
#include <string>

namespace encap_test {

using NhKey = std::array<std::uint8_t, 8>;  // ordered like the trees: unsigned, first byte first
using TunnelKey = std::array<std::uint8_t, 12>;
using KeyBytes = std::span<const std::uint8_t>;
std::string name_of(KeyBytes key);  // "N:<word 0>/<word 1>" or "T:<word 0>/<word 1>/<ifh>"

// Values of points and messages by their names. What is once told holds until it is told anew.
struct NamedValue {
  template <typename Number>
  NamedValue(const char *of, Number is) : name(of), value(static_cast<std::uint32_t>(is)) {}
  const char *name;
  std::uint32_t value;
};
using Named = std::initializer_list<NamedValue>;

// Deaf as it is: lets every call go as it can.
class Listener {
 public:
  virtual ~Listener() = default;
  // A call, of the node of that key. Returns 0, a code, or -1 for a refusal or nothing found.
  virtual int call(const char * /*kind*/, const char * /*arguments*/, KeyBytes, bool can) { return can ? 0 : -1; }
  virtual void tell(const char * /*call*/, KeyBytes) {}  // a call that cannot fail
  virtual void know(Named) {}
  virtual void point(std::uint32_t /*id*/) {}
  virtual void raise(const char * /*message*/, const char * /*function*/) {}
};
inline Listener deaf;

class Steps {
 public:
  void listen(Listener *listener) { listener_ = listener; }

 protected:
  static constexpr std::uint32_t kSilent = 0;  // an unlock whose failure is not reported

  void know(Named values) { listener_->know(values); }
  // Both return 22, what most reports of an error come to.
  int point(std::uint32_t id, Named values = {}) {
    know(values);
    listener_->point(id);
    return EINVAL;
  }
  int raise(const char *message, const char *function) {
    listener_->raise(message, function);
    return EINVAL;
  }

  int call(const char *kind, const char *arguments = "", KeyBytes key = {}, bool can = true) {
    return listener_->call(kind, arguments, key, can);
  }
  int lock(std::uint32_t failed) {
    int code = call("trylock");
    if (code == EBUSY) {
      listener_->tell("waits(lock,vrl_egress_encap_db_lock,43)", {});
      code = call("lock");
      listener_->tell("waited", {});
    }
    if (code == EOWNERDEAD) {
      code = call("consistent");
    }
    if (code != 0) {
      point(failed, {{"rc", code}});
    }
    return code;
  }
  int unlock(std::uint32_t failed) {
    const int code = call("unlock");
    if (code != 0 && failed != kSilent) {
      point(failed, {{"rc", code}});
    }
    return code;
  }

  // The nodes of tunnels and of NHs. `points` is the first of a row that is the same for both.
  template <typename Nodes, typename Key>
  auto *find_node(Nodes &nodes, const char *root, const Key &key, std::uint32_t found) {
    const auto node = nodes.find(key);
    const bool hit = call("search", nodes.empty() ? "empty" : root, key, node != nodes.end()) == 0;
    point(found, {{"result", hit}});
    return hit ? &node->second : nullptr;
  }
  int new_node(const char *bytes, const char *root, KeyBytes key, bool taken, std::uint32_t points) {
    point(points);
    if (call("malloc", bytes) != 0) {
      point(points + 1);
      return ENOMEM;
    }
    if (call("insert", root, key, !taken) != 0) {
      listener_->tell("free", key);
      return point(points + 2);
    }
    point(points + 3);
    return 0;
  }
  bool delete_node(const char *root, KeyBytes key, std::uint32_t points) {
    point(points);
    const bool gone = call("delete", root, key) == 0;
    if (gone) {
      listener_->tell("free", key);
    }
    point(gone ? points + 2 : points + 1);
    return gone;
  }

  // The slots of either kind.
  template <typename Slot>
  int not_valid(const Slot &slot, std::uint32_t id, const char *message, const char *function) {
    point(id, {{"count", slot.count}});
    return raise(message, function);
  }
  template <typename Slot>
  int count_up(Slot &slot, std::uint32_t points, const char *message, const char *function) {
    if (slot.valid == 0) {
      return not_valid(slot, points + 1, message, function);
    }
    point(points, {{"count", ++slot.count}});
    return 0;
  }
  template <typename Slot>
  int count_down(Slot &slot, std::uint32_t &del, std::uint32_t points, const char *message, const char *function) {
    if (slot.count == 0 || slot.valid == 0) {
      return slot.count == 0 ? point(points, {{"count", 0}}) : not_valid(slot, points + 1, message, function);
    }
    del = --slot.count == 0;
    point(points + 2, {{"count", slot.count}, {"del", del}});
    return 0;
  }

 private:
  Listener *listener_ = &deaf;
};

}  // namespace encap_test

#endif
