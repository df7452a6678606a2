#include "paths/paths.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "paths/test_files.h"

namespace vorn {
namespace {

using testing::TempDir;

TEST(PathsReadFile, WholeBytesOrNothing) {
  TempDir dir;
  EXPECT_EQ(Paths::readFile(dir.path() + "/missing"), std::nullopt);
  std::string bytes("a\0b\xff\n", 5);
  EXPECT_EQ(Paths::readFile(dir.file("f", bytes)), bytes);
  EXPECT_EQ(Paths::readFile(dir.file("empty", "")), "");
  EXPECT_EQ(Paths::readFile(dir.dir("sub")), std::nullopt);
}

// normalize

TEST(PathsNormalize, CollapsesSlashesDotsAndParents) {
  EXPECT_EQ(Paths::normalize("/a//b/./c/../d"), "/a/b/d");
}

TEST(PathsNormalize, AbsoluteNeverClimbsAboveRoot) {
  EXPECT_EQ(Paths::normalize("/../x"), "/x");
  EXPECT_EQ(Paths::normalize("/../../.."), "/");
  EXPECT_EQ(Paths::normalize("/a/../../b"), "/b");
}

TEST(PathsNormalize, RelativeKeepsLeadingParents) {
  EXPECT_EQ(Paths::normalize("../x"), "../x");
  EXPECT_EQ(Paths::normalize("../../x/y"), "../../x/y");
  EXPECT_EQ(Paths::normalize("a/../../x"), "../x");
  EXPECT_EQ(Paths::normalize("../a/.."), "..");
}

TEST(PathsNormalize, RootEmptyAndDots) {
  EXPECT_EQ(Paths::normalize("/"), "/");
  EXPECT_EQ(Paths::normalize("///"), "/");
  EXPECT_EQ(Paths::normalize(""), "");
  EXPECT_EQ(Paths::normalize("."), "");
  EXPECT_EQ(Paths::normalize("a/.."), "");
  EXPECT_EQ(Paths::normalize("./a/"), "a");
  EXPECT_EQ(Paths::normalize("/a/b/"), "/a/b");
}

TEST(PathsNormalize, KeepsOtherComponentsVerbatim) {
  EXPECT_EQ(Paths::normalize("/a/.../b"), "/a/.../b");
  EXPECT_EQ(Paths::normalize("/a/.hidden/b:12"), "/a/.hidden/b:12");
  EXPECT_EQ(Paths::normalize("/dé/ü"), "/dé/ü");
}

// join

TEST(PathsJoin, DropsEmptyPartsAndNormalizes) {
  EXPECT_EQ(Paths::join({"/run", "vorn"}), "/run/vorn");
  EXPECT_EQ(Paths::join({"", "vorn"}), "vorn");
  EXPECT_EQ(Paths::join({"/w/", "", "/src//a", "../b"}), "/w/src/b");
  EXPECT_EQ(Paths::join({"/w", "tools/go.pin"}), "/w/tools/go.pin");
  EXPECT_EQ(Paths::join({}), "");
  EXPECT_EQ(Paths::join({"/"}), "/");
}

// relative

TEST(PathsRelative, SamePathIsEmpty) {
  EXPECT_EQ(Paths::relative("/w", "/w"), "");
  EXPECT_EQ(Paths::relative("/w/", "//w"), "");
}

TEST(PathsRelative, DescendantsAndSiblings) {
  EXPECT_EQ(Paths::relative("/w", "/w/src/a"), "src/a");
  EXPECT_EQ(Paths::relative("/w", "/x"), "../x");
  EXPECT_EQ(Paths::relative("/w/a/b", "/w/c"), "../../c");
  EXPECT_EQ(Paths::relative("/w/a", "/w"), "..");
  EXPECT_EQ(Paths::relative("/", "/w/a"), "w/a");
}

TEST(PathsRelative, ComparesWholeComponents) {
  EXPECT_EQ(Paths::relative("/w", "/wx/a"), "../wx/a");
}

// parent

TEST(PathsParent, TextBeforeLastSlash) {
  EXPECT_EQ(Paths::parent("/a/b/c"), "/a/b");
  EXPECT_EQ(Paths::parent("a/b"), "a");
  EXPECT_EQ(Paths::parent("/a"), "/");
  EXPECT_EQ(Paths::parent("/"), "/");
  EXPECT_EQ(Paths::parent("a"), ".");
  EXPECT_EQ(Paths::parent("."), ".");
  EXPECT_EQ(Paths::parent(""), ".");
  EXPECT_EQ(Paths::parent("a/b/"), "a/b");
}

// absolute

TEST(PathsAbsolute, RelativeIsJoinedToCwd) {
  EXPECT_EQ(Paths::absolute("/home/u", "src/../main.go"), "/home/u/main.go");
  EXPECT_EQ(Paths::absolute("/home/u", "."), "/home/u");
  EXPECT_EQ(Paths::absolute("/home/u", ""), "/home/u");
  EXPECT_EQ(Paths::absolute("/home/u", "../../../x"), "/x");
}

TEST(PathsAbsolute, AbsoluteIgnoresCwd) {
  EXPECT_EQ(Paths::absolute("/home/u", "/etc//hosts"), "/etc/hosts");
}

// file system helpers

TEST(PathsFileSystem, RegularFileAndDirectory) {
  TempDir tmp;
  std::string file = tmp.file("f.txt");
  std::string dir = tmp.dir("d");
  EXPECT_TRUE(Paths::isRegularFile(file));
  EXPECT_FALSE(Paths::isDirectory(file));
  EXPECT_TRUE(Paths::isDirectory(dir));
  EXPECT_FALSE(Paths::isRegularFile(dir));
  EXPECT_FALSE(Paths::isRegularFile(tmp.path() + "/missing"));
  EXPECT_FALSE(Paths::isDirectory(tmp.path() + "/missing"));
}

TEST(PathsFileSystem, StatFollowsLinks) {
  TempDir tmp;
  std::string file = tmp.file("f.txt");
  std::string dir = tmp.dir("d");
  ASSERT_EQ(::symlink(file.c_str(), (tmp.path() + "/lf").c_str()), 0);
  ASSERT_EQ(::symlink(dir.c_str(), (tmp.path() + "/ld").c_str()), 0);
  ASSERT_EQ(::symlink("nowhere", (tmp.path() + "/dangling").c_str()), 0);
  EXPECT_TRUE(Paths::isRegularFile(tmp.path() + "/lf"));
  EXPECT_TRUE(Paths::isDirectory(tmp.path() + "/ld"));
  EXPECT_FALSE(Paths::isRegularFile(tmp.path() + "/dangling"));
}

TEST(PathsFileSystem, RealResolvesLinksOrKeepsThePath) {
  TempDir tmp;
  std::string dir = tmp.dir("d/e");
  ASSERT_EQ(::symlink(dir.c_str(), (tmp.path() + "/link").c_str()), 0);
  EXPECT_EQ(Paths::real(tmp.path() + "/link"), dir);
  EXPECT_EQ(Paths::real(tmp.path() + "/d/./e/../e"), dir);
  EXPECT_EQ(Paths::real(tmp.path() + "/missing/../x"), tmp.path() + "/missing/../x");
}

// isCheckout / checkout

TEST(PathsCheckout, AllThreeMarkersMakeACheckout) {
  TempDir tmp;
  std::string root = tmp.checkout("repo");
  EXPECT_TRUE(Paths::isCheckout(root));
  EXPECT_TRUE(Paths::isCheckout(root + "/"));
}

TEST(PathsCheckout, EachMarkerIsRequired) {
  for (const char* missing : {"MODULE.bazel", "tools/go.pin", "src/cli/vorn.ts"}) {
    TempDir tmp;
    std::string root = tmp.checkout("repo");
    ASSERT_EQ(::unlink((root + "/" + missing).c_str()), 0);
    EXPECT_FALSE(Paths::isCheckout(root)) << missing;
  }
}

TEST(PathsCheckout, MarkersMustBeRegularFiles) {
  TempDir tmp;
  std::string root = tmp.dir("repo");
  tmp.file("repo/MODULE.bazel");
  tmp.file("repo/tools/go.pin");
  tmp.dir("repo/src/cli/vorn.ts");  // a folder of that name does not count
  EXPECT_FALSE(Paths::isCheckout(root));
}

TEST(PathsCheckout, ScriptEntryHasItsExtension) {
  TempDir tmp;
  std::string root = tmp.dir("repo");
  tmp.file("repo/MODULE.bazel");
  tmp.file("repo/tools/go.pin");
  tmp.file("repo/src/cli/vorn");
  EXPECT_FALSE(Paths::isCheckout(root));
}

TEST(PathsCheckout, NeverInsideAnAppBundle) {
  TempDir tmp;
  std::string inside = tmp.checkout("Vorn.app/Contents/Resources/app");
  EXPECT_FALSE(Paths::isCheckout(inside));
  EXPECT_EQ(Paths::checkout(inside + "/src"), std::nullopt);
  std::string bundle = tmp.checkout("X.app/Contents");
  EXPECT_FALSE(Paths::isCheckout(bundle));
}

TEST(PathsCheckout, FindsTheNearestCheckoutAbove) {
  TempDir tmp;
  std::string outer = tmp.checkout("outer");
  std::string inner = tmp.checkout("outer/vendor/inner");
  tmp.dir("outer/vendor/inner/pkg/deep");
  tmp.dir("outer/other");
  EXPECT_EQ(Paths::checkout(inner + "/pkg/deep"), inner);
  EXPECT_EQ(Paths::checkout(inner), inner);
  EXPECT_EQ(Paths::checkout(outer + "/other"), outer);
  EXPECT_EQ(Paths::checkout(outer + "/vendor"), outer);
  // The start is normalised first, and need not exist.
  EXPECT_EQ(Paths::checkout(outer + "//other/./../vendor/missing"), outer);
}

TEST(PathsCheckout, NothingWhenNoneAbove) {
  TempDir tmp;
  std::string dir = tmp.dir("a/b");
  // A checkout below the start does not count.
  tmp.checkout("a/b/c");
  EXPECT_EQ(Paths::checkout(dir), std::nullopt);
  EXPECT_EQ(Paths::checkout("/"), std::nullopt);
}

}  // namespace
}  // namespace vorn
