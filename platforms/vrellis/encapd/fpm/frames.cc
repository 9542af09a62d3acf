#include "frames.h"

namespace encapd {
namespace {

constexpr std::size_t kHeaderBytes = 4;
constexpr std::uint8_t kVersion = 1;
constexpr std::uint8_t kNetlink = 1;

}  // namespace

Frames::Next Frames::next(Bytes *messages) {
  const std::size_t left = end_ - begin_;
  const std::uint8_t *const at = buffer_.data() + begin_;
  const std::size_t length = left < kHeaderBytes ? kHeaderBytes : std::size_t{at[2]} << 8 | at[3];
  if ((left > 0 && at[0] != kVersion) || length < kHeaderBytes) {
    return Next::kBroken;
  }
  if (left < length || left < kHeaderBytes) {
    std::memmove(buffer_.data(), at, left);
    begin_ = 0;
    end_ = left;
    return Next::kNone;
  }
  begin_ += length;
  if (at[1] != kNetlink) {
    return Next::kForeign;
  }
  *messages = Bytes(at + kHeaderBytes, length - kHeaderBytes);
  if (reinterpret_cast<std::uintptr_t>(messages->data()) % alignof(std::uint32_t) != 0) {
    aligned_.assign(messages->begin(), messages->end());
    *messages = aligned_;
  }
  return Next::kFrame;
}

}  // namespace encapd
