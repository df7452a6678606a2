#include "process/zombie.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

namespace vorn {
namespace {

TEST(IsZombie, AnExitedChildNotYetWaitedForIsOne) {
  pid_t pid = ::fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) ::_exit(0);
  siginfo_t info{};
  ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT), 0);
  EXPECT_TRUE(isZombie(pid));
  int status;
  ASSERT_EQ(::waitpid(pid, &status, 0), pid);
  EXPECT_FALSE(isZombie(pid));  // reaped: gone
}

TEST(IsZombie, ARunningProcessIsNot) {
  EXPECT_FALSE(isZombie(::getpid()));
  pid_t pid = ::fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    ::pause();
    ::_exit(0);
  }
  EXPECT_FALSE(isZombie(pid));
  ::kill(pid, SIGKILL);
  int status;
  ::waitpid(pid, &status, 0);
}

}  // namespace
}  // namespace vorn
