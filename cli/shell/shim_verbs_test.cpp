#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "core/test_support.h"
#include "paths/test_files.h"
#include "shell/shim.h"

namespace vorn {
namespace {

using testing::TempDir;

struct ShimVerbsTest : ::testing::Test {
  TempDir tmp;
  CapturedContext io{tmp.dir("work")};
  std::string shim;
  ShimVerbsTest() {
    io.ctx.env["HOME"] = tmp.dir("home");
    io.ctx.env["PATH"] = "/usr/bin:/bin";
    // Homebrew's default place is outside the temp folder: point its prefix inside and keep
    // the default out of the picture by checking it is absent on this machine.
    io.ctx.env["HOMEBREW_PREFIX"] = tmp / "brew";
    shim = tmp / "home/.local/bin/vorn";
  }
  void run(const std::string& verb, Flags flags = {}) { shimVerbs().at(verb)(flags, io.ctx); }
  CliError fails(const std::string& verb, Flags flags = {}) {
    return thrown([&] { run(verb, flags); });
  }
  std::string read(const std::string& path) { return Paths::readFile(path).value_or("<none>"); }
  void clear() { io.out.clear(), io.err.clear(); }
};

bool systemHomebrew() {
  struct stat st;
  return ::lstat("/opt/homebrew/bin/vorn", &st) == 0;
}

TEST_F(ShimVerbsTest, InstallWritesAnExecutableManagedShim) {
  if (systemHomebrew()) GTEST_SKIP() << "this machine has Homebrew's vorn";
  run("install");
  EXPECT_EQ(io.out, "Installed 'vorn' to " + shim + "\nAdd " + tmp.path() +
                        "/home/.local/bin to PATH to use it in new terminals\n");
  EXPECT_EQ(read(shim), shimBody("", ""));
  struct stat st;
  ASSERT_EQ(::stat(shim.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0755u);
}

TEST_F(ShimVerbsTest, InstallingTwiceRewritesTheSameFile) {
  if (systemHomebrew()) GTEST_SKIP() << "this machine has Homebrew's vorn";
  io.ctx.env["PATH"] = "/usr/bin:" + tmp.path() + "/home/.local/bin";
  run("install");
  std::string first = read(shim);
  clear();
  run("install");
  EXPECT_EQ(io.out, "Installed 'vorn' to " + shim + "\n");
  EXPECT_EQ(read(shim), first);
  // Nothing else is left in the folder.
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(tmp / "home/.local/bin"),
                          std::filesystem::directory_iterator()),
            1);
}

TEST_F(ShimVerbsTest, InstallFromACheckoutFallsBackToIt) {
  if (systemHomebrew()) GTEST_SKIP() << "this machine has Homebrew's vorn";
  std::string root = tmp.checkout("repo");
  io.ctx.cwd = tmp.dir("repo/sub");
  run("install");
  EXPECT_NE(read(shim).find("\nFALLBACK=\"" + root + "\"\n"), std::string::npos);
}

TEST_F(ShimVerbsTest, InstallReplacesAForeignFile) {
  if (systemHomebrew()) GTEST_SKIP() << "this machine has Homebrew's vorn";
  tmp.file("home/.local/bin/vorn", "#!/bin/sh\necho mine\n");
  run("install");
  EXPECT_EQ(read(shim), shimBody("", ""));
}

TEST_F(ShimVerbsTest, InstallDoesNothingWhenHomebrewLinksVorn) {
  tmp.file("brew/bin/vorn", "#!/bin/sh\n");
  run("install");
  EXPECT_EQ(io.out, "'vorn' is already installed by Homebrew at " + tmp.path() +
                        "/brew/bin/vorn \u2014 nothing to do\n");
  EXPECT_FALSE(Paths::isDirectory(tmp / "home/.local"));
}

TEST_F(ShimVerbsTest, InstallRefusesAPathTheShimCannotCarry) {
  if (systemHomebrew()) GTEST_SKIP() << "this machine has Homebrew's vorn";
  io.ctx.env["VORN_REPO_ROOT"] = "/src/$(touch x)";
  EXPECT_EQ(fails("install"),
            CliError("vorn shell-command install: cannot write a shim for /src/$(touch x): the "
                     "path holds $, ` or a control character, which the shim script cannot "
                     "carry",
                     1));
  EXPECT_FALSE(Paths::isDirectory(tmp / "home/.local"));
}

TEST_F(ShimVerbsTest, InstallReportsAFolderItCannotCreate) {
  if (systemHomebrew()) GTEST_SKIP() << "this machine has Homebrew's vorn";
  tmp.file("home/.local", "a file where the folder goes");
  CliError error = fails("install");
  EXPECT_EQ(error.code, 1);
  EXPECT_EQ(
      error.message.rfind(
          "vorn shell-command install: cannot create " + tmp.path() + "/home/.local/bin: ", 0),
      0u)
      << error.message;
  EXPECT_EQ(read(tmp / "home/.local"), "a file where the folder goes");
}

TEST_F(ShimVerbsTest, EveryVerbRefusesADirectoryAtTheShimPathAndTouchesNothing) {
  tmp.dir("home/.local/bin/vorn/inside");
  for (const char* verb : {"install", "uninstall", "status"}) {
    EXPECT_EQ(fails(verb), CliError("vorn shell-command " + std::string(verb) + ": " + shim +
                                        " is a directory \u2014 left as it is",
                                    1));
    EXPECT_TRUE(Paths::isDirectory(tmp / "home/.local/bin/vorn/inside"));
  }
  EXPECT_EQ(io.out, "");
}

TEST_F(ShimVerbsTest, EveryVerbRefusesAnUnreadableShimAndTouchesNothing) {
  if (::geteuid() == 0) GTEST_SKIP() << "root reads every file";
  std::string path = tmp.file("home/.local/bin/vorn", "#!/bin/sh\n");
  ASSERT_EQ(::chmod(path.c_str(), 0), 0);
  for (const char* verb : {"install", "uninstall", "status"}) {
    EXPECT_EQ(fails(verb), CliError("vorn shell-command " + std::string(verb) + ": cannot read " +
                                        shim + ": Permission denied \u2014 left as it is",
                                    1));
  }
  ::chmod(path.c_str(), 0600);
  EXPECT_EQ(read(path), "#!/bin/sh\n");
}

TEST_F(ShimVerbsTest, WithoutHomeEveryVerbFails) {
  io.ctx.env.erase("HOME");
  for (const char* verb : {"install", "uninstall", "status"}) {
    EXPECT_EQ(fails(verb),
              CliError("vorn shell-command " + std::string(verb) +
                           ": HOME is not set to an absolute path (the shim lives in ~/.local/bin)",
                       1));
  }
}

TEST_F(ShimVerbsTest, StrayWordsAreUsageErrors) {
  for (const char* verb : {"install", "uninstall", "status"}) {
    EXPECT_EQ(fails(verb, withArgs({"x"})),
              usageError("vorn shell-command " + std::string(verb) + ": unexpected argument 'x'"));
  }
  EXPECT_FALSE(Paths::isDirectory(tmp / "home/.local"));
}

TEST_F(ShimVerbsTest, UninstallRemovesOnlyAManagedShim) {
  run("uninstall");
  EXPECT_EQ(io.out, "'vorn' was not installed at " + shim + "\n");
  clear();
  tmp.file("home/.local/bin/vorn", "#!/bin/sh\necho mine\n");
  EXPECT_EQ(
      fails("uninstall"),
      CliError(shim + " exists but was not installed by Vorn \u2014 leaving it untouched", 1));
  EXPECT_EQ(read(shim), "#!/bin/sh\necho mine\n");
  tmp.file("home/.local/bin/vorn", shimBody("/x", ""));
  run("uninstall");
  EXPECT_EQ(io.out, "Removed 'vorn' from " + shim + "\n");
  EXPECT_EQ(read(shim), "<none>");
}

TEST_F(ShimVerbsTest, StatusTextForEachState) {
  if (systemHomebrew()) GTEST_SKIP() << "this machine has Homebrew's vorn";
  run("status");
  EXPECT_EQ(io.out, shim + ": not installed; dir not on PATH\n");
  clear();
  io.ctx.env["PATH"] = tmp.path() + "/home/.local/bin:/usr/bin";
  tmp.file("home/.local/bin/vorn", "#!/bin/sh\n");
  run("status");
  EXPECT_EQ(io.out, shim + ": present, not Vorn-managed; on PATH\n");
  clear();
  tmp.file("home/.local/bin/vorn", shimBody("", ""));
  std::string target = tmp.file("Cellar/vorn", "");
  tmp.dir("brew/bin");
  ASSERT_EQ(::symlink(target.c_str(), (tmp / "brew/bin/vorn").c_str()), 0);
  run("status");
  EXPECT_EQ(io.out, shim + ": installed (Vorn-managed); on PATH\n" + tmp.path() +
                        "/brew/bin/vorn: Homebrew \u2192 " + target + "\n");
}

TEST_F(ShimVerbsTest, StatusJSON) {
  Flags flags;
  flags.json = true;
  run("status", flags);
  EXPECT_EQ(io.out, "{\n  \"installed\": false,\n  \"path\": \"" + shim +
                        "\",\n  \"managed\": false,\n  \"onPath\": false\n}\n");
  clear();
  tmp.file("home/.local/bin/vorn", "foreign");
  run("status", flags);
  EXPECT_EQ(io.out, "{\n  \"installed\": true,\n  \"path\": \"" + shim +
                        "\",\n  \"managed\": false,\n  \"onPath\": false\n}\n");
  clear();
  tmp.file("home/.local/bin/vorn", shimBody("", ""));
  io.ctx.env["PATH"] = tmp.path() + "/home/.local/bin";
  run("status", flags);
  EXPECT_EQ(io.out, "{\n  \"installed\": true,\n  \"path\": \"" + shim +
                        "\",\n  \"managed\": true,\n  \"onPath\": true\n}\n");
}

}  // namespace
}  // namespace vorn
