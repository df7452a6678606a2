#include "paths/file_target.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "paths/test_files.h"

namespace vorn {
namespace {

using testing::TempDir;

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
