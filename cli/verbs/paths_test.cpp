#include "verbs/paths.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace vorn {
namespace {

// A private temporary folder, removed with everything in it at the end of the test.
class TempDir {
 public:
  TempDir() {
    std::string base = std::filesystem::temp_directory_path().string() + "/vorn-paths-XXXXXX";
    if (::mkdtemp(base.data()) == nullptr) ADD_FAILURE() << "mkdtemp failed";
    // Resolved, so comparisons hold where the temp folder is reached through a link.
    path_ = Paths::real(base);
  }
  ~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
  const std::string& path() const { return path_; }

  std::string file(const std::string& rel, const std::string& text = "x") const {
    std::string full = path_ + "/" + rel;
    std::filesystem::create_directories(std::filesystem::path(full).parent_path());
    std::ofstream(full) << text;
    return full;
  }
  std::string dir(const std::string& rel) const {
    std::string full = path_ + "/" + rel;
    std::filesystem::create_directories(full);
    return full;
  }
  // The three markers of a source checkout below `rel`.
  std::string checkout(const std::string& rel) const {
    std::string root = dir(rel);
    file(rel + "/MODULE.bazel");
    file(rel + "/tools/go.pin");
    file(rel + "/" + std::string(Paths::checkoutScriptEntry));
    return root;
  }

 private:
  std::string path_;
};

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

// splitPosition

TEST(SplitPosition, LineAndColumn) {
  EXPECT_EQ(splitPosition("main.go:12:3"), (SplitPosition{"main.go", 12, 3}));
  EXPECT_EQ(splitPosition("main.go:12"), (SplitPosition{"main.go", 12, std::nullopt}));
  EXPECT_EQ(splitPosition("/a/b.go:007:08"), (SplitPosition{"/a/b.go", 7, 8}));
}

TEST(SplitPosition, NoNumericTail) {
  EXPECT_EQ(splitPosition("main.go"), std::nullopt);
  EXPECT_EQ(splitPosition("main.go:"), std::nullopt);
  EXPECT_EQ(splitPosition("main.go:x"), std::nullopt);
  EXPECT_EQ(splitPosition("main.go:12:"), std::nullopt);
  EXPECT_EQ(splitPosition("main.go:12x"), std::nullopt);
  EXPECT_EQ(splitPosition("main.go:+12"), std::nullopt);
  EXPECT_EQ(splitPosition("main.go:-1"), std::nullopt);
  EXPECT_EQ(splitPosition("main.go: 12"), std::nullopt);
  EXPECT_EQ(splitPosition(""), std::nullopt);
  EXPECT_EQ(splitPosition(":"), std::nullopt);
}

TEST(SplitPosition, NonAsciiDigitsAreNotNumeric) {
  EXPECT_EQ(splitPosition("main.go:\xD9\xA1\xD9\xA2"), std::nullopt);  // Arabic-Indic digits
}

TEST(SplitPosition, AtMostTwoNumericPiecesTheRestIsTheFile) {
  EXPECT_EQ(splitPosition("a:1:2:3"), (SplitPosition{"a:1", 2, 3}));
  EXPECT_EQ(splitPosition("c:x:5"), (SplitPosition{"c:x", 5, std::nullopt}));
  EXPECT_EQ(splitPosition("a::5"), (SplitPosition{"a:", 5, std::nullopt}));
  EXPECT_EQ(splitPosition("::5"), (SplitPosition{":", 5, std::nullopt}));
}

TEST(SplitPosition, EmptyFilePartIsNothing) {
  EXPECT_EQ(splitPosition(":12"), std::nullopt);
  EXPECT_EQ(splitPosition(":12:3"), std::nullopt);
  // Both pieces are numeric, so both are taken as the position and no file is left.
  EXPECT_EQ(splitPosition("12:3"), std::nullopt);
}

TEST(SplitPosition, OverflowIsNothing) {
  EXPECT_EQ(splitPosition("f:9223372036854775807"), (SplitPosition{"f", INT64_MAX, std::nullopt}));
  EXPECT_EQ(splitPosition("f:9223372036854775808"), std::nullopt);
  EXPECT_EQ(splitPosition("f:1:99999999999999999999"), std::nullopt);
  EXPECT_EQ(splitPosition("f:99999999999999999999:1"), std::nullopt);
}

TEST(SplitPosition, ZeroIsPassedThrough) {
  EXPECT_EQ(splitPosition("f:0"), (SplitPosition{"f", 0, std::nullopt}));
  EXPECT_EQ(splitPosition("f:0:0"), (SplitPosition{"f", 0, 0}));
}

// parseFileTarget

TEST(ParseFileTarget, PlainFileRelativeAndAbsolute) {
  TempDir tmp;
  std::string file = tmp.file("src/main.go");
  EXPECT_EQ(parseFileTarget("src/main.go", tmp.path()),
            (FileTarget{file, std::nullopt, std::nullopt}));
  EXPECT_EQ(parseFileTarget("./src/../src//main.go", tmp.path()),
            (FileTarget{file, std::nullopt, std::nullopt}));
  EXPECT_EQ(parseFileTarget(file, "/elsewhere"), (FileTarget{file, std::nullopt, std::nullopt}));
}

TEST(ParseFileTarget, LineAndColumn) {
  TempDir tmp;
  std::string file = tmp.file("main.go");
  EXPECT_EQ(parseFileTarget("main.go:12:3", tmp.path()), (FileTarget{file, 12, 3}));
  EXPECT_EQ(parseFileTarget("main.go:12", tmp.path()), (FileTarget{file, 12, std::nullopt}));
  EXPECT_EQ(parseFileTarget(file + ":4", "/elsewhere"), (FileTarget{file, 4, std::nullopt}));
  EXPECT_EQ(parseFileTarget("main.go:0:0", tmp.path()), (FileTarget{file, 0, 0}));
}

TEST(ParseFileTarget, NotATargetWithoutNumbers) {
  TempDir tmp;
  tmp.file("main.go");
  EXPECT_EQ(parseFileTarget("main.go:", tmp.path()), std::nullopt);
  EXPECT_EQ(parseFileTarget("main.go:x", tmp.path()), std::nullopt);
  EXPECT_EQ(parseFileTarget("main.go:99999999999999999999", tmp.path()), std::nullopt);
}

TEST(ParseFileTarget, WholeNameIsTriedFirst) {
  TempDir tmp;
  std::string colon = tmp.file("main.go:");
  std::string x = tmp.file("main.go:x");
  std::string twelve = tmp.file("notes:12");
  tmp.file("notes");
  EXPECT_EQ(parseFileTarget("main.go:", tmp.path()),
            (FileTarget{colon, std::nullopt, std::nullopt}));
  EXPECT_EQ(parseFileTarget("main.go:x", tmp.path()), (FileTarget{x, std::nullopt, std::nullopt}));
  EXPECT_EQ(parseFileTarget("notes:12", tmp.path()),
            (FileTarget{twelve, std::nullopt, std::nullopt}));
  // Without the whole name, the position split applies to the shorter one.
  EXPECT_EQ(parseFileTarget("notes:13", tmp.path()),
            (FileTarget{tmp.path() + "/notes", 13, std::nullopt}));
}

TEST(ParseFileTarget, ColonsInsideTheFileName) {
  TempDir tmp;
  std::string file = tmp.file("a:1");
  EXPECT_EQ(parseFileTarget("a:1:2:3", tmp.path()), (FileTarget{file, 2, 3}));
}

TEST(ParseFileTarget, MissingFilesAndDirectoriesAreNothing) {
  TempDir tmp;
  tmp.dir("pkg");
  tmp.dir("d:5");
  EXPECT_EQ(parseFileTarget("missing.go", tmp.path()), std::nullopt);
  EXPECT_EQ(parseFileTarget("missing.go:3", tmp.path()), std::nullopt);
  EXPECT_EQ(parseFileTarget("pkg", tmp.path()), std::nullopt);
  EXPECT_EQ(parseFileTarget("pkg:5", tmp.path()), std::nullopt);
  EXPECT_EQ(parseFileTarget("d:5", tmp.path()), std::nullopt);
  EXPECT_EQ(parseFileTarget("", tmp.path()), std::nullopt);
}

TEST(ParseFileTarget, LinkedFileKeepsTheNameAsTyped) {
  TempDir tmp;
  std::string file = tmp.file("real.go");
  ASSERT_EQ(::symlink(file.c_str(), (tmp.path() + "/link.go").c_str()), 0);
  EXPECT_EQ(parseFileTarget("link.go:2", tmp.path()),
            (FileTarget{tmp.path() + "/link.go", 2, std::nullopt}));
}

}  // namespace
}  // namespace vorn
