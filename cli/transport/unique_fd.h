// A file descriptor that closes itself on every path out of a scope.
#pragma once

#include <unistd.h>

namespace vorn {

class UniqueFd {
 public:
  explicit UniqueFd(int fd) : fd_(fd) {}
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  ~UniqueFd() {
    if (fd_ >= 0) ::close(fd_);
  }
  int get() const { return fd_; }

 private:
  int fd_;
};

}  // namespace vorn
