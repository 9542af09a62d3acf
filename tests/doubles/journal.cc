#include "doubles/journal.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <sstream>

namespace encap_test {

void Journal::add(const std::string &entry) {
  const std::lock_guard hold(mutex_);
  entries_.push_back(entry);
}

std::string Journal::take() {
  const std::lock_guard hold(mutex_);
  std::string text;
  for (const std::string &entry : entries_) {
    text += entry + "\n";
  }
  entries_.clear();
  return text;
}

void Journal::saw_point(std::uint32_t id) {
  const std::lock_guard hold(mutex_);
  points_.insert(id);
}

Journal &journal() {
  static Journal the;
  return the;
}

void Faults::order(const std::string &text) {
  const std::lock_guard hold(mutex_);
  calls_.clear();
  orders_.clear();
  std::istringstream words(text);
  for (std::string word; words >> word;) {
    const std::size_t equals = word.find('=');
    const std::string result = word.substr(equals + 1);
    orders_[word.substr(0, equals)] =
        result == "NULL" || result == "no" || result == "none" ? kNull : std::stoi(result);
  }
}

void Faults::clear() {
  order("");
}

std::optional<int> Faults::due(const std::string &kind) {
  const std::lock_guard hold(mutex_);
  const auto found = orders_.find(kind + std::to_string(++calls_[kind]));
  return found == orders_.end() ? std::nullopt : std::optional(found->second);
}

Faults &faults() {
  static Faults the;
  return the;
}

std::string entry_of(const std::string &kind, const std::string &arguments, int result) {
  const bool search = kind == "search", change = kind == "insert" || kind == "delete";
  const std::string good = search ? "hit" : change ? "ok" : "0";
  const std::string null = search ? "none" : change ? "no" : "NULL";
  return kind + (arguments.empty() ? "" : "(" + arguments + ")") + "=" +
         (result == 0       ? good
          : result == kNull ? null
                            : std::to_string(result));
}

namespace {

constexpr std::uint8_t kFill = 0xA5;
constexpr std::size_t kGap = 64;
constexpr std::size_t kHeaderBytes = 256;

}  // namespace

void Arena::reset() {
  if (base_ == nullptr) {
    base_ =
        static_cast<std::uint8_t *>(mmap(nullptr, kBytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  }
  std::memset(base_, kFill, used_ == 0 ? kBytes : used_ + kGap);
  used_ = kHeaderBytes + kGap;
  blocks_.clear();
}

void *Arena::take(std::size_t bytes) {
  std::uint8_t *block = base_ + used_;
  used_ += (bytes + 7) / 8 * 8 + kGap;
  if (used_ + kGap > kBytes) {
    std::abort();  // a test that needs a larger window
  }
  blocks_[block] = bytes;
  return block;
}

bool Arena::give(void *block) {
  const auto found = blocks_.find(static_cast<std::uint8_t *>(block));
  if (found == blocks_.end()) {
    return false;
  }
  std::memset(found->first, kFill, found->second);
  blocks_.erase(found);
  return true;
}

bool Arena::gaps_intact() const {
  const auto filled = [](const std::uint8_t *from, const std::uint8_t *to) {
    return std::all_of(from, to, [](std::uint8_t byte) { return byte == kFill; });
  };
  const std::uint8_t *at = base_ + sizeof(egress_encap_db_t);
  for (const auto &[block, bytes] : blocks_) {
    if (!filled(at, block)) {
      return false;
    }
    at = block + bytes;
  }
  return filled(at, base_ + used_ + kGap);
}

egress_encap_db_t *Arena::header() const {
  return static_cast<egress_encap_db_t *>(static_cast<void *>(base_));
}

bool Arena::covers(const void *address) const {
  const auto *byte = static_cast<const std::uint8_t *>(address);
  return byte >= base_ && byte < base_ + kBytes;
}

Arena &arena() {
  static Arena the;
  return the;
}

const std::vector<Site> &sites() {
  static const std::vector<Site> by_id = [] {
    std::vector<Site> all;
    for (ed_site_t *site = ed_dummy_libmpls_egress_encap_db.next; site != nullptr; site = site->next) {
      all.push_back({site, site->line});
    }
    std::reverse(all.begin(), all.end());  // the chain falls from the last line to the first
    return all;
  }();
  return by_id;
}

void set_reports(Reports reports) {
  const unsigned more = reports == Reports::messages ? ED_SITE_ON : reports == Reports::none ? ED_SITE_TRACE_IF_ON : 0;
  for (const Site &point : sites()) {
    const unsigned stored = ED_SITE_PRESENT | ED_SITE_MESSAGE |
                            (point.site->trace_index == ED_NO_TRACE_INDEX ? 0u : unsigned{ED_SITE_TRACE});
    point.site->flags = static_cast<std::uint16_t>(stored | more);
    point.site->line = point.line;
  }
}

}  // namespace encap_test
