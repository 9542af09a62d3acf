// What the library must write into the journal: put together from what the model tells of its operations, or from a
// stream written by hand.
#ifndef ENCAP_TESTS_STORY_H
#define ENCAP_TESTS_STORY_H

#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "doubles/journal.h"
#include "model/model_steps.h"

namespace encap_test {

using Values = std::map<std::string, std::uint32_t>;

// The names of the values that a point reports, in their order.
const std::vector<std::string> &values_of_point(std::uint32_t id);
inline constexpr std::uint32_t kNeverEmitted = 88;  // a point that only keeps its place

class Story : public Listener {
 public:
  int call(const char *kind, const char *arguments, KeyBytes key, bool can) override;
  void tell(const char *call, KeyBytes key) override { write(key.empty() ? call : call + ("(" + name_of(key)) + ")"); }
  void know(Named more) override;
  void point(std::uint32_t id) override;
  void raise(const char *message, const char *function) override;

  void write(const std::string &entry) { text_ += entry + "\n"; }
  std::string take() { return std::exchange(text_, ""); }

  Reports reports = Reports::messages;  // without messages, points take a shorter road to the same records
  Values values;                        // of the names in points and messages
  Faults orders;                        // those that the doubles have got
  std::map<std::uint32_t, std::function<void()>> at_point;  // what another process does at that moment

 private:
  std::string value_of(const std::string &name) const;
  std::string text_;
};

// The journal that a stream stands for: each number is the point with its message (when on) and trace records, with
// values by their names; any other word is itself.
std::string expand(const std::string &stream, const Values &values, Reports reports = Reports::messages);

}  // namespace encap_test

#endif
