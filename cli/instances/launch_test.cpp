#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include "core/test_support.h"
#include "instances/instances.h"
#include "instances/test_instances.h"

namespace vorn {
namespace {

using testing::TempDir;
using Args = std::vector<std::string>;

bool existsOnDisk(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0;
}

// ---- openArguments ----

TEST(OpenArguments, BundleOnly) {
  EXPECT_EQ(openArguments(std::string("/Applications/Vorn.app"), std::nullopt, false, {}, "/"),
            (Args{"-a", "/Applications/Vorn.app"}));
}

TEST(OpenArguments, NoBundleNamesTheDevApp) {
  EXPECT_EQ(openArguments(std::nullopt, std::nullopt, false, {}, "/"), (Args{"-a", "Vorn-dev"}));
}

TEST(OpenArguments, ForceNewComesFirst) {
  EXPECT_EQ(openArguments(std::string("/X.app"), std::nullopt, true, {}, "/"),
            (Args{"-n", "-a", "/X.app"}));
}

TEST(OpenArguments, EnvironmentIsSortedByKey) {
  std::map<std::string, std::string> env;
  env["VORN_SSH_CONFIG"] = "/c";
  env["VORN_REMOTE_SSH"] = "host a";
  env["A"] = "";
  EXPECT_EQ(openArguments(std::string("/X.app"), std::nullopt, false, env, "/"),
            (Args{"-a", "/X.app", "--env", "A=", "--env", "VORN_REMOTE_SSH=host a", "--env",
                  "VORN_SSH_CONFIG=/c"}));
}

TEST(OpenArguments, FolderIsMadeAbsoluteAndNormalised) {
  EXPECT_EQ(openArguments(std::string("/X.app"), std::string("proj/../other/./x"), false, {},
                          "/Users/me"),
            (Args{"-a", "/X.app", "--args", "/Users/me/other/x"}));
  EXPECT_EQ(openArguments(std::string("/X.app"), std::string("/abs//dir/"), false, {}, "/cwd"),
            (Args{"-a", "/X.app", "--args", "/abs/dir"}));
  EXPECT_EQ(openArguments(std::string("/X.app"), std::string("."), false, {}, "/Users/me"),
            (Args{"-a", "/X.app", "--args", "/Users/me"}));
}

TEST(OpenArguments, EverythingTogether) {
  EXPECT_EQ(openArguments(std::nullopt, std::string("w"), true, {{"K", "V"}}, "/h"),
            (Args{"-n", "-a", "Vorn-dev", "--env", "K=V", "--args", "/h/w"}));
}

// ---- appBundle ----

struct AppBundleTest : ::testing::Test {
  TempDir tmp;
  CapturedContext io;
  AppBundleTest() { io.ctx.cwd = tmp / "outside"; }
  std::string makeDir(const std::string& path) {
    std::filesystem::create_directories(path);
    return path;
  }
  std::optional<std::string> fallback() {
    if (existsOnDisk("/Applications/Vorn.app")) return std::string("/Applications/Vorn.app");
    return std::nullopt;
  }
};

TEST_F(AppBundleTest, VornAppWinsWhenItExists) {
  std::string app = makeDir(tmp / "Custom.app");
  makeDir(tmp / "Installed.app/Contents/MacOS");
  io.ctx.executable = tmp / "Installed.app/Contents/MacOS/vorn";
  std::string checkout = tmp / "co";
  testing::makeCheckout(checkout);
  makeDir(checkout + "/build/dev-macos-arm64/Vorn-dev.app");
  io.ctx.cwd = checkout;
  io.ctx.env["VORN_APP"] = app;
  EXPECT_EQ(appBundle(io.ctx), app);
}

TEST_F(AppBundleTest, MissingVornAppIsSkipped) {
  makeDir(tmp / "Installed.app/Contents/Resources/app/bin");
  io.ctx.executable = tmp / "Installed.app/Contents/Resources/app/bin/vorn";
  io.ctx.env["VORN_APP"] = tmp / "Missing.app";
  EXPECT_EQ(appBundle(io.ctx), tmp / "Installed.app");
  io.ctx.env["VORN_APP"] = "";
  EXPECT_EQ(appBundle(io.ctx), tmp / "Installed.app");
}

TEST_F(AppBundleTest, TheBundleHoldingTheExecutable) {
  makeDir(tmp / "Vorn.app/Contents/MacOS");
  io.ctx.executable = tmp / "Vorn.app/Contents/MacOS/vorn";
  EXPECT_EQ(appBundle(io.ctx), tmp / "Vorn.app");
  // A path that merely mentions ".app" is not inside a bundle.
  io.ctx.executable = tmp / "Vorn.app/vorn";
  EXPECT_EQ(appBundle(io.ctx), fallback());
}

TEST_F(AppBundleTest, CheckoutDevApp) {
  std::string checkout = tmp / "co";
  testing::makeCheckout(checkout);
  io.ctx.cwd = checkout + "/src";
  EXPECT_EQ(appBundle(io.ctx), fallback());  // not built yet
  std::string dev = makeDir(checkout + "/build/dev-macos-arm64/Vorn-dev.app");
  EXPECT_EQ(appBundle(io.ctx), dev);
}

TEST_F(AppBundleTest, MarkdownEditionDevApp) {
  std::string checkout = tmp / "co";
  testing::makeCheckout(checkout);
  io.ctx.cwd = checkout;
  makeDir(checkout + "/build/dev-macos-arm64/Vorn-dev.app");
  std::string markdown = makeDir(checkout + "/build/markdown/dev-macos-arm64/Vorn Scrivo-dev.app");
  io.ctx.env["VORN_EDITION"] = "markdown";
  EXPECT_EQ(appBundle(io.ctx), markdown);
  io.ctx.env["VORN_EDITION"] = "Markdown";
  EXPECT_EQ(appBundle(io.ctx), checkout + "/build/dev-macos-arm64/Vorn-dev.app");
}

TEST_F(AppBundleTest, NothingOnDisk) {
  io.ctx.env["VORN_APP"] = tmp / "Missing.app";
  EXPECT_EQ(appBundle(io.ctx), fallback());
}

// ---- launchApp ----

#if !defined(__APPLE__)
TEST(LaunchApp, ElsewhereThanMacOSItRefusesWithAWayForward) {
  TempDir tmp;
  CapturedContext io(tmp.path());
  std::filesystem::create_directories(tmp / "Vorn.app");
  io.ctx.env["VORN_APP"] = tmp / "Vorn.app";
  for (bool forceNew : {false, true}) {
    try {
      Instances{io.ctx}.launchApp(std::string("proj"), forceNew, {{"K", "V"}});
      ADD_FAILURE() << "launchApp returned";
    } catch (const CliError& e) {
      EXPECT_EQ(e.message,
                "no app can be launched on this system (the Vorn app runs on macOS) \u2014 start "
                "an instance with vorn server start <dir>");
      EXPECT_EQ(e.code, 1);
    }
  }
  EXPECT_EQ(io.out, "");
  EXPECT_EQ(io.err, "");
}
#endif

}  // namespace
}  // namespace vorn
