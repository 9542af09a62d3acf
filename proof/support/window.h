// A small database in a window of the test's own, as bytes that can be kept, put back and looked at.
#ifndef ENCAP_PROOF_WINDOW_H
#define ENCAP_PROOF_WINDOW_H

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "check/check.h"
#include "database.h"

namespace crash {

using test_support::Directory;
using Image = std::vector<std::uint8_t>;  // all bytes of a window

inline constexpr std::uint32_t kWindowId = 3;
inline constexpr std::uint32_t kNhStart = 1000, kNhSize = 128, kTunStart = 10, kTunSize = 100;
inline constexpr std::uint64_t kWindowBytes = 64 * 1024;

encap_db_config_t config_in(const Directory &directory, std::uint64_t size = kWindowBytes);

// Prints the sentence, removes the program's directory and ends it: for what no test can go on without.
[[noreturn]] void give_up(const char *format, ...) __attribute__((format(printf, 1, 2)));

// This process's open database.
class Window {
 public:
  Window(const Directory &directory, const encap_db_config_t &config);
  ~Window();
  Window(const Window &) = delete;
  Window &operator=(const Window &) = delete;

  std::uint8_t *bytes() const { return bytes_; }
  std::size_t size() const { return size_; }
  Image image() const { return {bytes_, bytes_ + size_}; }
  void put(const Image &image) const;
  // Takes the driver itself out of the table of processes, so that not every look at every state reads of it in /proc.
  void forget_processes() const;
  // In a child: gives this process a copy of its own, at the same address.
  void become_copy() const;

  // The mutex of the database in an image of this window.
  pthread_mutex_t &mutex_in(Image &image) const;
  /*
   * What the kernel makes of the lock when its holder `tid` dies, which `image` shows at its last instruction: a lock
   * word that names it is marked so that the next process takes the lock over. Images that differ in who held the
   * lock alone become equal.
   */
  void bury(Image &image, pid_t tid) const;

 private:
  std::uint8_t *bytes_ = nullptr;
  std::size_t size_ = 0;
};

std::uint64_t hash_of(const Image &image);

// What the inspector finds in the window, a line each. Returns: "" when it is sound.
enum class Findings : std::uint8_t { kAll, kBeyondNotes, kBlocks };  // kBlocks: out of reach, or not marked as taken
std::string text_of(const encap_inspect::Report &report, Findings which = Findings::kAll);
encap_inspect::Report look_at(const Window &window);
std::string findings_in(const Window &window, Findings which = Findings::kBeyondNotes);

}  // namespace crash

#endif
