#include "avl_change.h"

#include <cerrno>

#include "avl/undo/undo.h"
#include "between_services.h"

using namespace vrellis;
using namespace vrellis::avl;

namespace {

[[gnu::noinline]] int settle_and_begin(const WindowMap &map, void **root) {
  roll_back(map);
  return avl_change_begin(root);
}

}  // namespace

int avl_change_begin(void **root) {
  const WindowMap *const map = window_of(root);
  if (map == nullptr) {
    return EINVAL;
  }
  if (is_unsettled(map)) [[unlikely]] {
    return settle_and_begin(*map, root);
  }
  store(&undo_log_of(*map).field, address_of(root));
  open_change = {};
  open_change.map = map;
  return 0;
}

void avl_change_searched(unsigned place, const void *top, void *end) {
  if (end != nullptr) {
    open_change.searched[place] = {top, end};
  }
}

void avl_change_version(const void *record) {
  Word *const version = version_of(open_change.map->begin, address_of(record));
  keep_version(*open_change.map, version);
  begin_version(version);
}

void avl_change_commit(void) {
  if (open_change.before_commit != nullptr) {
    open_change.before_commit(true);
  }
  const WindowMap *const map = open_change.map;
  store(&undo_log_of(*map).count, 0);
  open_change.map = nullptr;
  end_versions(*map, open_change.versions);
}

void avl_change_abort(void) {
  if (open_change.before_commit != nullptr) {
    open_change.before_commit(false);
  }
  const WindowMap *const map = open_change.map;
  open_change = {};
  roll_back(*map);
}
