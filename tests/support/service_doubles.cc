// Doubles of the platform services. The trees are sorted lists whose first link word leads to the next node; the root
// field they are handed (or its copy) is the only one they change.
#include <cstdarg>
#include <cstring>

#include "avl.h"
#include "ed.h"
#include "ltrace.h"
#include "oxa_errmsg.h"
#include "ptd.h"
#include "shmwin.h"
#include "support/expected_points.h"
#include "support/journal.h"

namespace encap_test {
namespace {

constexpr std::size_t kNhNode = 40;
constexpr std::size_t kTunnelNode = 56;
constexpr std::uint64_t kInTree = 0x1234567890abcdef;  // second link word of a node that is in a tree

struct Node {
  Node *next;
  std::uint64_t in_tree;
  std::uint64_t third;
  std::uint8_t key[32];
};

Compare last_order[2];
std::map<std::uint32_t, std::function<void()>> actions;
int slow_answer = 0;

Node *node_of(const void *node) { return static_cast<Node *>(const_cast<void *>(node)); }

// An order that looks at 12 bytes tells these two apart, one that looks at 8 does not.
bool orders_tunnels(Compare compare) {
  std::uint8_t a[kTunnelNode] = {};
  std::uint8_t b[kTunnelNode] = {};
  b[24 + 11] = 1;
  return compare(a, b) != 1;
}

bool is_block(const std::uint8_t *at, std::size_t bytes) {
  const auto found = arena().blocks().find(const_cast<std::uint8_t *>(at));
  return found != arena().blocks().end() && found->second == bytes;
}

std::string block_name(void *block) {
  const auto *bytes = static_cast<std::uint8_t *>(block);
  if (is_block(bytes, kTunnelNode)) {
    return tunnel_name(bytes + 24);
  }
  return is_block(bytes, kNhNode) ? nh_name(bytes + 24) : "nothing";
}

// A root field by its address: the header's, a tunnel node's, or a copy somewhere else.
std::string field_name(void **root) {
  const auto *at = reinterpret_cast<std::uint8_t *>(root);
  if (root == &arena().header()->tun_root) {
    return "tun_root";
  }
  return is_block(at - 40, kTunnelNode) ? "nh_root" : arena().covers(root) ? "nowhere" : "copy";
}

// A root by its value.
std::string root_name(const void *root) {
  if (root == nullptr) {
    return "empty";
  }
  if (root == arena().header()->tun_root) {
    return "tun_root";
  }
  for (const auto &[block, bytes] : arena().blocks()) {
    void *nh_root;
    std::memcpy(&nh_root, block + 40, sizeof nh_root);
    if (bytes == kTunnelNode && nh_root == root) {
      return "nh_root";
    }
  }
  return "nowhere";
}

std::string key_name(const void *node, bool tunnel) {
  const std::uint8_t *key = node_of(node)->key;
  return tunnel ? tunnel_name(key) : nh_name(key);
}

// Whether all of a node but its key is zero.
bool pristine(const void *node, bool tunnel) {
  std::uint8_t image[kTunnelNode] = {};
  std::memcpy(image, node, tunnel ? kTunnelNode : kNhNode);
  std::memset(image + 24, 0, tunnel ? 12 : 8);
  for (const std::uint8_t byte : image) {
    if (byte != 0) {
      return false;
    }
  }
  return true;
}

Node **place_of(Node **at, const Node *node, Compare compare) {
  while (*at != nullptr && compare(*at, node) == 0) {
    at = &(*at)->next;
  }
  return at;
}

void note_order(Compare compare, bool tunnel) { last_order[tunnel ? 0 : 1] = compare; }

void trace(std::uint64_t handle, std::uint64_t header, std::initializer_list<std::uint64_t> values) {
  const auto id = static_cast<std::uint32_t>(header & 0x7fffff);
  const std::uint64_t record = header >> 28 & 7;
  const bool registered = registration().calls > 0;
  const std::uint64_t category = id < sites().size() ? sites()[id].site->category : 99;
  std::string entry = "trace(" + std::to_string(id) + "." + std::to_string(record) + ")";
  char separator = '=';
  for (const std::uint64_t value : values) {
    entry += separator + std::to_string(value);
    separator = ',';
  }
  const std::uint64_t tag = registered ? std::uint64_t{kTag & 0x1f} << 23 : 0;
  if (header != ((std::uint64_t{7} << 32) | 0x80000000u | record << 28 | tag | id)) {
    entry += "!header" + std::to_string(header);
  }
  if (handle != (registered ? kHandles + category : 0)) {
    entry += "!handle" + std::to_string(handle);
  }
  journal().add(entry);
  journal().saw_point(id);
  if (const auto action = actions.find(id); action != actions.end()) {
    action->second();
  }
}

void message(const char *call, ed_site_t *site, ed_component_t *component, const std::uint64_t *values,
             std::uint64_t zeros, std::uint32_t line, const char *format) {
  std::uint32_t id = 0;
  while (id < sites().size() && sites()[id].site != site) {
    ++id;
  }
  std::string entry = std::string(call) + "(" + std::to_string(id) + ")";
  for (std::uint32_t i = 0; i < site->num_values; ++i) {
    entry += (i ? "," : "=") + std::to_string(values[i]);
  }
  const bool known = id < sites().size() && id != kNeverEmitted;
  entry += known && sites()[id].line == line ? "" : "!line" + std::to_string(line);
  entry += known && expected_points()[id].message == join_pieces(format) ? "" : std::string("!format") + format;
  entry += zeros == 0 ? "" : "!zeros";
  entry += registration().component == nullptr || registration().component == component ? "" : "!component";
  journal().add(entry);
  journal().saw_point(id);
}

}  // namespace

Registration &registration() {
  static Registration the;
  return the;
}

void at_point(std::uint32_t id, std::function<void()> action) {
  actions.erase(id);
  if (action) {
    actions[id] = std::move(action);
  }
}
void slow_answers(int enabled) { slow_answer = enabled; }
Compare tunnel_order() { return last_order[0]; }
Compare nh_order() { return last_order[1]; }

}  // namespace encap_test

using namespace encap_test;

int shmwin_malloc(std::uint32_t shm_id, std::size_t size, void **block) {
  const auto ordered = faults().due("malloc");
  const std::string entry = "malloc(" + std::to_string(shm_id) + "," + std::to_string(size) + ")=";
  journal().add(entry + (ordered == kNull ? "NULL" : std::to_string(ordered.value_or(0))));
  if (!ordered) {
    *block = arena().take(size);
  } else if (*ordered == kNull) {
    *block = nullptr;
  }
  return ordered.value_or(0) == kNull ? 0 : ordered.value_or(0);
}

void shmwin_free(void *block) {
  journal().add("free(" + block_name(block) + ")");
  arena().give(block);
}

void *avl_search(void *root, const void *probe, avl_compare_fn compare) {
  const bool tunnel = orders_tunnels(compare);
  note_order(compare, tunnel);
  Node *found = node_of(root);
  if (faults().due("search")) {
    found = nullptr;
  }
  while (found != nullptr && compare(found, probe) != 1) {
    found = found->next;
  }
  const std::string where = root_name(root);
  journal().add("search(" + where + "," + key_name(probe, tunnel) + ")=" + (found ? "hit" : "none") +
                (where == "empty" || (where == "tun_root") == tunnel ? "" : "!order") +
                (pristine(probe, tunnel) ? "" : "!probe"));
  return found;
}

void *avl_insert(void **root, void *node, int *flag, avl_compare_fn compare) {
  const bool tunnel = orders_tunnels(compare);
  note_order(compare, tunnel);
  const std::string where = field_name(root);
  Node **place = place_of(reinterpret_cast<Node **>(root), node_of(node), compare);
  const bool taken = *place != nullptr && compare(*place, node) == 1;
  const bool refused = faults().due("insert").has_value() || taken;
  journal().add("insert(" + where + "," + key_name(node, tunnel) + ")=" + (refused ? "no" : "ok") +
                (*flag == 0 ? "" : "!flag") + (pristine(node, tunnel) ? "" : "!node") +
                ((where == "tun_root") == tunnel ? "" : "!order"));
  *flag = 77;
  if (refused) {
    return nullptr;
  }
  node_of(node)->next = *place;
  node_of(node)->in_tree = kInTree;
  *place = node_of(node);
  return node;
}

void *avl_delete(void **root, void *node, int *flag, avl_compare_fn compare) {
  const bool tunnel = orders_tunnels(compare);
  const std::string where = field_name(root);
  Node **place = reinterpret_cast<Node **>(root);
  while (*place != nullptr && *place != node) {
    place = &(*place)->next;
  }
  const bool refused = faults().due("delete").has_value() || *place == nullptr;
  journal().add("delete(" + where + "," + key_name(node, tunnel) + ")=" + (refused ? "no" : "ok") +
                (*flag == 0 ? "" : "!flag") + (node_of(node)->in_tree == kInTree ? "" : "!link") +
                ((where == "tun_root") == tunnel ? "" : "!order"));
  *flag = 77;
  if (refused) {
    return nullptr;
  }
  *place = node_of(node)->next;
  return node;
}

void ptd_set_mutex_block(pthread_mutex_t *mutex, const char *function, int line) {
  journal().add("waits(" + std::string(mutex == &arena().header()->lock.mutex ? "lock," : "other,") + function + "," +
                std::to_string(line) + ")");
}

void ptd_unset_mutex_block() { journal().add("waited"); }

void ed_init(ed_component_t *component) {
  journal().add("ed_init");
  Registration &seen = registration();
  ++seen.calls;
  seen.component = component;
  seen.record = *component;
  component->trace_tag = kTag;
  for (std::uint64_t i = 0; i < ED_MAX_FLAGS; ++i) {
    component->trace_handle[i] = kHandles + i;
  }
}

void ed_print_debug(ed_site_t *site, ed_component_t *component, const std::uint64_t *values, std::uint64_t zero,
                    std::uint32_t line, std::uint64_t zero_too, const char *format, std::uint64_t zero_end) {
  message("print", site, component, values, zero | zero_too | zero_end, line, format);
}

void ed_slow_debugs(ed_site_t *site, ed_component_t *component, int *enabled, const std::uint64_t *values,
                    std::uint64_t zero, std::uint32_t line, std::uint64_t zero_too, const char *format,
                    std::uint64_t zero_end) {
  message(*enabled == 0 ? "slow" : "slow!enabled", site, component, values, zero | zero_too | zero_end, line, format);
  *enabled = slow_answer;
}

#define P(n) std::uint64_t v##n
void _ltrace_1(std::uint64_t handle, std::uint64_t header, P(1)) { trace(handle, header, {v1}); }
void _ltrace_2(std::uint64_t handle, std::uint64_t header, P(1), P(2)) { trace(handle, header, {v1, v2}); }
void _ltrace_3(std::uint64_t handle, std::uint64_t header, P(1), P(2), P(3)) { trace(handle, header, {v1, v2, v3}); }
void _ltrace_4(std::uint64_t handle, std::uint64_t header, P(1), P(2), P(3), P(4)) {
  trace(handle, header, {v1, v2, v3, v4});
}
void _ltrace_5(std::uint64_t handle, std::uint64_t header, P(1), P(2), P(3), P(4), P(5)) {
  trace(handle, header, {v1, v2, v3, v4, v5});
}
void _ltrace_6(std::uint64_t handle, std::uint64_t header, P(1), P(2), P(3), P(4), P(5), P(6)) {
  trace(handle, header, {v1, v2, v3, v4, v5, v6});
}
void _ltrace_7(std::uint64_t handle, std::uint64_t header, P(1), P(2), P(3), P(4), P(5), P(6), P(7)) {
  trace(handle, header, {v1, v2, v3, v4, v5, v6, v7});
}

int oxa_errmsg(const oxa_msg_rec_t *record, int severity, ...) {
  std::va_list arguments;
  va_start(arguments, severity);
  std::string entry = std::string(record->name) + "(" + va_arg(arguments, const char *);
  for (std::size_t i = 1; i < conversions(record->format); ++i) {
    entry += "," + std::to_string(va_arg(arguments, std::uint32_t));
  }
  va_end(arguments);
  journal().add(entry + ")" + (severity == 2 ? "" : "!severity"));
  return 0;
}
