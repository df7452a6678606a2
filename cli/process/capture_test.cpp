#include "process/capture.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <string>

#include "paths/test_files.h"
#include "process/process.h"

namespace vorn {
namespace {

using testing::TempDir;

const std::map<std::string, std::string> systemPath = {{"PATH", "/usr/bin:/bin"}};

Captured shell(const std::string& script, size_t limit = 1 << 20, const std::string& cwd = "/") {
  return captureOutput("/bin/sh", {"sh", "-c", script}, cwd, systemPath, limit);
}

TEST(CaptureOutput, OutputAndExitStatus) {
  Captured run = shell("printf 'hello\\nworld'; exit 3");
  EXPECT_EQ(run.startError, 0);
  EXPECT_EQ(run.output, "hello\nworld");
  EXPECT_EQ(run.status, 3);
  EXPECT_EQ(run.signal, 0);
  EXPECT_FALSE(run.overflow);
  EXPECT_EQ(shell("exit 0").status, 0);
  EXPECT_EQ(shell("exit 0").output, "");
}

TEST(CaptureOutput, TheChildGetsNoOtherDescriptorOfTheCaller) {
  // Opened without close-on-exec, as a descriptor inherited from the CLI's own parent would be.
  int inherited = ::open("/dev/null", O_RDONLY);
  ASSERT_GE(inherited, 3);
  std::string fd = std::to_string(inherited);
  Captured run = shell("if [ -e /dev/fd/" + fd + " ]; then echo open; else echo closed; fi");
  EXPECT_EQ(run.output, "closed\n");
  // The same check sees a descriptor that is there: its own standard output.
  EXPECT_EQ(shell("if [ -e /dev/fd/1 ]; then echo open; else echo closed; fi").output, "open\n");
  ::close(inherited);
}

TEST(CaptureOutput, TheChildKeepsItsStandardError) {
  // Only standard output is captured; standard error stays the caller's, open, so a file the
  // child opens never takes descriptor 2 (its next descriptor is 3).
  Captured run = shell("if [ -e /dev/fd/2 ]; then echo open; else echo closed; fi; "
                       "ls /dev/fd/ | sort -n | head -3 | tr '\\n' ' '");
  EXPECT_EQ(run.output, "open\n0 1 2 ");
  EXPECT_EQ(run.status, 0);
}

TEST(CaptureOutput, RunsInTheGivenDirectoryWithExactlyTheGivenEnvironment) {
  TempDir tmp;
  EXPECT_EQ(shell("pwd", 1 << 20, tmp.path()).output, tmp.path() + "\n");
  Captured run = captureOutput("/bin/sh", {"sh", "-c", "echo \"$A|${HOME-unset}|$0\"", "zero"}, "/",
                               {{"A", "x y"}}, 1 << 20);
  EXPECT_EQ(run.output, "x y|unset|zero\n");
}

TEST(CaptureOutput, StandardInputIsEmpty) {
  // A child that reads its input gets the end at once instead of waiting for a terminal.
  Captured run = shell("cat; echo done");
  EXPECT_EQ(run.output, "done\n");
  EXPECT_EQ(run.status, 0);
}

TEST(CaptureOutput, MegabytesWithinTheLimitArriveWhole) {
  Captured run = shell("head -c 3000000 /dev/zero", 4 << 20);
  EXPECT_EQ(run.output.size(), 3000000u);
  EXPECT_FALSE(run.overflow);
  EXPECT_EQ(run.status, 0);
}

TEST(CaptureOutput, OutputExactlyAtTheLimitIsNoOverflow) {
  Captured run = shell("head -c 1000 /dev/zero", 1000);
  EXPECT_EQ(run.output.size(), 1000u);
  EXPECT_FALSE(run.overflow);
}

TEST(CaptureOutput, EndlessOutputStopsAtTheLimitAndTheChildEnds) {
  // `yes` never stops on its own: closing the pipe is what ends it.
  Captured run = shell("exec yes", 1000);
  EXPECT_TRUE(run.overflow);
  std::string lines;
  for (int i = 0; i < 500; ++i)
    lines += "y\n";
  EXPECT_EQ(run.output, lines);
  EXPECT_EQ(run.signal, SIGPIPE);
  EXPECT_EQ(run.status, 128 + SIGPIPE);
}

TEST(CaptureOutput, ABackgroundGrandchildHoldingThePipeIsNotWaitedFor) {
  Captured run = shell("sleep 30 & echo $!; exit 4");
  EXPECT_EQ(run.status, 4);
  ASSERT_FALSE(run.output.empty());
  pid_t grandchild = static_cast<pid_t>(std::stol(run.output));
  // Still running: the capture ended when the child did, not when the pipe closed.
  EXPECT_EQ(::kill(grandchild, 0), 0);
  ::kill(grandchild, SIGKILL);
}

TEST(CaptureOutput, AKilledChildReportsItsSignal) {
  Captured run = shell("printf partial; kill -9 $$");
  EXPECT_EQ(run.output, "partial");
  EXPECT_EQ(run.signal, SIGKILL);
  EXPECT_EQ(run.status, 128 + SIGKILL);
}

TEST(CaptureOutput, AProgramThatCannotStart) {
  TempDir tmp;
  Captured missing = captureOutput(tmp / "nothing", {"nothing"}, "/", {}, 100);
  EXPECT_EQ(missing.startError, ENOENT);
  EXPECT_EQ(missing.status, notStartedStatus);
  EXPECT_EQ(missing.output, "");
  // PATH is not searched.
  EXPECT_NE(captureOutput("sh", {"sh", "-c", "exit 0"}, "/", systemPath, 100).startError, 0);
  // A working directory that is not there.
  EXPECT_NE(shell("exit 0", 100, tmp / "gone").startError, 0);
}

}  // namespace
}  // namespace vorn
