// The debug query parser: any text, against a handful of points.
#include "ed/query.h"
#include "fuzz_input.h"

namespace {

constexpr ed_point_t kPoints[] = {
    {"libports", "event", "port_open", "\"port %u opened\"", 0, 200, 1, 3},
    {"libports", "error", "port_close", "\"out of memory: \" \"rc %d\"", 1, 110, 1, 0},
    {"libmpls", "flow", "", "", 2, 90, 0, 0xffff},
    {"", "", "*", "[?]", UINT32_MAX, UINT32_MAX, 15, 1},
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  const std::string text(reinterpret_cast<const char *>(data), size);
  vrellis::QueryReader reader(text);
  for (std::size_t statements = 0;; ++statements) {
    if (statements > size + 1) {
      fuzz::found("the parser stands still");
    }
    vrellis::Query query;
    ed_query_error_t error{};
    const auto result = reader.next(query, error);
    if (result == vrellis::QueryReader::Result::end) {
      break;
    }
    if (result == vrellis::QueryReader::Result::mistake) {
      if (error.position > size || error.text[0] == '\0' ||
          std::memchr(error.text, '\0', sizeof error.text) == nullptr) {
        fuzz::found("a mistake without its place or reason");
      }
      continue;
    }
    vrellis::Verdict verdict(query);
    for (const ed_point_t &point : kPoints) {
      verdict.see(point);
      query.changed_flags(point.flags);
      query.may_concern(point.component);
    }
    verdict.sound(error);
  }
  ed_query(text.c_str(), nullptr);
  return 0;
}
