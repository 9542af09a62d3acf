#include "doubles/story.h"

#include <iterator>
#include <sstream>

#include "diag/catalogue.h"

namespace encap_test {
namespace {

// The names of each point's values, a semicolon behind each point; a number stands for itself. KEY, NH and TUN are all
// fields of a key or of its parts. The comments tell the first point of each line.
constexpr char kValuesOfPoints[] =
    "; ; ifh l2 l3 result; l1 te fo proto l2vpn result;"                                          // 0: look-ups
    "TUN; TUN; TUN; 0; NH; NH; NH; 0;"                                                            // 4: new nodes
    "TUN; TUN; 0; NH; NH; 0;"                                                                     // 12: deletes
    "nh count; nh count; tun slot count; tun slot count; tun nh NH ifh prot fid fnh; tun l2 l3;"  // 18: fills slots
    "nh; nh tun slot KEY seed prot fid fnh;"                                                      // 24: read-back
    "nh count; nh count; nh count del; tun count; tun count; tun count del;"                      // 26: counts down
    "nh; nh count; nh;"                                                                           // 32: can delete
    "KEY; rc; tun; nh; rc; 0 nhf tunf nh tun;"                                                    // 35: find and share
    "rc; tun; nh; rc; 0 nhf tunf nh tun; nh; rc; rc; 0 nh;"                                       // 41: find, share
    "KEY tunf nhf nh tun prot fid fnh; tun 0 KEY; nh 0 NH; rc; rc; rc; rc; rc; nh 0 NH; rc; rc;"  // 50: insert
    "KEY; NH rc; rc; nh; rc; rc; rc; 0;"                                                          // 61: insert
    "nh; nh seed prot fid fnh; nh count; nh; rc; nh; rc;"                                         // 69: update, read
    "nh; rc; nh old count; nh old count; rc; ; rc nh; count nh rc; nh;"                           // 76: set, attach
    "nh; rc; nh; ; KEY nh tun seed prot; KEY nh tun seed prot;"                                   // 85: detach
    "NH nh tun rc; tun edb prm; tun TUN rc; 0; rc; rc_nh rc_tun rc;"                              // 91: detach
    "nh; rc; nh; KEY nh tun del seed prot; KEY nh tun del edb seed prot;"                         // 97: release
    "KEY nh tun seed prot; NH nh tun rc; tun edb prm; tun TUN rc; 0; rc; rc_nh rc_tun rc;"        // 102: release
    "slots; rc; nh_size; rc; ; ; shm_id nh_start nh_end tun_start tun_end; rc; rc; rc; 0";        // 109: initialisation

std::vector<std::string> names_in(std::string text) {
  constexpr std::pair<const char *, const char *> kFields[] = {
      {"KEY", "l1 l2 l3 te fo l2vpn proto ifh"}, {"NH", "l1 te fo l2vpn proto"}, {"TUN", "l2 l3 ifh"}};
  for (const auto &[name, fields] : kFields) {
    if (const auto at = text.find(name); at != std::string::npos) {
      text.replace(at, std::string(name).size(), fields);
    }
  }
  std::istringstream words(text);
  return {std::istream_iterator<std::string>(words), {}};
}

}  // namespace

const std::vector<std::string> &values_of_point(std::uint32_t id) {
  static const std::vector<std::vector<std::string>> all = [] {
    std::vector<std::vector<std::string>> points;
    std::istringstream texts(kValuesOfPoints);
    for (std::string text; std::getline(texts, text, ';');) {
      points.push_back(names_in(text));
    }
    return points;
  }();
  return all.at(id);
}

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
  const std::vector<std::string> &names = values_of_point(id);
  const std::string number = std::to_string(id);
  std::string print = "print(" + number + ")";
  std::string records = names.empty() ? "trace(" + number + ".0)=0" : "";
  for (std::size_t i = 0; i < names.size(); ++i) {
    const std::string value = value_of(names[i]);
    print += (i != 0 ? "," : "=") + value;
    if (i % 7 == 0) {
      records += (i != 0 ? "\n" : "") + ("trace(" + number + "." + std::to_string(i / 7)) + ")=" + value;
    } else {
      records += "," + value;
    }
  }
  text_ += reports == Reports::messages ? print + "\n" : "";
  text_ += reports != Reports::none && encap_catalogue.row[id].traced != 0 ? records + "\n" : "";
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

std::string expand(const std::string &stream, const Values &values, Reports reports) {
  Story story;
  story.reports = reports;
  story.values = values;
  std::istringstream words(stream);
  for (std::string word; words >> word;) {
    if (word.find_first_not_of("0123456789") == std::string::npos) {
      story.point(static_cast<std::uint32_t>(std::stoul(word)));
    } else {
      story.write(word);
    }
  }
  return story.take();
}

}  // namespace encap_test
