/*
 * One line of the log, for the facilities that print: built on the stack, handed on in one piece. Internal.
 *
 *   2026-03-01 14:05:09.123456 4711/4713 <what the facility says>
 *   local time                 process/thread
 */
#ifndef VRELLIS_OXA_ERRMSG_LOG_LINE_H
#define VRELLIS_OXA_ERRMSG_LOG_LINE_H

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace vrellis {

// Appends what fits and drops the rest. Its longest part, the message, is formatted in place between room() and
// used(), which leave space for a short note behind it.
class LogLine {
 public:
  LogLine();  // the time and "process/thread "

  LogLine &text(const char *piece);  // NULL: "?"
  LogLine &number(uint64_t value);

  std::span<char> room() { return std::span(line_).subspan(length_, kBodyEnd - std::min(length_, kBodyEnd)); }
  void used(size_t wanted);  // `wanted` as snprintf() returns it; past the room, the text ends in "..."

  // The whole line; a newline and a NUL follow it. Its control characters become blanks: it stays one line.
  std::string_view finish();

 private:
  static constexpr size_t kCapacity = 1024;
  static constexpr size_t kEnd = kCapacity - 2;       // newline and NUL
  static constexpr size_t kBodyEnd = kCapacity - 48;  // where room() ends

  std::array<char, kCapacity> line_;
  size_t length_ = 0;
};

// Writes a finished line by one write(2), so that lines of several threads and processes do not mix. Keeps errno.
void write_to_stderr(const char *line, size_t length);

// A sink with its context, changed while other threads print. A reader sees the two of one set(), never a mixture; a
// sink that was replaced may still be running when set() returns. After fork() it works as before.
template <class Function>
class SinkCell {
 public:
  struct Sink {
    Function function;  // nullptr until the first set()
    void *context;
  };

  void set(Function function, void *context) {
    const uint32_t ticket = last_.fetch_add(1, std::memory_order_relaxed) + 1;
    Slot &slot = slots_[ticket % slots_.size()];
    slot.function.store(function, std::memory_order_relaxed);
    slot.context.store(context, std::memory_order_relaxed);
    current_.store(&slot, std::memory_order_release);
  }

  Sink get() const {
    const Slot *slot = current_.load(std::memory_order_acquire);
    if (slot == nullptr) {
      return {nullptr, nullptr};
    }
    return {slot->function.load(std::memory_order_relaxed), slot->context.load(std::memory_order_relaxed)};
  }

 private:
  struct Slot {
    std::atomic<Function> function{nullptr};
    std::atomic<void *> context{nullptr};
  };

  // A slot is written again only this many changes later.
  std::array<Slot, 16> slots_{};
  std::atomic<const Slot *> current_{nullptr};
  std::atomic<uint32_t> last_{0};
};

}  // namespace vrellis

#endif
