#include "paths/checkout.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <string>

#include "paths/test_files.h"

namespace vorn {
namespace {

using testing::TempDir;
using Env = std::map<std::string, std::string>;

TEST(CheckoutRoot, FromASubdirectoryOfTheCurrentCheckout) {
  TempDir tmp;
  std::string root = tmp.checkout("repo");
  std::string deep = tmp.dir("repo/pkg/deep");
  EXPECT_EQ(checkoutRoot(deep, "/usr/local/bin/vorn", {}), root);
}

TEST(CheckoutRoot, CurrentDirectoryWinsOverTheVariable) {
  TempDir tmp;
  std::string here = tmp.checkout("here");
  std::string other = tmp.checkout("other");
  EXPECT_EQ(checkoutRoot(here + "/", "", Env{{"VORN_REPO_ROOT", other}}), here);
}

TEST(CheckoutRoot, TheExecutableLeadsToItsCheckout) {
  TempDir tmp;
  std::string root = tmp.checkout("repo");
  std::string outside = tmp.dir("elsewhere");
  std::string other = tmp.checkout("other");
  std::string exe = root + "/cli/native/.build/debug/vorn";
  // The executable's checkout comes before the variable.
  EXPECT_EQ(checkoutRoot(outside, exe, Env{{"VORN_REPO_ROOT", other}}), root);
  // A relative executable path is not walked.
  EXPECT_EQ(checkoutRoot(outside, "repo/vorn", {}), std::nullopt);
}

TEST(CheckoutRoot, TheVariableIsTheLastResort) {
  TempDir tmp;
  std::string other = tmp.checkout("other");
  std::string outside = tmp.dir("elsewhere");
  EXPECT_EQ(checkoutRoot(outside, "/usr/local/bin/vorn", Env{{"VORN_REPO_ROOT", other}}), other);
}

TEST(CheckoutRoot, AVariableThatIsNoCheckoutIsIgnored) {
  TempDir tmp;
  std::string outside = tmp.dir("elsewhere");
  EXPECT_EQ(checkoutRoot(outside, "/usr/local/bin/vorn", Env{{"VORN_REPO_ROOT", outside}}),
            std::nullopt);
  EXPECT_EQ(checkoutRoot(outside, "/usr/local/bin/vorn", Env{{"VORN_REPO_ROOT", ""}}),
            std::nullopt);
  EXPECT_EQ(checkoutRoot(outside, "/usr/local/bin/vorn", {}), std::nullopt);
}

TEST(CheckoutRoot, NeverInsideAnAppBundle) {
  TempDir tmp;
  std::string app = tmp.checkout("Vorn.app/Contents/Resources/app");
  EXPECT_EQ(checkoutRoot(app, app + "/bin/vorn", {}), std::nullopt);
}

}  // namespace
}  // namespace vorn

// ---- whose checkout ----

namespace vorn {
namespace {

using testing::TempDir;
using Env = std::map<std::string, std::string>;

// Makes the path look like someone else's: given away when we may (as root), else judged as
// seen by another, unprivileged user. The uid to judge with, or nothing when neither works.
std::optional<uid_t> giveAway(const std::string& path) {
  if (::getuid() == 0) {
    if (::chown(path.c_str(), 12345, static_cast<gid_t>(-1)) != 0) return std::nullopt;
    return uid_t{0};
  }
  return ::getuid() + 1;
}

TEST(CheckoutTrust, AFolderOthersMayWriteIsPassedOver) {
  for (mode_t mode : {0775, 0777, 01777}) {
    TempDir tmp;
    std::string outer = tmp.checkout("outer");
    std::string shared = tmp.checkout("outer/shared");
    std::string deep = tmp.dir("outer/shared/pkg");
    ASSERT_EQ(::chmod(shared.c_str(), mode), 0);
    EXPECT_FALSE(Paths::isCheckout(shared)) << std::oct << mode;
    // Passed over as if it were no checkout: the walk goes on up.
    EXPECT_EQ(checkoutRoot(deep, "", {}), outer) << std::oct << mode;
    EXPECT_EQ(checkoutRoot(tmp.path(), "", Env{{"VORN_REPO_ROOT", shared}}), std::nullopt);
  }
}

TEST(CheckoutTrust, PrivateAndSharedReadableFoldersAreCheckouts) {
  for (mode_t mode : {0700, 0755}) {
    TempDir tmp;
    std::string root = tmp.checkout("repo");
    ASSERT_EQ(::chmod(root.c_str(), mode), 0);
    EXPECT_TRUE(Paths::isCheckout(root)) << std::oct << mode;
  }
}

TEST(CheckoutTrust, AMarkerOthersMayWriteIsPassedOver) {
  for (const char* marker : {"MODULE.bazel", "tools/go.pin", "src/cli/vorn.ts"}) {
    TempDir tmp;
    std::string root = tmp.checkout("repo");
    std::string file = root + "/" + marker;
    ASSERT_EQ(::chmod(file.c_str(), 0666), 0);
    EXPECT_FALSE(Paths::isCheckout(root)) << marker;
    ASSERT_EQ(::chmod(file.c_str(), 0664), 0);
    EXPECT_FALSE(Paths::isCheckout(root)) << marker;
    ASSERT_EQ(::chmod(file.c_str(), 0644), 0);
    EXPECT_TRUE(Paths::isCheckout(root)) << marker;
  }
}

TEST(CheckoutTrust, AFolderOfAnotherUserIsPassedOver) {
  TempDir tmp;
  std::string root = tmp.checkout("repo");
  std::optional<uid_t> judge = giveAway(root);
  if (!judge) GTEST_SKIP() << "cannot give a folder to another user here";
  EXPECT_FALSE(Paths::isCheckout(root, *judge));
  EXPECT_EQ(Paths::checkout(root + "/src", *judge), std::nullopt);
}

TEST(CheckoutTrust, AMarkerOfAnotherUserIsPassedOver) {
  for (const char* marker : {"MODULE.bazel", "tools/go.pin", "src/cli/vorn.ts"}) {
    TempDir tmp;
    std::string root = tmp.checkout("repo");
    if (::getuid() != 0) GTEST_SKIP() << "cannot give a file to another user here";
    ASSERT_EQ(::chown((root + "/" + marker).c_str(), 12345, static_cast<gid_t>(-1)), 0);
    EXPECT_FALSE(Paths::isCheckout(root)) << marker;
    // A link of ours to it does not make it ours.
    std::string linked = tmp.checkout("linked");
    std::string ours = linked + "/" + marker;
    ASSERT_EQ(::unlink(ours.c_str()), 0);
    ASSERT_EQ(::symlink((root + "/" + marker).c_str(), ours.c_str()), 0);
    EXPECT_FALSE(Paths::isCheckout(linked)) << marker;
  }
}

TEST(CheckoutTrust, RootsFilesAreTrusted) {
  // Everything of a checkout owned by root is trusted by every user (a system-wide install).
  TempDir tmp;
  std::string root = tmp.checkout("repo");
  if (::getuid() != 0) GTEST_SKIP() << "only root can make root-owned files";
  EXPECT_TRUE(Paths::isCheckout(root, 12345));
}

}  // namespace
}  // namespace vorn
