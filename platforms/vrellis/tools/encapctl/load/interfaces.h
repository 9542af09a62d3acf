// The numbers that stand for interface names in a database's keys.
#ifndef ENCAPCTL_INTERFACES_H
#define ENCAPCTL_INTERFACES_H

#include <cstdint>
#include <map>
#include <string>

namespace encapctl {

// A listing has names, a key has a number. So that a name has the same number in every listing that is loaded, the
// pairs are kept in a file beside the window, WINDOW.interfaces: a line "0x1000000 eth0" each, which only ever grows.
// The file is locked for the life of this object, and does not stay when nothing was ever stored in it.
class Interfaces {
 public:
  // Throws Failure when the file cannot be used: it is no regular file, another user may write to it, another process
  // holds it for longer than a few seconds, or a line of it makes no sense.
  Interfaces(const std::string &window_path, const encap_inspect::Owner &owner);
  ~Interfaces();
  Interfaces(const Interfaces &) = delete;
  Interfaces &operator=(const Interfaces &) = delete;

  // Gives a name its number, of "NAME=NUMBER". Throws Failure when the name has another, or the number another name.
  void set(const std::string &pair);

  // The number of a name; a name without one gets the first that is free.
  std::uint32_t number_of(const std::string &name);

  // Stores what is new. Throws Failure when it cannot be stored; nothing must be entered then.
  void save();

  static std::string path_of(const std::string &window_path) { return window_path + ".interfaces"; }

 private:
  void check_file(const encap_inspect::Owner &owner);
  void read();
  void add(const std::string &name, std::uint32_t number);
  [[noreturn]] void fail(const std::string &reason) const;

  std::string path_;
  int fd_;
  std::map<std::string, std::uint32_t> number_;
  std::map<std::uint32_t, std::string> name_;
  std::string fresh_;      // lines to append
  bool is_empty_ = false;  // the file
};

}  // namespace encapctl

#endif
