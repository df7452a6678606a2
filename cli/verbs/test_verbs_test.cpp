#include "verbs/test_verbs.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "core/cli_error.h"
#include "paths/paths.h"

namespace vorn {
namespace {

// A temporary workspace: app/pkg/foo/, app/foo_test.go, app/a:b.go, app/x/...
class TestTargetTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern =
        (std::filesystem::temp_directory_path() / "vorn-test-verbs-XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    root = Paths::real(pattern);
    app = root + "/app";
    std::filesystem::create_directories(app + "/pkg/foo");
    std::ofstream(app + "/foo_test.go") << "package app\n";
    std::ofstream(app + "/a:12") << "package app\n";
    std::ofstream(app + "/pkg/foo/bar_test.go") << "package foo\n";
  }
  void TearDown() override { std::filesystem::remove_all(root); }

  std::string root;
  std::string app;
};

CliError runError(const std::string& arg, const std::string& cwd) {
  try {
    localTestTarget(arg, cwd);
  } catch (const CliError& error) {
    return error;
  }
  ADD_FAILURE() << "expected an error for " << arg;
  return {};
}

TEST_F(TestTargetTest, DotDotDotIsEveryPackageBelowCwd) {
  EXPECT_EQ(localTestTarget("./...", app), (TestRunTarget{app + "/...", std::nullopt, app}));
  EXPECT_EQ(localTestTarget("pkg/...", app),
            (TestRunTarget{app + "/pkg/...", std::nullopt, app + "/pkg"}));
}

TEST_F(TestTargetTest, EllipsisAlone) {
  // Nothing left before the suffix means the current directory.
  EXPECT_EQ(localTestTarget("/...", app), (TestRunTarget{app + "/...", std::nullopt, app}));
  // The root keeps a single slash before the suffix.
  EXPECT_EQ(localTestTarget("./...", "/"), (TestRunTarget{"/...", std::nullopt, "/"}));
  EXPECT_EQ(localTestTarget("//...", app), (TestRunTarget{"/...", std::nullopt, "/"}));
  // "..." without its slash is a name, not the suffix.
  EXPECT_EQ(runError("...", app).message, "vorn test run: no such file or directory: ...");
}

TEST_F(TestTargetTest, DirectoryIsThatPackage) {
  EXPECT_EQ(localTestTarget("pkg/foo", app),
            (TestRunTarget{app + "/pkg/foo", std::nullopt, app + "/pkg/foo"}));
  EXPECT_EQ(localTestTarget("pkg//foo/./", app).path, app + "/pkg/foo");
  EXPECT_EQ(localTestTarget(app + "/pkg/../pkg/foo", "/").path, app + "/pkg/foo");
  EXPECT_EQ(localTestTarget("..", app + "/pkg").path, app);
}

TEST_F(TestTargetTest, FileWithLine) {
  EXPECT_EQ(localTestTarget("foo_test.go:42", app),
            (TestRunTarget{app + "/foo_test.go", 42, app + "/foo_test.go"}));
  EXPECT_EQ(localTestTarget("foo_test.go", app),
            (TestRunTarget{app + "/foo_test.go", std::nullopt, app + "/foo_test.go"}));
  // The column is not sent.
  EXPECT_EQ(localTestTarget("pkg/foo/bar_test.go:3:9", app),
            (TestRunTarget{app + "/pkg/foo/bar_test.go", 3, app + "/pkg/foo/bar_test.go"}));
}

TEST_F(TestTargetTest, FileWhoseNameLooksLikeAPosition) {
  EXPECT_EQ(localTestTarget("a:12", app),
            (TestRunTarget{app + "/a:12", std::nullopt, app + "/a:12"}));
}

TEST_F(TestTargetTest, MissingIsAUsageError) {
  CliError error = runError("missing.go", app);
  EXPECT_EQ(error.message, "vorn test run: no such file or directory: missing.go");
  EXPECT_EQ(error.code, 2);
  EXPECT_EQ(runError("missing/...", app).message,
            "vorn test run: no such file or directory: missing/...");
  EXPECT_EQ(runError("foo_test.go:x", app).message,
            "vorn test run: no such file or directory: foo_test.go:x");
  EXPECT_EQ(runError("-1", app).message, "vorn test run: no such file or directory: -1");
}

TEST(ForeignTestTarget, SentAsTyped) {
  EXPECT_EQ(foreignTestTarget("pkg/x:12"), (TestRunTarget{"pkg/x", 12, std::nullopt}));
  EXPECT_EQ(foreignTestTarget("pkg/x:12:3"), (TestRunTarget{"pkg/x", 12, std::nullopt}));
  EXPECT_EQ(foreignTestTarget("./..."), (TestRunTarget{"./...", std::nullopt, std::nullopt}));
  EXPECT_EQ(foreignTestTarget("a:1/..."), (TestRunTarget{"a:1/...", std::nullopt, std::nullopt}));
  EXPECT_EQ(foreignTestTarget("pkg/x"), (TestRunTarget{"pkg/x", std::nullopt, std::nullopt}));
  EXPECT_EQ(foreignTestTarget("pkg/x:"), (TestRunTarget{"pkg/x:", std::nullopt, std::nullopt}));
  EXPECT_EQ(foreignTestTarget(":12"), (TestRunTarget{":12", std::nullopt, std::nullopt}));
}

TEST(TestRunBody, MembersInOrder) {
  Flags flags;
  EXPECT_EQ(testRunBody(std::nullopt, flags).serialized(0), "{}");
  flags.opts["--no-wait"] = std::nullopt;
  flags.opts["--cover"] = std::nullopt;
  EXPECT_EQ(testRunBody(std::nullopt, flags).serialized(0), R"({"cover":true,"wait":false})");
  EXPECT_EQ(testRunBody(TestRunTarget{"/w/a_test.go", 42, "/w/a_test.go"}, flags).serialized(0),
            R"({"path":"/w/a_test.go","line":42,"cover":true,"wait":false})");
  EXPECT_EQ(testRunBody(TestRunTarget{"/w/...", std::nullopt, "/w"}, Flags{}).serialized(0),
            R"({"path":"/w/..."})");
}

TEST(TestRerunBody, LastOrFailed) {
  Flags flags;
  flags.args = {"failed"};
  flags.opts["--no-wait"] = std::nullopt;
  EXPECT_EQ(testRerunBody(flags).serialized(0), R"({"rerun":"failed","wait":false})");
  flags.args = {"last", "ignored"};
  flags.opts.clear();
  EXPECT_EQ(testRerunBody(flags).serialized(0), R"({"rerun":"last"})");
}

TEST(TestRerunBody, AnythingElseIsAUsageError) {
  for (std::vector<std::string> args :
       {std::vector<std::string>{}, {"everything"}, {"Last"}, {"failed "}, {""}}) {
    Flags flags;
    flags.args = args;
    try {
      testRerunBody(flags);
      ADD_FAILURE() << "expected an error";
    } catch (const CliError& error) {
      EXPECT_EQ(error.message, "vorn test rerun: needs last|failed");
      EXPECT_EQ(error.code, 2);
    }
  }
}

}  // namespace
}  // namespace vorn
