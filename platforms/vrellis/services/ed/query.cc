#include "ed/query.h"

#include <algorithm>
#include <charconv>

namespace vrellis {

namespace {

constexpr std::array<QueryKeyword, 6> kKeywords = {{
    {"component", &ed_point_t::component, nullptr, "no component matches"},
    {"func", &ed_point_t::function, nullptr, "no function matches"},
    {"category", &ed_point_t::category, nullptr, "unknown category"},
    {"text", &ed_point_t::text, nullptr, "no message contains"},
    {"line", nullptr, &ed_point_t::line, "no point on line"},
    {"id", nullptr, &ed_point_t::id, "no point with id"},
}};

// The flag letters. `inverted`: the letter is on when the bit is clear.
struct FlagLetter {
  char letter;
  uint16_t bit;
  bool inverted;
};
constexpr std::array<FlagLetter, 4> kFlagLetters = {{
    {'p', ED_SITE_ON, false},
    {'s', ED_SITE_SLOW, false},
    {'t', ED_SITE_TRACE_IF_ON, true},
    {'q', ED_SITE_QUIET, false},
}};
constexpr uint16_t kSwitchedBits = ED_SITE_ON | ED_SITE_SLOW | ED_SITE_TRACE_IF_ON | ED_SITE_QUIET | ED_SITE_INVERT |
                                   ED_SITE_LINE_FILTER;  // all clear in a stored point

constexpr bool is_blank(char c) {
  return c == ' ' || c == '\t' || c == '\r';
}
constexpr bool is_separator(char c) {
  return c == ';' || c == '\n';
}

bool read_number(std::string_view &text, uint32_t &number) {
  const auto [end, problem] = std::from_chars(text.begin(), text.end(), number);
  if (problem != std::errc{}) {
    return false;
  }
  text.remove_prefix(static_cast<size_t>(end - text.begin()));
  return true;
}

// "N" or "N-M".
bool read_range(std::string_view text, QueryCondition &condition) {
  if (!read_number(text, condition.low)) {
    return false;
  }
  condition.high = condition.low;
  if (text.starts_with('-')) {
    text.remove_prefix(1);
    if (!read_number(text, condition.high)) {
      return false;
    }
  }
  return text.empty() && condition.low <= condition.high;
}

bool is_change(std::string_view word) {
  return !word.empty() && std::string_view("+-=").find(word[0]) != word.npos;
}

// "+pt", "-s", "=p", "=_".
bool read_change(std::string_view word, size_t position, Query &query, ed_query_error_t &error) {
  const char sign = word[0];
  query.from_stored = sign == '=';
  if (word == "=_") {
    return true;
  }
  if (word.size() == 1) {
    describe_mistake(error, position, "'%c' wants flags after it, such as %cp", sign, sign);
    return false;
  }
  for (size_t i = 1; i < word.size(); ++i) {
    const auto same = [&](const FlagLetter &known) { return known.letter == word[i]; };
    const auto flag = std::find_if(kFlagLetters.begin(), kFlagLetters.end(), same);
    if (flag == kFlagLetters.end()) {
      describe_mistake(error, position + i, "unknown flag '%c': the flags are p, s, t and q, or =_ for none", word[i]);
      return false;
    }
    const bool sets_bit = (sign == '-') == flag->inverted;
    uint16_t &bits = sets_bit ? query.set : query.clear;
    bits = static_cast<uint16_t>(bits | flag->bit);
  }
  return true;
}

}  // namespace

uint16_t Query::changed_flags(uint16_t flags) const {
  const uint16_t changeable = (flags & ED_SITE_TRACE) != 0 ? 0xffff : 0xffff & ~ED_SITE_TRACE_IF_ON;
  const auto base = from_stored ? flags & ~kSwitchedBits : flags;
  return static_cast<uint16_t>((base & ~(clear & changeable)) | (set & changeable));
}

bool QueryReader::at_statement_end() const {
  return at_ == text_.size() || is_separator(text_[at_]);
}

void QueryReader::skip_blanks() {
  while (at_ < text_.size() && is_blank(text_[at_])) {
    ++at_;
  }
}

// Called in front of a word, not at the end of the statement.
QueryReader::Word QueryReader::next_word() {
  Word word{{}, static_cast<uint32_t>(at_), text_[at_] == '"', true};
  if (word.quoted) {
    const size_t close = text_.find('"', at_ + 1);
    word.closed = close != text_.npos;
    const size_t end = word.closed ? close : text_.size();
    word.text = {text_.data() + at_ + 1, end - at_ - 1};
    at_ = word.closed ? end + 1 : end;
  } else {
    const size_t start = at_;
    while (!at_statement_end() && !is_blank(text_[at_])) {
      ++at_;
    }
    word.text = {text_.data() + start, at_ - start};
  }
  skip_blanks();
  return word;
}

QueryReader::Result QueryReader::next(Query &query, ed_query_error_t &error) {
  if (text_.size() > kMaxQueryLength) {
    describe_mistake(error, kMaxQueryLength, "a query has at most %zu bytes", kMaxQueryLength);
    text_ = {};
    return Result::mistake;
  }
  while (at_ < text_.size() && (is_separator(text_[at_]) || is_blank(text_[at_]))) {
    ++at_;
  }
  if (at_ == text_.size()) {
    return Result::end;
  }
  query = Query{};
  query.position = static_cast<uint32_t>(at_);
  if (read_statement(query, error)) {
    return Result::statement;
  }
  while (!at_statement_end()) {
    next_word();
  }
  return Result::mistake;
}

bool QueryReader::read_statement(Query &query, ed_query_error_t &error) {
  while (!at_statement_end()) {
    const Word word = next_word();
    if (word.quoted || !is_change(word.text)) {
      if (!read_condition(query, word, error)) {
        return false;
      }
      continue;
    }
    if (!at_statement_end()) {
      describe_mistake(error, at_, "the change of flags '%.*s' ends a statement; separate statements by ';'",
                       quotable(word.text), word.text.data());
      return false;
    }
    return read_change(word.text, word.position, query, error);
  }
  describe_mistake(error, at_, "a statement ends in a change of flags such as +p");
  return false;
}

bool QueryReader::read_condition(Query &query, const Word &word, ed_query_error_t &error) {
  const auto keyword = std::find_if(kKeywords.begin(), kKeywords.end(),
                                    [&](const QueryKeyword &known) { return !word.quoted && known.word == word.text; });
  if (keyword == kKeywords.end()) {
    NearNames near;
    for (const QueryKeyword &known : kKeywords) {
      near.offer(word.text, known.word);
    }
    describe_mistake(error, word.position, "unknown keyword '%.*s'", quotable(word.text), word.text.data());
    near.tell(error);
    return false;
  }
  if (query.num_conditions == kMaxConditions) {
    describe_mistake(error, word.position, "a statement has at most %zu conditions", kMaxConditions);
    return false;
  }
  if (at_statement_end()) {
    describe_mistake(error, at_, "'%s' wants a value after it", keyword->word.data());
    return false;
  }
  const Word argument = next_word();
  QueryCondition &condition = query.condition[query.num_conditions++];
  condition = {&*keyword, argument.position, argument.text, 0, 0};
  if (!argument.closed) {
    describe_mistake(error, argument.position, "the quote that begins here has no end");
    return false;
  }
  if (keyword->number != nullptr && !read_range(argument.text, condition)) {
    describe_mistake(error, argument.position, "'%s' wants a number N or a range N-M, not '%.*s'", keyword->word.data(),
                     quotable(argument.text), argument.text.data());
    return false;
  }
  return true;
}

}  // namespace vrellis

void ed_flag_letters(uint16_t flags, char letters[8]) {
  size_t length = 0;
  for (const vrellis::FlagLetter &each : vrellis::kFlagLetters) {
    if (((flags & each.bit) != 0) != each.inverted &&
        (each.bit != ED_SITE_TRACE_IF_ON || (flags & ED_SITE_TRACE) != 0)) {
      letters[length++] = each.letter;
    }
  }
  letters[length] = '\0';
}
