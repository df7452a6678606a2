#include "process/process.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <string>

#include "paths/test_files.h"

namespace vorn {
namespace {

using testing::TempDir;

TEST(RunProcess, ReturnsTheExitStatus) {
  EXPECT_EQ(runProcess("/bin/sh", {"-c", "exit 0"}), 0);
  EXPECT_EQ(runProcess("/bin/sh", {"-c", "exit 7"}), 7);
  EXPECT_EQ(runProcess("/bin/sh", {"-c", "exit 255"}), 255);
}

TEST(RunProcess, ArgumentsArePassedVerbatim) {
  // No shell in between: the argument with blanks, quotes and ; arrives as one word.
  EXPECT_EQ(runProcess("/bin/sh",
                       {"-c", "test \"$1\" = 'a b;\"c\"' && test $# -eq 1", "sh", "a b;\"c\""}),
            0);
  EXPECT_EQ(runProcess("/bin/sh", {"-c", "test $# -eq 2", "sh", "x", "y"}), 0);
}

TEST(RunProcess, AProgramThatCannotStartFails) {
  TempDir tmp;
  EXPECT_NE(runProcess(tmp / "no-such-program", {}), 0);
  tmp.file("not-executable", "#!/bin/sh\nexit 0\n");
  EXPECT_NE(runProcess(tmp / "not-executable", {}), 0);
  // Looked up by path only, never on PATH.
  EXPECT_NE(runProcess("sh", {"-c", "exit 0"}), 0);
}

TEST(RunProcess, AKilledProgramFails) {
  EXPECT_EQ(runProcess("/bin/sh", {"-c", "kill -9 $$"}), 128 + SIGKILL);
}

#if defined(__linux__)
TEST(RunProcess, TheChildGetsTheDefaultSigpipeBack) {
  // The CLI runs with SIGPIPE ignored; the programs it starts must not inherit that.
  struct sigaction ignore {
  }, previous{};
  ignore.sa_handler = SIG_IGN;
  ASSERT_EQ(::sigaction(SIGPIPE, &ignore, &previous), 0);
  const char* sigpipeIsDefault =
      "while read k v; do [ \"$k\" = SigIgn: ] && m=$v; done < /proc/$$/status; "
      "[ $(( 0x$m & 0x1000 )) -eq 0 ]";
  int32_t status = runProcess("/bin/sh", {"-c", sigpipeIsDefault});
  // The same check run under an ignored SIGPIPE does notice it.
  int32_t control =
      runProcess("/bin/sh", {"-c", "trap '' PIPE; /bin/sh -c \"$1\"", "sh", sigpipeIsDefault});
  ::sigaction(SIGPIPE, &previous, nullptr);
  EXPECT_EQ(status, 0);
  EXPECT_NE(control, 0);
}
#endif

TEST(CStrings, NullTerminatedPointersIntoTheWords) {
  std::vector<std::string> words = {"bun", "a b", ""};
  std::vector<char*> c = cStrings(words);
  ASSERT_EQ(c.size(), 4u);
  EXPECT_EQ(std::string(c[0]), "bun");
  EXPECT_EQ(std::string(c[1]), "a b");
  EXPECT_EQ(std::string(c[2]), "");
  EXPECT_EQ(c[3], nullptr);
}

}  // namespace
}  // namespace vorn
