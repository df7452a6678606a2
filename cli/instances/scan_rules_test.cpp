// The rules a scan of the runtime root applies: where the root is, which instance records are
// valid, which sockets belong to another host, which pids are alive and when a folder is old.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <thread>

#include "core/test_support.h"
#include "instances/instances.h"
#include "instances/test_instances.h"

namespace vorn {
namespace {

using testing::SleepingChild;
using testing::TempDir;

// ---- runtime root ----

std::string rootFor(std::map<std::string, std::string> env) {
  CapturedContext io;
  io.ctx.env = std::move(env);
  return Instances{io.ctx}.runtimeRoot();
}

TEST(RuntimeRoot, XdgRuntimeDirWins) {
  EXPECT_EQ(rootFor({{"XDG_RUNTIME_DIR", "/run/user/501"}, {"TMPDIR", "/var/t"}}),
            "/run/user/501/vorn");
}

TEST(RuntimeRoot, EmptyXdgRuntimeDirIsTakenAsItStands) {
  EXPECT_EQ(rootFor({{"XDG_RUNTIME_DIR", ""}, {"TMPDIR", "/var/t"}}), "vorn");
}

TEST(RuntimeRoot, TmpdirWhenNoXdg) {
  EXPECT_EQ(rootFor({{"TMPDIR", "/var/folders/xy/T/"}}), "/var/folders/xy/T/vorn");
}

TEST(RuntimeRoot, TmpWhenTmpdirEmptyOrAbsent) {
  EXPECT_EQ(rootFor({{"TMPDIR", ""}}), "/tmp/vorn");
  EXPECT_EQ(rootFor({}), "/tmp/vorn");
}

// ---- InstanceInfo::fromJSON ----

JSON fullRecord() {
  return JSON::object({{"id", JSON("abc123")},
                       {"pid", JSON(4242)},
                       {"socketPath", JSON("/tmp/vorn/4242/fs.sock")},
                       {"workspace", JSON("/Users/me/proj")},
                       {"workspaceName", JSON("proj")},
                       {"vornRoot", JSON("/Applications/Vorn.app")},
                       {"startedAt", JSON(1700000000123.5)},
                       {"transport", JSON("af_unix")},
                       {"platform", JSON("darwin")},
                       {"mode", JSON("headless")}});
}

JSON without(const JSON& record, const std::string& key) {
  JSON::Object kept;
  for (const auto& member : *record.members()) {
    if (member.first != key) kept.push_back(member);
  }
  return JSON(std::move(kept));
}

JSON with(const JSON& record, const std::string& key, JSON value) {
  return record.merging({{key, std::move(value)}}, false);
}

TEST(InstanceInfoFromJSON, AcceptsACompleteRecord) {
  auto info = InstanceInfo::fromJSON(fullRecord());
  ASSERT_TRUE(info);
  EXPECT_EQ(info->id, "abc123");
  EXPECT_EQ(info->pid, 4242);
  EXPECT_EQ(info->socketPath, "/tmp/vorn/4242/fs.sock");
  EXPECT_EQ(info->reportedSocketPath, "/tmp/vorn/4242/fs.sock");
  EXPECT_EQ(info->workspace, "/Users/me/proj");
  EXPECT_EQ(info->workspaceName, "proj");
  EXPECT_EQ(info->vornRoot, "/Applications/Vorn.app");
  EXPECT_EQ(info->startedAt, 1700000000123.5);
  EXPECT_EQ(info->transport, "af_unix");
  EXPECT_EQ(info->platform, "darwin");
  EXPECT_EQ(info->mode, std::optional<std::string>("headless"));
  EXPECT_FALSE(info->foreign);
}

TEST(InstanceInfoFromJSON, RejectsNonObjects) {
  EXPECT_FALSE(InstanceInfo::fromJSON(JSON()));
  EXPECT_FALSE(InstanceInfo::fromJSON(JSON("record")));
  EXPECT_FALSE(InstanceInfo::fromJSON(JSON::array({fullRecord()})));
}

TEST(InstanceInfoFromJSON, RejectsEachMissingRequiredKey) {
  for (const char* key : {"id", "pid", "socketPath", "workspace", "workspaceName", "startedAt",
                          "platform", "transport"}) {
    EXPECT_FALSE(InstanceInfo::fromJSON(without(fullRecord(), key))) << key;
  }
}

TEST(InstanceInfoFromJSON, RejectsWrongTypes) {
  EXPECT_FALSE(InstanceInfo::fromJSON(with(fullRecord(), "id", JSON(12))));
  EXPECT_FALSE(InstanceInfo::fromJSON(with(fullRecord(), "pid", JSON("4242"))));
  EXPECT_FALSE(InstanceInfo::fromJSON(with(fullRecord(), "pid", JSON(42.5))));
  EXPECT_FALSE(InstanceInfo::fromJSON(with(fullRecord(), "socketPath", JSON())));
  EXPECT_FALSE(InstanceInfo::fromJSON(with(fullRecord(), "workspace", JSON(false))));
  EXPECT_FALSE(InstanceInfo::fromJSON(with(fullRecord(), "workspaceName", JSON(1))));
  EXPECT_FALSE(InstanceInfo::fromJSON(with(fullRecord(), "startedAt", JSON("yesterday"))));
  EXPECT_FALSE(InstanceInfo::fromJSON(with(fullRecord(), "platform", JSON::object())));
  EXPECT_FALSE(InstanceInfo::fromJSON(with(fullRecord(), "transport", JSON::array())));
}

TEST(InstanceInfoFromJSON, RejectsAnotherTransport) {
  EXPECT_FALSE(InstanceInfo::fromJSON(with(fullRecord(), "transport", JSON("tcp"))));
  EXPECT_FALSE(InstanceInfo::fromJSON(with(fullRecord(), "transport", JSON("AF_UNIX"))));
}

TEST(InstanceInfoFromJSON, RejectsEmptyIdOrSocketPath) {
  EXPECT_FALSE(InstanceInfo::fromJSON(with(fullRecord(), "id", JSON(""))));
  EXPECT_FALSE(InstanceInfo::fromJSON(with(fullRecord(), "socketPath", JSON(""))));
}

TEST(InstanceInfoFromJSON, EmptyWorkspaceIsAllowed) {
  auto info = InstanceInfo::fromJSON(
      with(with(fullRecord(), "workspace", JSON("")), "workspaceName", JSON("")));
  ASSERT_TRUE(info);
  EXPECT_EQ(info->workspace, "");
}

TEST(InstanceInfoFromJSON, RepoRootStandsInForVornRoot) {
  JSON noVornRoot = with(without(fullRecord(), "vornRoot"), "repoRoot", JSON("/src/vorn"));
  auto info = InstanceInfo::fromJSON(noVornRoot);
  ASSERT_TRUE(info);
  EXPECT_EQ(info->vornRoot, "/src/vorn");

  // A vornRoot that is not a string falls back as well.
  auto fallback = InstanceInfo::fromJSON(with(noVornRoot, "vornRoot", JSON(7)));
  ASSERT_TRUE(fallback);
  EXPECT_EQ(fallback->vornRoot, "/src/vorn");

  // vornRoot wins when both are strings.
  auto both = InstanceInfo::fromJSON(with(fullRecord(), "repoRoot", JSON("/other")));
  ASSERT_TRUE(both);
  EXPECT_EQ(both->vornRoot, "/Applications/Vorn.app");

  EXPECT_FALSE(InstanceInfo::fromJSON(without(fullRecord(), "vornRoot")));
  EXPECT_FALSE(InstanceInfo::fromJSON(with(without(fullRecord(), "vornRoot"), "repoRoot", JSON())));
}

TEST(InstanceInfoFromJSON, ModeIsKeptOnlyWhenKnown) {
  for (const char* mode : {"app", "headless", "remote"}) {
    auto info = InstanceInfo::fromJSON(with(fullRecord(), "mode", JSON(mode)));
    ASSERT_TRUE(info);
    EXPECT_EQ(info->mode, std::optional<std::string>(mode));
  }
  auto absent = InstanceInfo::fromJSON(without(fullRecord(), "mode"));
  ASSERT_TRUE(absent);
  EXPECT_FALSE(absent->mode);
  auto unknown = InstanceInfo::fromJSON(with(fullRecord(), "mode", JSON("window")));
  ASSERT_TRUE(unknown);
  EXPECT_FALSE(unknown->mode);
  auto notString = InstanceInfo::fromJSON(with(fullRecord(), "mode", JSON(3)));
  ASSERT_TRUE(notString);
  EXPECT_FALSE(notString->mode);
}

TEST(InstanceInfoFromJSON, DuplicateKeysTakeTheLast) {
  JSON::Object pairs = *fullRecord().members();
  pairs.emplace_back("id", JSON("later"));
  auto info = InstanceInfo::fromJSON(JSON(std::move(pairs)));
  ASSERT_TRUE(info);
  EXPECT_EQ(info->id, "later");
}

// ---- isForeignHost ----

InstanceInfo recordAt(const std::string& reported, const std::string& platform) {
  InstanceInfo info;
  info.id = "x";
  info.socketPath = reported;
  info.reportedSocketPath = reported;
  info.platform = platform;
  return info;
}

TEST(IsForeignHost, SymlinkedPathWithTheSameRealPathIsLocal) {
  TempDir tmp;
  testing::writeFile(tmp / "real.sock", "");
  ASSERT_EQ(::symlink((tmp / "real.sock").c_str(), (tmp / "link.sock").c_str()), 0);
  EXPECT_FALSE(isForeignHost(recordAt(tmp / "real.sock", "darwin"), tmp / "link.sock"));
  EXPECT_FALSE(isForeignHost(recordAt(tmp / "link.sock", "darwin"), tmp / "real.sock"));
}

TEST(IsForeignHost, DifferentPathsAreForeign) {
  TempDir tmp;
  testing::writeFile(tmp / "a.sock", "");
  testing::writeFile(tmp / "b.sock", "");
  EXPECT_TRUE(isForeignHost(recordAt(tmp / "a.sock", "darwin"), tmp / "b.sock"));
  // Paths that do not exist are compared as they stand.
  EXPECT_FALSE(isForeignHost(recordAt("/nowhere/x.sock", "darwin"), "/nowhere/x.sock"));
  EXPECT_TRUE(isForeignHost(recordAt("/remote/9/fs.sock", "darwin"), "/nowhere/x.sock"));
}

TEST(IsForeignHost, AnyPlatformButDarwinIsForeign) {
  TempDir tmp;
  testing::writeFile(tmp / "s.sock", "");
  EXPECT_TRUE(isForeignHost(recordAt(tmp / "s.sock", "linux"), tmp / "s.sock"));
  EXPECT_TRUE(isForeignHost(recordAt(tmp / "s.sock", "Darwin"), tmp / "s.sock"));
  EXPECT_TRUE(isForeignHost(recordAt(tmp / "s.sock", ""), tmp / "s.sock"));
}

// ---- pidAlive ----

TEST(PidAlive, OwnProcessIsAlive) {
  EXPECT_TRUE(pidAlive(::getpid()));
}

TEST(PidAlive, ReapedChildIsDead) {
  EXPECT_FALSE(pidAlive(testing::deadPid()));
}

TEST(PidAlive, SleepingChildIsAliveUntilKilled) {
  SleepingChild child;
  EXPECT_TRUE(pidAlive(child.pid()));
  pid_t pid = child.pid();
  child.end();
  EXPECT_FALSE(pidAlive(pid));
}

TEST(PidAlive, ZombieChildIsDead) {
  pid_t pid = ::fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) ::_exit(0);
  // Waits until the child has exited, leaving it unreaped: a zombie.
  siginfo_t info{};
  ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT), 0);
  EXPECT_EQ(::kill(pid, 0), 0);  // it still answers signals
  EXPECT_FALSE(pidAlive(pid));
  int status;
  ::waitpid(pid, &status, 0);
}

TEST(PidAlive, OutOfRangeNumbersAreNotAlive) {
  EXPECT_FALSE(pidAlive(int64_t{1} << 32));
  EXPECT_FALSE(pidAlive(int64_t{INT32_MAX} + 1));
  EXPECT_FALSE(pidAlive(int64_t{INT32_MIN} - 1));
  EXPECT_FALSE(pidAlive(INT64_MAX));
  EXPECT_FALSE(pidAlive(INT64_MIN));
}

// ---- age rule ----

TEST(StaleAge, ExactlyTenSecondsIsKept) {
  EXPECT_EQ(folderAgeMs(1000010.0, 1000000, 0), 10000.0);
  EXPECT_FALSE(pastStaleAge(folderAgeMs(1000010.0, 1000000, 0)));
  EXPECT_FALSE(pastStaleAge(10000.0));
  EXPECT_TRUE(pastStaleAge(10000.001));
  EXPECT_FALSE(pastStaleAge(0));
  EXPECT_FALSE(pastStaleAge(-5000));  // a folder from the future is young
}

TEST(StaleAge, NanosecondsCount) {
  EXPECT_DOUBLE_EQ(folderAgeMs(1000010.5, 1000000, 500000000), 10000.0);
  EXPECT_TRUE(pastStaleAge(folderAgeMs(1000010.5, 1000000, 499000000)));
  EXPECT_FALSE(pastStaleAge(folderAgeMs(1000010.5, 1000000, 501000000)));
}

}  // namespace
}  // namespace vorn
