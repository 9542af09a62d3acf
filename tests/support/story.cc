#include "support/story.h"

#include <sstream>

#include "support/expected_points.h"
#include "support/fixture.h"

namespace encap_test {

std::string Story::value_of(const std::string &name) const {
  const auto found = values.find(name);
  return name == "0" ? name : found == values.end() ? "?" + name : std::to_string(found->second);
}

int Story::call(const char *kind, const char *arguments, KeyBytes key, bool can) {
  const int result = orders.due(kind).value_or(can ? 0 : kNull);
  const bool allocates = std::string(kind) == "malloc";
  write(entry_of(kind,
                 (allocates ? std::to_string(kWindow) + "," : "") + arguments + (key.empty() ? "" : "," + name_of(key)),
                 result));
  return result;
}

void Story::know(Named more) {
  for (const auto &[name, value] : more) {
    values[name] = value;
  }
}

void Story::point(std::uint32_t id) {
  const ExpectedPoint &point = expected_points().at(id);
  const std::string number = std::to_string(id);
  std::string print = "print(" + number + ")";
  std::string records = point.values.empty() ? "trace(" + number + ".0)=0" : "";
  for (std::size_t i = 0; i < point.values.size(); ++i) {
    const std::string value = value_of(point.values[i]);
    print += (i != 0 ? "," : "=") + value;
    if (i % 7 == 0) {
      records += (i != 0 ? "\n" : "") + ("trace(" + number + "." + std::to_string(i / 7)) + ")=" + value;
    } else {
      records += "," + value;
    }
  }
  text_ += reports == Reports::messages ? print + "\n" : "";
  text_ += reports != Reports::none && point.traced ? records + "\n" : "";
  if (const auto action = at_point.find(id); action != at_point.end()) {
    action->second();
  }
}

void Story::raise(const char *message, const char *function) {
  static const std::map<std::string, const char *> fields = {{"NH_NOTVALID_ERROR", "nh count"},
                                                             {"TUN_NOTVALID_ERROR", "tun slot count"}};
  const auto own = fields.find(message);
  std::istringstream words(own == fields.end() ? "l1 l2 l3 te fo proto ifh nh tun seed" : own->second);
  std::string line = std::string(message) + "(" + function;
  for (std::string word; words >> word;) {
    line += "," + value_of(word);
  }
  write(line + ")");
}

namespace {

// What stands in the brackets of "50(count=3,rc=1)".
void read_arguments(const std::string &word, Values &to) {
  const std::size_t open = word.find('(');
  std::istringstream arguments(open == std::string::npos ? "" : word.substr(open + 1, word.size() - open - 2));
  for (std::string argument; std::getline(arguments, argument, ',');) {
    const std::size_t equals = argument.find('=');
    to[argument.substr(0, equals)] = static_cast<std::uint32_t>(std::stoull(argument.substr(equals + 1), nullptr, 0));
  }
}

void replace(std::string &word, const char *sign, const std::string &name) {
  if (const auto at = word.find(sign); at != std::string::npos) {
    word.replace(at, 2, name);
  }
}

}  // namespace

std::string expand(const std::string &stream, const Values &values, Reports reports) {
  Story story;
  story.reports = reports;
  std::istringstream words(stream);
  for (std::string word; words >> word;) {
    const std::string head = word.substr(0, word.find('('));
    if (head.find_first_not_of("0123456789") == std::string::npos) {
      story.values = values;
      read_arguments(word, story.values);
      story.point(static_cast<std::uint32_t>(std::stoul(head)));
    } else {
      replace(word, "$T", name_of(tunnel_key(full_key())));
      replace(word, "$N", name_of(nh_key(full_key())));
      story.write(word);
    }
  }
  return story.take();
}

}  // namespace encap_test
