// The ownership and mode rules: who may own what we trust, and who may write it.
#include "paths/trust.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "paths/test_files.h"

namespace vorn {
namespace {

using testing::TempDir;

constexpr uid_t me = 1000;
constexpr uid_t someoneElse = 1001;

struct stat statOf(mode_t type, mode_t mode, uid_t owner, nlink_t links = 1) {
  struct stat st {};
  st.st_mode = type | mode;
  st.st_uid = owner;
  st.st_nlink = links;
  return st;
}

// The rule's verdict for a folder of each usual mode and owner.
std::string verdict(std::optional<std::string> problem) {
  return problem.value_or("ok");
}

TEST(Trust, OwnersWeTrust) {
  EXPECT_TRUE(Trust::trustedOwner(me, me));
  EXPECT_TRUE(Trust::trustedOwner(0, me));
  EXPECT_FALSE(Trust::trustedOwner(someoneElse, me));
  EXPECT_TRUE(Trust::trustedOwner(0, 0));
  EXPECT_FALSE(Trust::trustedOwner(me, 0));
}

TEST(Trust, WritableByOthers) {
  EXPECT_FALSE(Trust::writableByOthers(0700));
  EXPECT_FALSE(Trust::writableByOthers(0755));
  EXPECT_TRUE(Trust::writableByOthers(0775));
  EXPECT_TRUE(Trust::writableByOthers(0777));
  EXPECT_TRUE(Trust::writableByOthers(01777));
  EXPECT_TRUE(Trust::writableByOthers(0702));
}

TEST(Trust, RuntimeRootByModeAndOwner) {
  for (uid_t owner : {me, uid_t{0}}) {
    EXPECT_EQ(verdict(Trust::runtimeRootProblem(statOf(S_IFDIR, 0700, owner), me)), "ok");
    EXPECT_EQ(verdict(Trust::runtimeRootProblem(statOf(S_IFDIR, 0755, owner), me)), "ok");
    EXPECT_EQ(verdict(Trust::runtimeRootProblem(statOf(S_IFDIR, 0775, owner), me)),
              "writable by group or others");
    EXPECT_EQ(verdict(Trust::runtimeRootProblem(statOf(S_IFDIR, 0777, owner), me)),
              "writable by group or others");
    // The sticky bit keeps others from removing or renaming what is not theirs, as in /tmp.
    EXPECT_EQ(verdict(Trust::runtimeRootProblem(statOf(S_IFDIR, 01777, owner), me)), "ok");
  }
  for (mode_t mode : {0700, 0755, 0775, 0777, 01777}) {
    EXPECT_EQ(verdict(Trust::runtimeRootProblem(statOf(S_IFDIR, mode, someoneElse), me)),
              "owned by uid 1001")
        << std::oct << mode;
  }
  EXPECT_EQ(verdict(Trust::runtimeRootProblem(statOf(S_IFLNK, 0777, me), me)), "a symbolic link");
  EXPECT_EQ(verdict(Trust::runtimeRootProblem(statOf(S_IFREG, 0600, me), me)), "not a directory");
}

TEST(Trust, CheckoutPartsByModeAndOwner) {
  for (uid_t owner : {me, uid_t{0}}) {
    EXPECT_EQ(verdict(Trust::checkoutPartProblem(statOf(S_IFDIR, 0700, owner), me)), "ok");
    EXPECT_EQ(verdict(Trust::checkoutPartProblem(statOf(S_IFDIR, 0755, owner), me)), "ok");
    EXPECT_EQ(verdict(Trust::checkoutPartProblem(statOf(S_IFREG, 0644, owner), me)), "ok");
    for (mode_t mode : {0775, 0777, 01777}) {
      EXPECT_EQ(verdict(Trust::checkoutPartProblem(statOf(S_IFDIR, mode, owner), me)),
                "writable by group or others")
          << std::oct << mode;
    }
    EXPECT_EQ(verdict(Trust::checkoutPartProblem(statOf(S_IFREG, 0666, owner), me)),
              "writable by group or others");
  }
  for (mode_t mode : {0700, 0755, 0775, 0777, 01777}) {
    EXPECT_EQ(verdict(Trust::checkoutPartProblem(statOf(S_IFDIR, mode, someoneElse), me)),
              "owned by uid 1001");
  }
}

TEST(Trust, PrivateFoldersAreOursAlone) {
  EXPECT_EQ(verdict(Trust::privateFolderProblem(statOf(S_IFDIR, 0700, me), me)), "ok");
  EXPECT_EQ(verdict(Trust::privateFolderProblem(statOf(S_IFDIR, 0755, me), me)), "ok");
  for (mode_t mode : {0775, 0777, 01777}) {
    EXPECT_EQ(verdict(Trust::privateFolderProblem(statOf(S_IFDIR, mode, me), me)),
              "writable by group or others");
  }
  // Not even root's: the log must be readable by us and no one else.
  EXPECT_EQ(verdict(Trust::privateFolderProblem(statOf(S_IFDIR, 0700, 0), me)), "owned by uid 0");
  EXPECT_EQ(verdict(Trust::privateFolderProblem(statOf(S_IFDIR, 0700, someoneElse), me)),
            "owned by uid 1001");
  EXPECT_EQ(verdict(Trust::privateFolderProblem(statOf(S_IFLNK, 0777, me), me)),
            "a symbolic link");
  EXPECT_EQ(verdict(Trust::privateFolderProblem(statOf(S_IFREG, 0600, me), me)),
            "not a directory");
}

TEST(Trust, OwnFilesHaveOneName) {
  EXPECT_EQ(verdict(Trust::ownFileProblem(statOf(S_IFREG, 0600, me), me)), "ok");
  EXPECT_EQ(verdict(Trust::ownFileProblem(statOf(S_IFREG, 0600, me, 2), me)),
            "a file with other names (hard links)");
  EXPECT_EQ(verdict(Trust::ownFileProblem(statOf(S_IFREG, 0600, someoneElse), me)),
            "owned by uid 1001");
  EXPECT_EQ(verdict(Trust::ownFileProblem(statOf(S_IFDIR, 0700, me), me)), "not a regular file");
  EXPECT_EQ(verdict(Trust::ownFileProblem(statOf(S_IFLNK, 0777, me), me)), "a symbolic link");
}

TEST(Trust, OpenRuntimeRootOpensOnlyARealTrustedFolder) {
  TempDir tmp;
  std::string root = tmp.dir("vorn");
  int fd = Trust::openRuntimeRoot(root, Trust::self());
  EXPECT_GE(fd, 0);
  if (fd >= 0) ::close(fd);

  // A link to a folder of ours is still a link.
  std::string link = tmp / "link";
  ASSERT_EQ(::symlink(root.c_str(), link.c_str()), 0);
  EXPECT_EQ(Trust::openRuntimeRoot(link, Trust::self()), -1);
  EXPECT_EQ(Trust::openRuntimeRoot(tmp / "absent", Trust::self()), -1);
  EXPECT_EQ(Trust::openRuntimeRoot(tmp.file("file"), Trust::self()), -1);

  ASSERT_EQ(::chmod(root.c_str(), 0777), 0);
  EXPECT_EQ(Trust::openRuntimeRoot(root, Trust::self()), -1);
  ASSERT_EQ(::chmod(root.c_str(), 01777), 0);
  fd = Trust::openRuntimeRoot(root, Trust::self());
  EXPECT_GE(fd, 0);
  if (fd >= 0) ::close(fd);

  // Seen by another (non-root) user, a folder of ours is someone else's.
  ASSERT_EQ(::chmod(root.c_str(), 0700), 0);
  uid_t other = Trust::self() == 0 ? 0 : Trust::self() + 1;
  if (other != 0) EXPECT_EQ(Trust::openRuntimeRoot(root, other), -1);
  if (::geteuid() == 0 && ::chown(root.c_str(), 12345, static_cast<gid_t>(-1)) == 0) {
    EXPECT_EQ(Trust::openRuntimeRoot(root, Trust::self()), -1);
  }
}

TEST(Trust, CheckoutPartsOnDisk) {
  TempDir tmp;
  std::string file = tmp.file("marker", "");
  ASSERT_EQ(::chmod(file.c_str(), 0644), 0);
  EXPECT_TRUE(Trust::trustedCheckoutPart(file, Trust::self()));
  EXPECT_FALSE(Trust::trustedCheckoutPart(tmp / "absent", Trust::self()));
  ASSERT_EQ(::chmod(file.c_str(), 0664), 0);
  EXPECT_FALSE(Trust::trustedCheckoutPart(file, Trust::self()));
  ASSERT_EQ(::chmod(file.c_str(), 0644), 0);
  // A link is judged by what it leads to.
  std::string link = tmp / "link";
  ASSERT_EQ(::symlink(file.c_str(), link.c_str()), 0);
  EXPECT_TRUE(Trust::trustedCheckoutPart(link, Trust::self()));
  if (::geteuid() == 0 && ::chown(file.c_str(), 12345, static_cast<gid_t>(-1)) == 0) {
    EXPECT_FALSE(Trust::trustedCheckoutPart(file, Trust::self()));
    EXPECT_FALSE(Trust::trustedCheckoutPart(link, Trust::self()));
  }
}

}  // namespace
}  // namespace vorn
