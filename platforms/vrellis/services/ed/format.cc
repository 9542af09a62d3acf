#include "ed/format.h"

#include <array>
#include <charconv>

namespace {

using vrellis::StoredText;

// Writes what fits and counts everything.
class Output {
 public:
  Output(char *out, size_t room) : out_(out), room_(room) {}

  void put(char c, size_t times) {
    for (; times != 0; --times, ++length_) {
      if (length_ + 1 < room_) {
        out_[length_] = c;
      }
    }
  }
  void put(std::string_view piece) {
    for (const char c : piece) {
      put(c, 1);
    }
  }
  size_t finish() {
    if (room_ != 0) {
      out_[length_ < room_ ? length_ : room_ - 1] = '\0';
    }
    return length_;
  }

 private:
  char *out_;
  size_t room_;
  size_t length_ = 0;
};

// One conversion, "%08lx", in the characters that were read of it.
struct Conversion {
  std::array<char, 8> read{};  // "%", "0", two digits, "ll" and the letter at the most
  size_t length = 0;
  unsigned width = 0;
  bool zero_padded = false;
  bool is_long = false;
  char letter = '\0';  // '\0': none of ours

  std::string_view characters() const { return {read.data(), length}; }

  // Takes one more character; false when it does not belong to a conversion. A letter is its last.
  bool take(char c) {
    constexpr std::string_view kLetters = "diuxX";
    const bool digit = c >= '0' && c <= '9';
    if (c == '0' && length == 1) {
      zero_padded = true;
    } else if (digit && !is_long && width < 10 && (width != 0 || c != '0')) {
      width = width * 10 + static_cast<unsigned>(c - '0');
    } else if (c == 'l' && (!is_long || read[length - 2] != 'l')) {
      is_long = true;
    } else if (kLetters.find(c) != kLetters.npos || (c == '%' && length == 1)) {
      letter = c;
    } else {
      return false;
    }
    read[length++] = c;
    return true;
  }
};

// Reads on after a '%', as far as the characters belong to a conversion.
Conversion read_conversion(StoredText &text) {
  Conversion result;
  result.read[result.length++] = '%';
  StoredText ahead = text;
  char c = 0;
  while (result.letter == '\0' && ahead.next(c) && result.take(c)) {
    text = ahead;
  }
  return result;
}

void put_padded(Output &out, const Conversion &conversion, bool negative, std::string_view digits) {
  const size_t length = digits.size() + (negative ? 1 : 0);
  const size_t padding = conversion.width > length ? conversion.width - length : 0;
  if (!conversion.zero_padded) {
    out.put(' ', padding);
  }
  if (negative) {
    out.put('-', 1);
  }
  if (conversion.zero_padded) {
    out.put('0', padding);
  }
  out.put(digits);
}

void put_value(Output &out, const Conversion &conversion, uint64_t value) {
  const bool is_signed = conversion.letter == 'd' || conversion.letter == 'i';
  const bool hex = conversion.letter == 'x' || conversion.letter == 'X';
  if (!conversion.is_long) {  // a value is a 32-bit pattern
    value = is_signed ? static_cast<uint64_t>(static_cast<int32_t>(value)) : static_cast<uint32_t>(value);
  }
  const bool negative = is_signed && static_cast<int64_t>(value) < 0;
  std::array<char, 24> digits{};
  const auto end = std::to_chars(digits.begin(), digits.end(), negative ? 0 - value : value, hex ? 16 : 10).ptr;
  for (char &digit : digits) {
    if (conversion.letter == 'X' && digit >= 'a') {
      digit = static_cast<char>(digit - 'a' + 'A');
    }
  }
  put_padded(out, conversion, negative, {digits.data(), static_cast<size_t>(end - digits.data())});
}

size_t format(char *room, size_t size, StoredText text, const uint64_t *values, unsigned n) {
  Output out(room, size);
  unsigned used = 0;
  char c = 0;
  while (text.next(c)) {
    if (c != '%') {
      out.put(c, 1);
      continue;
    }
    const Conversion conversion = read_conversion(text);
    if (conversion.letter == '%') {
      out.put('%', 1);
    } else if (conversion.letter != '\0' && used < n) {
      put_value(out, conversion, values[used++]);
    } else {
      out.put(conversion.characters());
    }
  }
  return out.finish();
}

}  // namespace

size_t ed_format_stored(char *out, size_t room, const char *stored, const uint64_t *values, unsigned n) {
  return format(out, room, {stored, StoredText::Form::stored}, values, n);
}

size_t ed_format_joined(char *out, size_t room, const char *stored, const uint64_t *values, unsigned n) {
  return format(out, room, {stored, StoredText::Form::joined}, values, n);
}
