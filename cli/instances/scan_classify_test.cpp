// What a scan of the runtime root finds: which entries are instance folders, and which of those
// are live instances and which are stale, and why.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "instances/instances.h"
#include "instances/test_instances.h"
#include "instances/test_scan.h"

namespace vorn {
namespace {

using testing::FakeInstanceServer;
using testing::Record;
using testing::ScanTest;
using testing::SleepingChild;

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

}  // namespace
}  // namespace vorn
