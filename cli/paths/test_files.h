// Files for unit tests: a private temporary folder and small builders inside it.
#pragma once

#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

#include "paths/paths.h"

namespace vorn::testing {

// A private folder under /tmp (short, so socket paths inside it stay well under the address
// limit; resolved, so comparisons hold where /tmp is a link), removed with everything in it.
class TempDir {
 public:
  TempDir() {
    char name[] = "/tmp/vorn-t.XXXXXX";
    if (!::mkdtemp(name)) throw std::runtime_error("mkdtemp failed");
    path_ = Paths::real(name);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  ~TempDir() {
    std::error_code ignored;
    // Give back any permission a test took away, so that everything can be removed.
    for (auto it = std::filesystem::recursive_directory_iterator(
             path_, std::filesystem::directory_options::skip_permission_denied, ignored);
         it != std::filesystem::recursive_directory_iterator(); it.increment(ignored)) {
      if (it->is_directory(ignored) && !it->is_symlink(ignored)) {
        ::chmod(it->path().c_str(), 0700);
      }
    }
    ::chmod(path_.c_str(), 0700);
    std::filesystem::remove_all(path_, ignored);
  }
  const std::string& path() const { return path_; }
  std::string operator/(const std::string& rel) const { return path_ + "/" + rel; }

  // Writes `text` to the file `rel` (parents made) and returns its path.
  std::string file(const std::string& rel, const std::string& text = "x") const {
    std::string full = *this / rel;
    std::filesystem::create_directories(std::filesystem::path(full).parent_path());
    std::ofstream(full, std::ios::binary) << text;
    return full;
  }
  // Makes the folder `rel` (parents made) and returns its path.
  std::string dir(const std::string& rel) const {
    std::string full = *this / rel;
    std::filesystem::create_directories(full);
    return full;
  }
  // Makes `rel` a source checkout: the three files that mark one.
  std::string checkout(const std::string& rel) const {
    std::string root = dir(rel);
    file(rel + "/MODULE.bazel", "");
    file(rel + "/tools/go.pin", "");
    file(rel + "/" + std::string(Paths::checkoutScriptEntry), "");
    return root;
  }

 private:
  std::string path_;
};

}  // namespace vorn::testing
