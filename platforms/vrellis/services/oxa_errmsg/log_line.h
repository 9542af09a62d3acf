/*
 * One line of the log, which the facilities that print build on the stack and hand on in one piece. Internal. Nothing
 * here takes a lock, waits or allocates; all of it may run in a signal handler and in a child of fork().
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

// Appends what fits and drops the rest. The message, which is the longest part, is formatted in place: into room(),
// and then used() takes it over. Both leave space for a short note behind the message.
class LogLine {
 public:
  LogLine();  // the time and "process/thread "

  LogLine &text(const char *piece);  // NULL: "?"
  LogLine &number(uint64_t value);

  std::span<char> room() { return std::span(line_).subspan(length_, kBodyEnd - std::min(length_, kBodyEnd)); }
  void used(size_t wanted);  // `wanted` as snprintf() returns it; past the room, the text ends in "..."

  // The whole line, which a newline and a NUL follow. Control characters become blanks, so that it stays one line.
  std::string_view finish();

 private:
  static constexpr size_t kCapacity = 1024;
  static constexpr size_t kEnd = kCapacity - 2;       // newline and NUL
  static constexpr size_t kBodyEnd = kCapacity - 48;  // where room() ends

  std::array<char, kCapacity> line_;
  size_t length_ = 0;
};

// A sink and its context, which may be changed while other threads print. A reader always sees the two of one set(). A
// sink that was replaced may still be running when set() returns. A child of fork() has its parent's sink.
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

  // set() goes through the slots in turn: one that a reader has found is written again only 16 changes later.
  std::array<Slot, 16> slots_{};
  std::atomic<const Slot *> current_{nullptr};
  std::atomic<uint32_t> last_{0};
};

}  // namespace vrellis

#endif
