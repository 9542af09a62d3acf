// Cuts what a router sends into frames of the forwarding plane manager's protocol.
//
//   byte 0        1        2        4            length
//        version  type     length   netlink messages, in the byte order of the host
//        1        1        in network order, these four bytes included
#ifndef VRELLIS_ENCAPD_FRAMES_H
#define VRELLIS_ENCAPD_FRAMES_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <vector>

namespace encapd {

using Bytes = std::span<const std::uint8_t>;

class Frames {
 public:
  static constexpr std::size_t kRoom = std::size_t{1} << 18;  // more than three of the largest frames

  enum class Next : std::uint8_t { kFrame, kForeign, kNone, kBroken };

  // Where the next bytes are to be put; at least one byte, when next() was called until it returned kNone.
  std::span<std::uint8_t> room() { return std::span(buffer_).subspan(end_); }
  void add(std::size_t count) { end_ += count; }

  // Out: *messages, the content of a frame, until the next call of add(); its first byte is aligned to 4.
  // Returns: kFrame; kForeign, a frame of another type, to be skipped; kNone, when more bytes are needed; kBroken, when
  // the bytes are no frames. Nothing follows then.
  Next next(Bytes *messages);

  void clear() { begin_ = end_ = 0; }

 private:
  std::vector<std::uint8_t> buffer_ = std::vector<std::uint8_t>(kRoom);
  std::vector<std::uint8_t> aligned_;  // a copy of a frame that lies at an odd place
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
};

}  // namespace encapd

#endif
