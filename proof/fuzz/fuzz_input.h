// Takes values off a fuzzer's input; gives zeros when it has run out.
#ifndef ENCAP_PROOF_FUZZ_INPUT_H
#define ENCAP_PROOF_FUZZ_INPUT_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);
extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv);

namespace fuzz {

class Input {
 public:
  Input(const std::uint8_t *data, std::size_t size) : data_(data), size_(size) {}

  bool empty() const { return size_ == 0; }
  std::size_t left() const { return size_; }

  template <typename Value>
  Value take() {
    Value value{};
    const std::size_t bytes = size_ < sizeof value ? size_ : sizeof value;
    std::memcpy(&value, data_, bytes);
    data_ += bytes;
    size_ -= bytes;
    return value;
  }

  std::uint32_t below(std::uint32_t limit) { return take<std::uint8_t>() % limit; }

 private:
  const std::uint8_t *data_;
  std::size_t size_;
};

// Ends the run with a finding.
[[noreturn]] inline void found(const std::string &what) {
  std::fprintf(stderr, "FOUND\n%s\n", what.c_str());
  std::abort();
}

}  // namespace fuzz

#endif
