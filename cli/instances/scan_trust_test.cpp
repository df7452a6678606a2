// A runtime root that is not ours is treated as absent: nothing in it is asked or deleted.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "instances/instances.h"
#include "instances/test_instances.h"
#include "instances/test_scan.h"

namespace vorn {
namespace {

using testing::ScanTest;

bool emptyScan(const Scan& scan) {
  return scan.live.empty() && scan.stale.empty() && scan.removed.empty();
}

TEST_F(ScanTest, ARootThatIsALinkIsNeitherListedNorPruned) {
  // Someone made the root a link to a folder of ours whose names look like dead pids.
  testing::TempDir photos;
  std::string y2019 = photos.dir(std::to_string(testing::deadPid()));
  photos.file(std::filesystem::path(y2019).filename().string() + "/img.jpg", "keep");
  std::filesystem::remove_all(root);
  ASSERT_EQ(::symlink(photos.path().c_str(), root.c_str()), 0);

  EXPECT_TRUE(emptyScan(instances().scan(false)));
  EXPECT_TRUE(emptyScan(instances().scan(true)));
  EXPECT_TRUE(testing::exists(y2019 + "/img.jpg"));
}

TEST_F(ScanTest, ARootThatOthersMayWriteIsTreatedAsAbsent) {
  std::string dead = makeDir(std::to_string(testing::deadPid()));
  for (mode_t mode : {0777, 0775, 0770, 0722}) {
    ASSERT_EQ(::chmod(root.c_str(), mode), 0);
    EXPECT_TRUE(emptyScan(instances().scan(true))) << std::oct << mode;
    EXPECT_TRUE(testing::exists(dead)) << std::oct << mode;
  }
}

TEST_F(ScanTest, AStickyOrPrivateRootIsScanned) {
  for (mode_t mode : {01777, 0755, 0700}) {
    std::string dead = makeDir(std::to_string(testing::deadPid()));
    ASSERT_EQ(::chmod(root.c_str(), mode), 0);
    Scan scan = instances().scan(false);
    ASSERT_EQ(scan.removed.size(), 1u) << std::oct << mode;
    EXPECT_EQ(scan.removed[0].dir, dead);
    EXPECT_FALSE(testing::exists(dead));
  }
}

TEST_F(ScanTest, ARootOfAnotherUserIsTreatedAsAbsent) {
  std::string dead = makeDir(std::to_string(testing::deadPid()));
  if (::geteuid() != 0 || ::chown(root.c_str(), 12345, static_cast<gid_t>(-1)) != 0) {
    GTEST_SKIP() << "cannot give a folder to another user here";
  }
  EXPECT_TRUE(emptyScan(instances().scan(true)));
  EXPECT_TRUE(testing::exists(dead));
  EXPECT_FALSE(Instances::removeStaleDir(root, StaleEntry{1, dead, "", "dead-pid"}));
  EXPECT_TRUE(testing::exists(dead));
}

TEST_F(ScanTest, RemoveStaleDirRefusesAnUntrustedRoot) {
  std::string dead = makeDir("8");
  ASSERT_EQ(::chmod(root.c_str(), 0777), 0);
  EXPECT_FALSE(Instances::removeStaleDir(root, StaleEntry{8, dead, "", "dead-pid"}));
  EXPECT_TRUE(testing::exists(dead));
  ASSERT_EQ(::chmod(root.c_str(), 0700), 0);
  EXPECT_TRUE(Instances::removeStaleDir(root, StaleEntry{8, dead, "", "dead-pid"}));
  EXPECT_FALSE(testing::exists(dead));
}

}  // namespace
}  // namespace vorn
