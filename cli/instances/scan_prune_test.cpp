// What a scan removes and what it keeps: dead pids' folders, old folders with --prune, never a
// link or another user's folder; and removeStaleDir, which does the removing.
#include <gtest/gtest.h>
#include <unistd.h>

#include "instances/instances.h"
#include "instances/test_instances.h"
#include "instances/test_scan.h"

namespace vorn {
namespace {

using testing::ScanTest;
using testing::TempDir;

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
