#include "shell/shim.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "core/test_support.h"
#include "paths/test_files.h"
#include "process/capture.h"

namespace vorn {
namespace {

using testing::TempDir;

// A context in `cwd` with HOME inside the temp folder and nothing else set.
struct ShellTest : ::testing::Test {
  TempDir tmp;
  CapturedContext io{tmp.dir("work")};
  ShellTest() { io.ctx.env["HOME"] = tmp.dir("home"); }
  ShellCommand shell() const { return ShellCommand::from(io.ctx); }
};

TEST_F(ShellTest, PathsComeFromHome) {
  ShellCommand s = shell();
  EXPECT_EQ(s.home, tmp / "home");
  EXPECT_EQ(s.binDir, tmp / "home/.local/bin");
  EXPECT_EQ(s.shimPath, tmp / "home/.local/bin/vorn");
  io.ctx.env["HOME"] = tmp / "home/";
  EXPECT_EQ(shell().shimPath, tmp / "home/.local/bin/vorn");
}

TEST_F(ShellTest, NoShimPathWithoutAnAbsoluteHome) {
  for (const char* home : {"", "relative/home", "."}) {
    io.ctx.env["HOME"] = home;
    EXPECT_EQ(shell().shimPath, "") << home;
    EXPECT_EQ(shell().inspect().state, ShimFile::State::unreadable);
  }
  io.ctx.env.erase("HOME");
  EXPECT_EQ(shell().binDir, "");
  EXPECT_FALSE(shell().onPath());
}

TEST_F(ShellTest, FallbackIsTheCheckoutOfTheCurrentDirectoryFirst) {
  std::string root = tmp.checkout("repo");
  std::string other = tmp.checkout("other");
  io.ctx.cwd = tmp.dir("repo/pkg/deep");
  io.ctx.env["VORN_REPO_ROOT"] = other;
  EXPECT_EQ(shell().fallback, root);
}

TEST_F(ShellTest, FallbackElseTheTrimmedNormalisedRepoRoot) {
  io.ctx.env["VORN_REPO_ROOT"] = "  " + tmp.path() + "/a/../repo/ \n";
  EXPECT_EQ(shell().fallback, tmp / "repo");
  // Taken against the current directory: the shim runs from anywhere.
  io.ctx.env["VORN_REPO_ROOT"] = "rel/repo";
  EXPECT_EQ(shell().fallback, tmp / "work/rel/repo");
}

TEST_F(ShellTest, NoFallbackOutsideACheckoutWithoutRepoRoot) {
  EXPECT_EQ(shell().fallback, "");
  io.ctx.env["VORN_REPO_ROOT"] = " \t";
  EXPECT_EQ(shell().fallback, "");
}

TEST_F(ShellTest, AppBinIsTheCliOfTheFirstAppThatExists) {
  // /Applications/Vorn.app is the last candidate; a machine that has it would answer with it.
  bool systemApp = Paths::isDirectory("/Applications/Vorn.app");
  if (!systemApp) {
    EXPECT_EQ(shell().appBin, "");
  }
  std::string own = tmp.dir("own/Vorn.app/Contents/Resources/app/bin");
  io.ctx.executable = own + "/vorn";
  EXPECT_EQ(shell().appBin, tmp / "own/Vorn.app/Contents/Resources/app/bin/vorn");
  tmp.dir("named/Other.app");
  io.ctx.env["VORN_APP"] = tmp / "named/Other.app";
  EXPECT_EQ(shell().appBin, tmp / "named/Other.app/Contents/Resources/app/bin/vorn");
  io.ctx.env["VORN_APP"] = "../named/Other.app";
  EXPECT_EQ(installedApp(io.ctx), tmp / "named/Other.app");
  // A named app that is not there is passed over.
  io.ctx.env["VORN_APP"] = tmp / "missing.app";
  EXPECT_EQ(installedApp(io.ctx), tmp / "own/Vorn.app");
}

TEST_F(ShellTest, BrewBinDirsPrefixFirstThenTheDefault) {
  EXPECT_EQ(shell().brewBinDirs, std::vector<std::string>{"/opt/homebrew/bin"});
  io.ctx.env["HOMEBREW_PREFIX"] = "/usr/local/";
  EXPECT_EQ(shell().brewBinDirs, (std::vector<std::string>{"/usr/local/bin", "/opt/homebrew/bin"}));
  io.ctx.env["HOMEBREW_PREFIX"] = "/opt/homebrew";
  EXPECT_EQ(shell().brewBinDirs, std::vector<std::string>{"/opt/homebrew/bin"});
}

TEST_F(ShellTest, BrewLinkedIsTheFirstDirectoryWithAVornEntry) {
  ShellCommand s = shell();
  s.brewBinDirs = {tmp.dir("brew1/bin"), tmp.dir("brew2/bin")};
  EXPECT_EQ(s.brewLinked(), std::nullopt);
  std::string target = tmp.file("Cellar/vorn/bin/vorn", "#!/bin/sh\n");
  ASSERT_EQ(::symlink(target.c_str(), (tmp / "brew2/bin/vorn").c_str()), 0);
  EXPECT_EQ(s.brewLinked(), (BrewLink{tmp / "brew2/bin/vorn", target}));
  // A link to nothing still counts; it resolves to itself.
  ASSERT_EQ(::symlink((tmp / "gone").c_str(), (tmp / "brew1/bin/vorn").c_str()), 0);
  EXPECT_EQ(s.brewLinked(), (BrewLink{tmp / "brew1/bin/vorn", tmp / "brew1/bin/vorn"}));
}

TEST_F(ShellTest, OnPathComparesNormalisedEntries) {
  io.ctx.env["PATH"] = "/usr/bin:" + tmp.path() + "/home/.local/bin/";
  EXPECT_TRUE(shell().onPath());
  io.ctx.env["PATH"] = "/usr/bin::" + tmp.path() + "/home/./.local/x/../bin";
  EXPECT_TRUE(shell().onPath());
  io.ctx.env["PATH"] = "/usr/bin:" + tmp.path() + "/home/.local";
  EXPECT_FALSE(shell().onPath());
  io.ctx.env["PATH"] = "";
  EXPECT_FALSE(shell().onPath());
}

TEST_F(ShellTest, ManagedAbsentManagedOrForeign) {
  ShellCommand s = shell();
  EXPECT_EQ(s.managed(), std::nullopt);
  EXPECT_EQ(s.inspect().state, ShimFile::State::absent);
  tmp.file("home/.local/bin/vorn", shimBody("", ""));
  EXPECT_EQ(s.managed(), true);
  EXPECT_EQ(s.inspect().text, shimBody("", ""));
  tmp.file("home/.local/bin/vorn", "#!/bin/sh\nexec /usr/local/bin/other \"$@\"\n");
  EXPECT_EQ(s.managed(), false);
  tmp.file("home/.local/bin/vorn", "");
  EXPECT_EQ(s.managed(), false);
}

TEST_F(ShellTest, ALinkToNothingIsAForeignFile) {
  tmp.dir("home/.local/bin");
  ASSERT_EQ(::symlink((tmp / "gone").c_str(), (tmp / "home/.local/bin/vorn").c_str()), 0);
  EXPECT_EQ(shell().managed(), false);
}

TEST_F(ShellTest, ADirectoryAtTheShimPathCannotBeRead) {
  tmp.dir("home/.local/bin/vorn");
  ShimFile file = shell().inspect();
  EXPECT_EQ(file.state, ShimFile::State::unreadable);
  EXPECT_EQ(file.error, tmp / "home/.local/bin/vorn" + " is a directory");
  EXPECT_EQ(thrown([&] { shell().managed(); }), CliError(file.error, 1));
  // Also through a link.
  std::string real = tmp.dir("elsewhere");
  ::rmdir((tmp / "home/.local/bin/vorn").c_str());
  ASSERT_EQ(::symlink(real.c_str(), (tmp / "home/.local/bin/vorn").c_str()), 0);
  EXPECT_EQ(shell().inspect().error, tmp / "home/.local/bin/vorn" + " is a directory");
}

TEST_F(ShellTest, AFifoAtTheShimPathIsRefusedWithoutBlocking) {
  tmp.dir("home/.local/bin");
  ASSERT_EQ(::mkfifo((tmp / "home/.local/bin/vorn").c_str(), 0600), 0);
  ShimFile file = shell().inspect();
  EXPECT_EQ(file.state, ShimFile::State::unreadable);
  EXPECT_EQ(file.error, tmp / "home/.local/bin/vorn" + " is not a regular file");
}

TEST_F(ShellTest, AnUnreadableShimIsReported) {
  if (::geteuid() == 0) GTEST_SKIP() << "root reads every file";
  std::string path = tmp.file("home/.local/bin/vorn", shimBody("", ""));
  ASSERT_EQ(::chmod(path.c_str(), 0), 0);
  ShimFile file = shell().inspect();
  EXPECT_EQ(file.state, ShimFile::State::unreadable);
  EXPECT_EQ(file.error, "cannot read " + path + ": Permission denied");
}

TEST(ShimCanCarry, OnlyWhatBashReadsBackUnchanged) {
  EXPECT_TRUE(shimCanCarry(""));
  EXPECT_TRUE(shimCanCarry("/Users/a b/it's \"q\" \\x/ü/⌘"));
  for (std::string_view bad : {"/a$HOME", "/a`id`", "/a\nb", "/a\tb", "/a\x7f", "/a\xff"}) {
    EXPECT_FALSE(shimCanCarry(bad)) << bad;
  }
}

TEST(ShimBody, CarriesTheMarkerTheValuesAndTheSearch) {
  std::string text =
      shimBody("/src/vorn", "/Applications/Vorn.app/Contents/Resources/app/bin/vorn");
  EXPECT_EQ(text.rfind("#!/usr/bin/env bash\n"
                       "# vorn-shell-command: managed by Vorn Omnibar \u2014 do not edit\n"
                       "set -euo pipefail\n"
                       "FALLBACK=\"/src/vorn\"\n"
                       "APP=\"/Applications/Vorn.app/Contents/Resources/app/bin/vorn\"\n",
                       0),
            0u);
  EXPECT_NE(text.find("\nd=\"$PWD\"\n"), std::string::npos);
  EXPECT_NE(text.find("NATIVE=\"$ROOT/cli/native/.build/debug/vorn\""), std::string::npos);
  EXPECT_NE(text.find("CLI=\"$ROOT/src/cli/vorn.ts\""), std::string::npos);
  EXPECT_EQ(text.find("{{"), std::string::npos);
  EXPECT_EQ(text.back(), '\n');
}

TEST(ShimBody, BashReadsTheValuesBackAsWritten) {
  const std::string fallback = "/Users/a b/it's \"q\" \\x/ü";
  const std::string app = "/Apps/V \\\"x\\\".app/Contents/Resources/app/bin/vorn";
  std::string text = shimBody(fallback, app);
  // The assignments alone, then the values printed back.
  size_t start = text.find("FALLBACK=");
  size_t end = text.find('\n', text.find("APP=", start));
  std::string script = text.substr(start, end - start) + "\nprintf '%s|%s' \"$FALLBACK\" \"$APP\"";
  Captured run = captureOutput("/bin/bash", {"bash", "-c", script}, "/", {}, 4096);
  if (run.startError != 0) GTEST_SKIP() << "no /bin/bash";
  EXPECT_EQ(run.output, fallback + "|" + app);
}

TEST(ShimBody, BashAcceptsTheWholeScript) {
  TempDir tmp;
  std::string shim = tmp.file("vorn", shimBody("", ""));
  Captured check = captureOutput("/bin/bash", {"bash", "-n", shim}, "/", {}, 4096);
  if (check.startError != 0) GTEST_SKIP() << "no /bin/bash";
  EXPECT_EQ(check.status, 0);
}

}  // namespace
}  // namespace vorn
