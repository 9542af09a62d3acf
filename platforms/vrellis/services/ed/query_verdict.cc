#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "ed/format.h"
#include "ed/query.h"

namespace vrellis {

namespace {

bool glob_matches(std::string_view glob, std::string_view name) {
  size_t g = 0;
  size_t n = 0;
  size_t star = glob.npos;  // the last star seen, and how far the name had come there
  size_t resume = 0;
  while (n < name.size()) {
    if (g < glob.size() && glob[g] == '*') {
      star = g++;
      resume = n;
    } else if (g < glob.size() && (glob[g] == '?' || glob[g] == name[n])) {
      ++g;
      ++n;
    } else if (star != glob.npos) {
      g = star + 1;
      n = ++resume;
    } else {
      return false;
    }
  }
  return glob.find_first_not_of('*', g) == glob.npos;
}

// Edits that make `name` match `glob`, of both at most the first 63 characters.
size_t edit_distance(std::string_view glob, std::string_view name) {
  std::array<size_t, 64> row{};
  glob = glob.substr(0, row.size() - 1);
  name = name.substr(0, row.size() - 1);
  for (size_t j = 0; j <= name.size(); ++j) {
    row[j] = j;
  }
  for (const char g : glob) {
    const size_t skip = g == '*' ? 0 : 1;
    size_t diagonal = row[0];
    row[0] += skip;
    for (size_t j = 1; j <= name.size(); ++j) {
      const size_t replaced = diagonal + (g == '*' || g == '?' || g == name[j - 1] ? 0 : 1);
      diagonal = row[j];
      row[j] = std::min({replaced, row[j] + skip, row[j - 1] + skip});
    }
  }
  return row[name.size()];
}

}  // namespace

void describe_mistake(ed_query_error_t &error, size_t position, const char *format, ...) {
  error.position = static_cast<uint32_t>(position);
  error.num_near = 0;
  const int start = std::snprintf(error.text, sizeof(error.text), "column %zu: ", position + 1);
  va_list arguments;
  va_start(arguments, format);
  // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): va_start() is right above, the analyzer misses it here
  std::vsnprintf(error.text + start, sizeof(error.text) - static_cast<size_t>(start), format, arguments);
  va_end(arguments);
  const auto unprintable = [](char c) { return c != '\0' && (c < ' ' || c > '~'); };
  std::replace_if(error.text, error.text + std::strlen(error.text), unprintable, '?');
}

bool QueryCondition::holds(const ed_point_t &point) const {
  if (keyword->number != nullptr) {
    return point.*keyword->number >= low && point.*keyword->number <= high;
  }
  const char *name = point.*keyword->name;
  return keyword->name == &ed_point_t::text ? joined_text_contains(name, argument) : glob_matches(argument, name);
}

bool Query::selects(const ed_point_t &point) const {
  return std::all_of(condition.begin(), condition.begin() + num_conditions,
                     [&](const QueryCondition &each) { return each.holds(point); });
}

bool Query::may_concern(const char *component) const {
  return std::all_of(condition.begin(), condition.begin() + num_conditions, [&](const QueryCondition &each) {
    return each.keyword->name != &ed_point_t::component || glob_matches(each.argument, component);
  });
}

void NearNames::offer(std::string_view wanted, std::string_view name) {
  const bool part = !wanted.empty() && name.find(wanted) != name.npos;
  const size_t distance = part ? 1 : edit_distance(wanted, name);
  if (name.empty() || distance >= wanted.size() || distance > std::max<size_t>(2, wanted.size() / 4)) {
    return;
  }
  const auto end = name_.begin() + count_;
  if (std::any_of(name_.begin(), end, [&](const Name &known) { return known.text == name; })) {
    return;
  }
  const auto place = std::find_if(name_.begin(), end, [&](const Name &known) { return known.distance > distance; });
  if (place == name_.end()) {
    return;
  }
  count_ = std::min(count_ + 1, name_.size());
  std::move_backward(place, name_.begin() + count_ - 1, name_.begin() + count_);
  *place = {name, distance};
}

void NearNames::tell(ed_query_error_t &error) const {
  constexpr std::array<const char *, 3> kBefore = {"; did you mean '", "', '", "', '"};
  error.num_near = static_cast<uint32_t>(count_);
  size_t end = std::strlen(error.text);
  for (size_t i = 0; i < count_; ++i) {
    char *copy = error.near_name[i];
    copy[name_[i].text.copy(copy, sizeof(error.near_name[i]) - 1)] = '\0';
    std::snprintf(error.text + end, sizeof(error.text) - end, "%s%s%s", kBefore[i], copy, i + 1 == count_ ? "'?" : "");
    end = std::strlen(error.text);
  }
}

void Verdict::see(const ed_point_t &point) {
  selected_ = selected_ || query_.selects(point);
  for (size_t i = 0; i < query_.num_conditions; ++i) {
    const QueryCondition &condition = query_.condition[i];
    const QueryKeyword &keyword = *condition.keyword;
    if (held_[i]) {
      continue;
    }
    held_[i] = condition.holds(point);
    if (keyword.name == nullptr) {
      continue;
    }
    named_[i] = named_[i] || (point.*keyword.name)[0] != '\0';
    if (keyword.name != &ed_point_t::text) {
      near_[i].offer(condition.argument, point.*keyword.name);
    }
  }
}

bool Verdict::sound(ed_query_error_t &error) const {
  if (selected_) {
    return true;
  }
  for (size_t i = 0; i < query_.num_conditions; ++i) {
    const QueryCondition &condition = query_.condition[i];
    if (held_[i]) {
      continue;
    }
    const bool nameless = condition.keyword->name != nullptr && !named_[i];
    describe_mistake(error, condition.position, "%s '%.*s'%s", condition.keyword->no_match,
                     quotable(condition.argument), condition.argument.data(),
                     nameless ? ": the points have no catalogue" : "");
    near_[i].tell(error);
    return false;
  }
  describe_mistake(error, query_.position, "no point matches %s",
                   query_.num_conditions == 0 ? "as none is registered" : "all of these conditions");
  return false;
}

}  // namespace vrellis
