// Directories and files of a test's own.
#ifndef TESTS_SUPPORT_DIRECTORY_H
#define TESTS_SUPPORT_DIRECTORY_H

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace test_support {

// A fresh directory, removed with all its files at the end. A forked child leaves it alone.
class Directory {
 public:
  Directory() {
    if (mkdtemp(path_.data()) == nullptr) {
      std::perror("cannot make a directory in /dev/shm");
      std::exit(1);
    }
    newest_ = this;
  }
  ~Directory() {
    remove();
    newest_ = nullptr;
  }
  Directory(const Directory &) = delete;
  Directory &operator=(const Directory &) = delete;

  const std::string &path() const { return path_; }

  // For a program that ends before its directory's life does.
  static void remove_newest() {
    if (newest_ != nullptr) {
      newest_->remove();
    }
  }

 private:
  void remove() const {
    std::error_code ignored;
    if (getpid() == maker_) {
      std::filesystem::remove_all(path_, ignored);
    }
  }

  inline static const Directory *newest_ = nullptr;
  std::string path_ = "/dev/shm/encap-test.XXXXXX";
  const pid_t maker_ = getpid();
};

inline std::string content_of(const std::string &path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace test_support

#endif
