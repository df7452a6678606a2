// The fixture of the scan tests: a private runtime root under XDG_RUNTIME_DIR, with helpers to
// make, age and list its folders and to serve instance records in them. Used only by
// *_test.cpp files.
#pragma once

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "core/test_support.h"
#include "instances/instances.h"
#include "instances/test_instances.h"

namespace vorn::testing {

struct ScanTest : ::testing::Test {
  TempDir tmp;
  CapturedContext io;
  std::string root;

  ScanTest() {
    io.ctx.env["XDG_RUNTIME_DIR"] = tmp.path();
    root = tmp / "vorn";
    std::filesystem::create_directories(root);
  }

  // This process's pid, as the name of its folder.
  static std::string me() { return std::to_string(::getpid()); }
  Instances instances() { return Instances{io.ctx}; }
  std::string dir(const std::string& name) { return root + "/" + name; }
  std::string makeDir(const std::string& name) {
    std::filesystem::create_directories(dir(name));
    return dir(name);
  }
  // Sets the folder's modification time `seconds` into the past.
  void age(const std::string& path, int seconds) {
    struct timespec times[2];
    ::clock_gettime(CLOCK_REALTIME, &times[0]);
    times[0].tv_sec -= seconds;
    times[1] = times[0];
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
  }
  // Names in the order the directory listing returns them.
  std::vector<std::string> listing() {
    std::vector<std::string> names;
    DIR* d = ::opendir(root.c_str());
    while (dirent* e = ::readdir(d)) {
      std::string name = e->d_name;
      if (name != "." && name != "..") names.push_back(name);
    }
    ::closedir(d);
    return names;
  }
  // A record served on <root>/<folder>/fs.sock.
  std::unique_ptr<FakeInstanceServer> serve(const std::string& folder, const std::string& id,
                                            int64_t pid) {
    std::string sock = dir(folder) + "/fs.sock";
    return std::make_unique<FakeInstanceServer>(
        sock, FakeInstanceServer::answering(testing::record(id, pid, sock).json()));
  }
};

}  // namespace vorn::testing
