// Helpers for the unit tests of the hosts: the handlers change the process's working
// directory, and each test gets the old one back.
#pragma once

#include <gtest/gtest.h>
#include <limits.h>
#include <unistd.h>

#include <string>

#include "paths/paths.h"

namespace vorn::testing {

// Restores the working directory of the test process when it goes out of scope.
class KeepCwd {
 public:
  KeepCwd() { saved_ = now(); }
  KeepCwd(const KeepCwd&) = delete;
  KeepCwd& operator=(const KeepCwd&) = delete;
  ~KeepCwd() {
    if (!saved_.empty() && ::chdir(saved_.c_str()) != 0) ADD_FAILURE() << "cannot go back";
  }
  // The working directory now, symbolic links resolved.
  static std::string now() {
    char buf[PATH_MAX];
    return ::getcwd(buf, sizeof buf) ? Paths::real(buf) : "";
  }

 private:
  std::string saved_;
};

}  // namespace vorn::testing
