/*
 * The query language that selects debug points and changes their flags; ed.h describes it. Internal.
 *
 * It works on ed_point_t rows alone, so that a tool can switch the points of another process in the same way: the tool
 * links ed/query.cc and ed/query_verdict.cc, reads the statements, lets a Verdict see every row, and,
 * when it is sound, stores changed_flags() in the rows that the statement selects.
 *
 * Takes any bytes: no recursion, no allocation, fixed buffers. A Query refers to the text that it was read from.
 */
#ifndef VRELLIS_ED_QUERY_H
#define VRELLIS_ED_QUERY_H

#include <algorithm>
#include <array>
#include <cstdint>
#include <string_view>

#include "ed.h"

namespace vrellis {

inline constexpr size_t kMaxQueryLength = 4096;
inline constexpr size_t kMaxConditions = 8;

// A keyword compares its argument with one field of a point: a name (glob or contained text) or a number (range).
struct QueryKeyword {
  std::string_view word;
  const char *ed_point_t::*name;
  uint32_t ed_point_t::*number;
  const char *no_match;  // what to say of an argument that holds for no point
};

struct QueryCondition {
  const QueryKeyword *keyword;
  uint32_t position;  // of the argument
  std::string_view argument;
  uint32_t low, high;  // of a range

  bool holds(const ed_point_t &point) const;
};

// One statement.
struct Query {
  uint32_t position = 0;
  std::array<QueryCondition, kMaxConditions> condition{};
  size_t num_conditions = 0;
  bool from_stored = false;  // start from the stored state
  uint16_t set = 0;
  uint16_t clear = 0;

  bool selects(const ed_point_t &point) const;
  bool may_concern(const char *component) const;  // false when its conditions name other components
  uint16_t changed_flags(uint16_t flags) const;
};

// Reads the statements of a text one after the other.
class QueryReader {
 public:
  enum class Result { statement, mistake, end };

  explicit QueryReader(std::string_view text) : text_(text) {}

  // On a mistake fills `error` and goes on behind the statement at the next call.
  Result next(Query &query, ed_query_error_t &error);

 private:
  struct Word {
    std::string_view text;  // without quotes
    uint32_t position;
    bool quoted;
    bool closed;  // not a quote without its end
  };

  bool at_statement_end() const;
  void skip_blanks();
  Word next_word();
  bool read_statement(Query &query, ed_query_error_t &error);
  bool read_condition(Query &query, const Word &keyword, ed_query_error_t &error);

  std::string_view text_;
  size_t at_ = 0;
};

// The names nearest to one that matched nothing, by edit distance.
class NearNames {
 public:
  void offer(std::string_view wanted, std::string_view name);
  void tell(ed_query_error_t &error) const;  // fills near_name and appends the question to the sentence

 private:
  struct Name {
    std::string_view text;
    size_t distance;
  };
  std::array<Name, 3> name_{};
  size_t count_ = 0;
};

// Whether a statement makes sense for a set of points: each of its conditions holds somewhere, and all of them
// together.
class Verdict {
 public:
  explicit Verdict(const Query &query) : query_(query) {}

  void see(const ed_point_t &point);  // its names must live as long as the verdict
  bool sound(ed_query_error_t &error) const;

 private:
  const Query &query_;
  bool selected_ = false;
  std::array<bool, kMaxConditions> held_{};
  std::array<bool, kMaxConditions> named_{};  // some point has a name for it
  std::array<NearNames, kMaxConditions> near_{};
};

// How much of a word a sentence repeats.
inline int quotable(std::string_view word) {
  return static_cast<int>(std::min<size_t>(word.size(), 60));
}

// Fills position and text: "column 6: " and a printf-style text, unprintable bytes replaced.
[[gnu::format(printf, 3, 4)]] void describe_mistake(ed_query_error_t &error, size_t position, const char *format, ...);

}  // namespace vrellis

#endif
