#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
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

using testing::FakeInstanceServer;
using testing::Record;
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

#if defined(__linux__)
char processState(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
  std::stringstream text;
  text << in.rdbuf();
  std::string stat = text.str();
  size_t close = stat.rfind(')');
  return close == std::string::npos || close + 2 >= stat.size() ? '?' : stat[close + 2];
}

TEST(PidAlive, ZombieChildIsDead) {
  pid_t pid = ::fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) ::_exit(0);
  // Wait (with a deadline) until the exited child shows as a zombie, without reaping it.
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (processState(pid) != 'Z' && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  ASSERT_EQ(processState(pid), 'Z');
  EXPECT_EQ(::kill(pid, 0), 0);  // it still answers signals
  EXPECT_FALSE(pidAlive(pid));
  int status;
  ::waitpid(pid, &status, 0);
}
#endif

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

// ---- scan ----

struct ScanTest : ::testing::Test {
  TempDir tmp;
  CapturedContext io;
  std::string root;

  ScanTest() {
    io.ctx.env["XDG_RUNTIME_DIR"] = tmp.path();
    root = tmp / "vorn";
    std::filesystem::create_directories(root);
  }

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

std::string me() {
  return std::to_string(::getpid());
}

TEST_F(ScanTest, EmptyRoot) {
  Scan scan = instances().scan(false);
  EXPECT_TRUE(scan.live.empty());
  EXPECT_TRUE(scan.stale.empty());
  EXPECT_TRUE(scan.removed.empty());
}

TEST_F(ScanTest, MissingRootGivesEmptyLists) {
  io.ctx.env["XDG_RUNTIME_DIR"] = tmp / "absent";
  Scan scan = instances().scan(true);
  EXPECT_TRUE(scan.live.empty() && scan.stale.empty() && scan.removed.empty());
}

TEST_F(ScanTest, RootThatIsAFileGivesEmptyLists) {
  std::filesystem::remove_all(root);
  testing::writeFile(root, "not a folder");
  Scan scan = instances().scan(true);
  EXPECT_TRUE(scan.live.empty() && scan.stale.empty() && scan.removed.empty());
  EXPECT_TRUE(testing::exists(root));
}

TEST_F(ScanTest, UnreadableRootGivesEmptyLists) {
  makeDir(me());  // readable, this would be a "no-sock" entry
  ASSERT_EQ(instances().scan(false).stale.size(), 1u);

  if (::geteuid() != 0) {
    ASSERT_EQ(::chmod(root.c_str(), 0), 0);
    Scan scan = instances().scan(true);
    EXPECT_TRUE(scan.live.empty() && scan.stale.empty() && scan.removed.empty());
    ::chmod(root.c_str(), 0700);
    return;
  }
  // Permissions do not stop the superuser: look at the root as an unprivileged user instead.
  ASSERT_EQ(::chmod(tmp.path().c_str(), 0755), 0);
  ASSERT_EQ(::chmod(root.c_str(), 0), 0);
  pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    if (::setgid(65534) != 0 || ::setuid(65534) != 0) ::_exit(3);
    Scan scan = Instances{io.ctx}.scan(true);
    bool empty = scan.live.empty() && scan.stale.empty() && scan.removed.empty();
    ::_exit(empty ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ::chmod(root.c_str(), 0700);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_TRUE(testing::exists(dir(me())));
}

TEST_F(ScanTest, NamesThatAreNotNumbersAreIgnored) {
  for (const char* name : {"abc", "12a", "a12", "+", "-", "1 2", "+-1", "0x10", "1.0", " 12"}) {
    makeDir(name);
  }
  Scan scan = instances().scan(true);
  EXPECT_TRUE(scan.live.empty());
  EXPECT_TRUE(scan.stale.empty());
  EXPECT_TRUE(scan.removed.empty());
  for (const char* name : {"abc", "12a", "a12", "+", "-", "1 2", "+-1", "0x10", "1.0", " 12"}) {
    EXPECT_TRUE(testing::exists(dir(name))) << name;
  }
}

TEST_F(ScanTest, SignedAndZeroPaddedNamesParseButKeepTheirName) {
  pid_t dead = testing::deadPid();
  makeDir("+" + std::to_string(dead));
  makeDir("0" + std::to_string(dead));
  makeDir("+" + me());
  makeDir("00" + me());
  Scan scan = instances().scan(false);

  ASSERT_EQ(scan.removed.size(), 2u);
  for (const auto& entry : scan.removed) {
    EXPECT_EQ(entry.pid, dead);
    EXPECT_EQ(entry.reason, "dead-pid");
    EXPECT_TRUE(entry.dir == dir("+" + std::to_string(dead)) ||
                entry.dir == dir("0" + std::to_string(dead)))
        << entry.dir;
    EXPECT_EQ(entry.sock, entry.dir + "/fs.sock");
    EXPECT_FALSE(testing::exists(entry.dir));
  }

  ASSERT_EQ(scan.stale.size(), 2u);
  std::vector<std::string> dirs;
  for (const auto& entry : scan.stale) {
    EXPECT_EQ(entry.pid, ::getpid());
    EXPECT_EQ(entry.reason, "no-sock");
    dirs.push_back(entry.dir);
  }
  // Equal pids keep the listing order.
  std::vector<std::string> expected;
  for (const auto& name : listing())
    expected.push_back(dir(name));
  EXPECT_EQ(dirs, expected);
}

TEST_F(ScanTest, NamesBeyondThirtyTwoBitsAreNotInstanceFolders) {
  for (const char* name : {"4294967296", "2147483648", "-2147483649", "99999999999999999999"}) {
    makeDir(name);
  }
  Scan scan = instances().scan(true);
  EXPECT_TRUE(scan.live.empty() && scan.stale.empty() && scan.removed.empty());
  for (const char* name : {"4294967296", "2147483648", "-2147483649", "99999999999999999999"}) {
    EXPECT_TRUE(testing::exists(dir(name))) << name;
  }
}

TEST_F(ScanTest, DeadPidFolderIsDeletedWithoutPrune) {
  pid_t dead = testing::deadPid();
  std::string d = makeDir(std::to_string(dead));
  testing::writeFile(d + "/fs.sock", "");
  std::filesystem::create_directories(d + "/nested/deeper");
  testing::writeFile(d + "/nested/deeper/log", "x");
  Scan scan = instances().scan(false);
  EXPECT_TRUE(scan.stale.empty());
  ASSERT_EQ(scan.removed.size(), 1u);
  EXPECT_EQ(scan.removed[0], (StaleEntry{dead, d, d + "/fs.sock", "dead-pid"}));
  EXPECT_FALSE(testing::exists(d));
}

TEST_F(ScanTest, RegularFileNamedLikeAPidIsNeverDeleted) {
  pid_t dead = testing::deadPid();
  testing::writeFile(dir(std::to_string(dead)), "a file");
  testing::writeFile(dir(me()), "another file");
  Scan scan = instances().scan(true);
  EXPECT_TRUE(scan.removed.empty());
  ASSERT_EQ(scan.stale.size(), 2u);
  EXPECT_TRUE(testing::exists(dir(std::to_string(dead))));
  EXPECT_TRUE(testing::exists(dir(me())));
  for (const auto& entry : scan.stale) {
    EXPECT_EQ(entry.reason, entry.pid == dead ? "dead-pid" : "no-sock");
  }
}

TEST_F(ScanTest, AliveWithoutSocketIsKeptWithoutPrune) {
  std::string d = makeDir(me());
  age(d, 3600);
  Scan scan = instances().scan(false);
  ASSERT_EQ(scan.stale.size(), 1u);
  EXPECT_EQ(scan.stale[0], (StaleEntry{::getpid(), d, d + "/fs.sock", "no-sock"}));
  EXPECT_TRUE(scan.removed.empty());
  EXPECT_TRUE(testing::exists(d));
}

TEST_F(ScanTest, PruneKeepsAYoungFolder) {
  std::string d = makeDir(me());
  Scan scan = instances().scan(true);
  ASSERT_EQ(scan.stale.size(), 1u);
  EXPECT_EQ(scan.stale[0].reason, "no-sock");
  EXPECT_TRUE(scan.removed.empty());
  EXPECT_TRUE(testing::exists(d));
}

TEST_F(ScanTest, PruneDeletesAnOldFolder) {
  std::string d = makeDir(me());
  age(d, 11);
  Scan scan = instances().scan(true);
  EXPECT_TRUE(scan.stale.empty());
  ASSERT_EQ(scan.removed.size(), 1u);
  EXPECT_EQ(scan.removed[0], (StaleEntry{::getpid(), d, d + "/fs.sock", "no-sock"}));
  EXPECT_FALSE(testing::exists(d));
}

TEST_F(ScanTest, UnreachableSockets) {
  SleepingChild a, b, c;
  // A socket path that is a plain file: nothing to connect to.
  std::string plain = makeDir(std::to_string(a.pid()));
  testing::writeFile(plain + "/fs.sock", "");
  // A server that answers with an error status.
  FakeInstanceServer failing(dir(std::to_string(b.pid())) + "/fs.sock",
                             [](const testing::SeenRequest&) {
                               return testing::FakeReply{500, "{\"error\":\"boom\"}"};
                             });
  // A server whose record is not valid.
  FakeInstanceServer invalid(dir(std::to_string(c.pid())) + "/fs.sock",
                             [](const testing::SeenRequest&) {
                               return testing::FakeReply{200, "{\"id\":\"x\"}"};
                             });
  age(plain, 60);
  Scan scan = instances().scan(false);
  EXPECT_TRUE(scan.live.empty());
  EXPECT_TRUE(scan.removed.empty());
  ASSERT_EQ(scan.stale.size(), 3u);
  for (const auto& entry : scan.stale)
    EXPECT_EQ(entry.reason, "unreachable");
  EXPECT_TRUE(scan.stale[0].pid < scan.stale[1].pid && scan.stale[1].pid < scan.stale[2].pid);

  // With prune, the old one goes and the young ones stay.
  Scan pruned = instances().scan(true);
  ASSERT_EQ(pruned.removed.size(), 1u);
  EXPECT_EQ(pruned.removed[0].dir, plain);
  EXPECT_EQ(pruned.stale.size(), 2u);
}

TEST_F(ScanTest, LiveInstancesAreSortedByPid) {
  SleepingChild a, b;
  auto first = serve(std::to_string(a.pid()), "zeta", 300);
  auto second = serve(std::to_string(b.pid()), "alpha", 100);
  auto third = serve(me(), "mid", 200);
  Scan scan = instances().scan(false);
  ASSERT_EQ(scan.live.size(), 3u);
  EXPECT_EQ(scan.live[0].id, "alpha");
  EXPECT_EQ(scan.live[1].id, "mid");
  EXPECT_EQ(scan.live[2].id, "zeta");
  EXPECT_TRUE(scan.stale.empty());
  // The record keeps the dialled path; on this record's platform it is local.
  EXPECT_EQ(scan.live[1].socketPath, dir(me()) + "/fs.sock");
  EXPECT_FALSE(scan.live[1].foreign);
  ASSERT_EQ(third->requests().size(), 1u);
  EXPECT_EQ(third->requests()[0].method, "GET");
  EXPECT_EQ(third->requests()[0].path, "/instance");
}

TEST_F(ScanTest, ForwardedSocketKeepsTheDialledPathAndIsForeign) {
  std::string sock = dir(me()) + "/fs.sock";
  Record record = testing::record("remote1", 77, "/home/far/run/vorn/77/fs.sock");
  FakeInstanceServer server(sock, FakeInstanceServer::answering(record.json()));
  Scan scan = instances().scan(false);
  ASSERT_EQ(scan.live.size(), 1u);
  EXPECT_EQ(scan.live[0].socketPath, sock);
  EXPECT_EQ(scan.live[0].reportedSocketPath, "/home/far/run/vorn/77/fs.sock");
  EXPECT_TRUE(scan.live[0].foreign);
}

TEST_F(ScanTest, SymlinkedPidFolderIsNeverDeletedNorItsTarget) {
  TempDir outside;
  testing::writeFile(outside / "precious", "keep me");
  pid_t dead = testing::deadPid();
  std::string link = dir(std::to_string(dead));
  ASSERT_EQ(::symlink(outside.path().c_str(), link.c_str()), 0);
  std::string aliveLink = dir(me());
  ASSERT_EQ(::symlink(outside.path().c_str(), aliveLink.c_str()), 0);
  age(outside.path(), 3600);
  age(aliveLink, 3600);

  Scan scan = instances().scan(true);
  EXPECT_TRUE(scan.removed.empty());
  ASSERT_EQ(scan.stale.size(), 2u);
  EXPECT_TRUE(testing::exists(link));
  EXPECT_TRUE(testing::exists(aliveLink));
  EXPECT_TRUE(testing::exists(outside / "precious"));
}

TEST_F(ScanTest, DeletionNeverFollowsLinksInsideTheFolder) {
  TempDir outside;
  testing::writeFile(outside / "precious", "keep me");
  pid_t dead = testing::deadPid();
  std::string d = makeDir(std::to_string(dead));
  ASSERT_EQ(::symlink(outside.path().c_str(), (d + "/link").c_str()), 0);
  ASSERT_EQ(::symlink((outside / "precious").c_str(), (d + "/file-link").c_str()), 0);
  Scan scan = instances().scan(false);
  ASSERT_EQ(scan.removed.size(), 1u);
  EXPECT_FALSE(testing::exists(d));
  EXPECT_TRUE(testing::exists(outside / "precious"));
}

TEST_F(ScanTest, RemovedKeepsListingOrder) {
  for (int i = 0; i < 4; ++i) {
    std::string name = std::to_string(testing::deadPid());
    makeDir(name);
  }
  std::vector<std::string> expected;
  for (const auto& name : listing())
    expected.push_back(dir(name));
  Scan scan = instances().scan(false);
  std::vector<std::string> removed;
  for (const auto& entry : scan.removed)
    removed.push_back(entry.dir);
  EXPECT_EQ(removed, expected);
}

// ---- removeStaleDir ----

TEST_F(ScanTest, RemoveStaleDirRemovesOurFolder) {
  std::string d = makeDir("123");
  testing::writeFile(d + "/fs.sock", "");
  EXPECT_TRUE(Instances::removeStaleDir(root, StaleEntry{123, d, d + "/fs.sock", "dead-pid"}));
  EXPECT_FALSE(testing::exists(d));
  // Already gone: nothing to remove.
  EXPECT_FALSE(Instances::removeStaleDir(root, StaleEntry{123, d, d + "/fs.sock", "dead-pid"}));
}

TEST_F(ScanTest, RemoveStaleDirWantsTheExactParent) {
  std::string d = makeDir("123");
  EXPECT_FALSE(Instances::removeStaleDir(root + "/", StaleEntry{123, d, "", "dead-pid"}));
  EXPECT_FALSE(Instances::removeStaleDir(tmp.path(), StaleEntry{123, d, "", "dead-pid"}));
  std::string nested = makeDir("123/456");
  EXPECT_FALSE(Instances::removeStaleDir(root, StaleEntry{456, nested, "", "dead-pid"}));
  // A path that climbs out of the root through ".." does not count as a child of it.
  std::string climbing = root + "/../vorn";
  EXPECT_FALSE(Instances::removeStaleDir(root, StaleEntry{1, climbing, "", "dead-pid"}));
  EXPECT_TRUE(testing::exists(d));
  EXPECT_TRUE(testing::exists(nested));
  EXPECT_TRUE(testing::exists(root));
}

TEST_F(ScanTest, RemoveStaleDirRefusesFilesAndLinks) {
  testing::writeFile(dir("5"), "x");
  EXPECT_FALSE(Instances::removeStaleDir(root, StaleEntry{5, dir("5"), "", "dead-pid"}));
  EXPECT_TRUE(testing::exists(dir("5")));

  TempDir outside;
  testing::writeFile(outside / "precious", "keep");
  ASSERT_EQ(::symlink(outside.path().c_str(), dir("6").c_str()), 0);
  EXPECT_FALSE(Instances::removeStaleDir(root, StaleEntry{6, dir("6"), "", "dead-pid"}));
  EXPECT_TRUE(testing::exists(dir("6")));
  EXPECT_TRUE(testing::exists(outside / "precious"));
}

TEST_F(ScanTest, RemoveStaleDirRefusesAnotherUsersFolder) {
  std::string d = makeDir("7");
  if (::chown(d.c_str(), ::getuid() + 1, static_cast<gid_t>(-1)) != 0) {
    GTEST_SKIP() << "cannot give a folder to another user here";
  }
  EXPECT_FALSE(Instances::removeStaleDir(root, StaleEntry{7, d, "", "dead-pid"}));
  EXPECT_TRUE(testing::exists(d));
}

TEST_F(ScanTest, DeadPidFolderOfAnotherUserStaysStale) {
  pid_t dead = testing::deadPid();
  std::string d = makeDir(std::to_string(dead));
  if (::chown(d.c_str(), ::getuid() + 1, static_cast<gid_t>(-1)) != 0) {
    GTEST_SKIP() << "cannot give a folder to another user here";
  }
  Scan scan = instances().scan(false);
  EXPECT_TRUE(scan.removed.empty());
  ASSERT_EQ(scan.stale.size(), 1u);
  EXPECT_EQ(scan.stale[0].reason, "dead-pid");
  EXPECT_TRUE(testing::exists(d));
}

}  // namespace
}  // namespace vorn
