#include "hosts/bun_script.h"

#include <gtest/gtest.h>

#include <string>

#include "core/test_support.h"
#include "paths/test_files.h"

namespace vorn {
namespace {

using testing::TempDir;

// An app bundle below `rel` with its Bun binary and the given prebuilt scripts.
std::string makeApp(const TempDir& tmp, const std::string& rel,
                    const std::vector<std::string>& scripts) {
  tmp.file(rel + "/Contents/MacOS/bun", "");
  for (const std::string& name : scripts)
    tmp.file(rel + "/Contents/Resources/app/bun/" + name, "");
  return tmp / rel;
}

HeadlessHost bundledHost(const std::string& app, const std::string& name) {
  return {app + "/Contents/MacOS/bun", app + "/Contents/Resources/app/bun/" + name,
          app + "/Contents/Resources/app", true};
}

TEST(BundledScript, NeedsBothTheBinaryAndTheScript) {
  TempDir tmp;
  std::string app = makeApp(tmp, "A.app", {"headless.js"});
  EXPECT_EQ(bundledScript(app + "/Contents", "headless.js"), bundledHost(app, "headless.js"));
  EXPECT_EQ(bundledScript(app + "/Contents", "tunnel-main.js"), std::nullopt);
  std::string noBun = tmp / "B.app";
  tmp.file("B.app/Contents/Resources/app/bun/headless.js", "");
  EXPECT_EQ(bundledScript(noBun + "/Contents", "headless.js"), std::nullopt);
}

TEST(BundledScript, FoldersOfThoseNamesDoNotCount) {
  TempDir tmp;
  tmp.dir("A.app/Contents/MacOS/bun");
  tmp.file("A.app/Contents/Resources/app/bun/headless.js", "");
  EXPECT_EQ(bundledScript(tmp / "A.app/Contents", "headless.js"), std::nullopt);
}

TEST(BunScript, ACliInsideAnAppUsesItsOwnBundle) {
  TempDir tmp;
  std::string app = makeApp(tmp, "x/Vorn.app", {"headless.js"});
  CapturedContext io(tmp.dir("outside"));
  io.ctx.executable = app + "/Contents/Resources/app/bin/vorn";
  auto host = bunScript(io.ctx, "headless.js", Scripts::headlessSource, false);
  ASSERT_TRUE(host);
  EXPECT_EQ(host->bun, app + "/Contents/MacOS/bun");
  EXPECT_EQ(host->entry, app + "/Contents/Resources/app/bun/headless.js");
  EXPECT_EQ(host->cwd, app + "/Contents/Resources/app");
  EXPECT_TRUE(host->bundled);
}

TEST(BunScript, TheOwnBundleWinsOverTheCheckoutUnlessCheckoutFirst) {
  TempDir tmp;
  std::string app = makeApp(tmp, "x/Vorn.app", {"doctor-packs.js"});
  std::string root = tmp.checkout("repo");
  CapturedContext io(root + "/pkg");
  io.ctx.executable = app + "/Contents/Resources/app/bin/vorn";
  EXPECT_EQ(bunScript(io.ctx, "doctor-packs.js", Scripts::doctorPacksSource, false),
            bundledHost(app, "doctor-packs.js"));
  HeadlessHost fromSource{"bun", root + "/src/cli/doctor-packs.ts", root, false};
  EXPECT_EQ(bunScript(io.ctx, "doctor-packs.js", Scripts::doctorPacksSource, true), fromSource);
}

TEST(BunScript, TheCheckoutEntryIsNotCheckedForExistence) {
  TempDir tmp;
  std::string root = tmp.checkout("repo");
  CapturedContext io(root);
  EXPECT_EQ(bunScript(io.ctx, "headless.js", Scripts::headlessSource, false),
            (HeadlessHost{"bun", root + "/src/bun/headless.ts", root, false}));
}

TEST(BunScript, AppsInOrderAfterTheCheckout) {
  TempDir tmp;
  std::string own = makeApp(tmp, "own/Vorn.app", {});  // holds the CLI but not the script
  std::string named = makeApp(tmp, "named/Vorn.app", {"tunnel-main.js"});
  CapturedContext io(tmp.dir("outside"));
  io.ctx.executable = own + "/Contents/Resources/app/bin/vorn";
  io.ctx.env["VORN_APP"] = named;
  EXPECT_EQ(bunScript(io.ctx, "tunnel-main.js", Scripts::tunnelSource, false),
            bundledHost(named, "tunnel-main.js"));
  // The CLI's own bundle comes first among the apps when it has the script.
  tmp.file("own/Vorn.app/Contents/Resources/app/bun/tunnel-main.js", "");
  EXPECT_EQ(bunScript(io.ctx, "tunnel-main.js", Scripts::tunnelSource, true),
            bundledHost(own, "tunnel-main.js"));
}

TEST(BunScript, ARelativeAppIsTakenAgainstTheCurrentDirectory) {
  TempDir tmp;
  std::string app = makeApp(tmp, "w/My.app", {"headless.js"});
  CapturedContext io(tmp / "w");
  io.ctx.env["VORN_APP"] = "./My.app";
  EXPECT_EQ(bunScript(io.ctx, "headless.js", Scripts::headlessSource, false),
            bundledHost(app, "headless.js"));
}

TEST(BunScript, NothingAnywhere) {
  TempDir tmp;
  CapturedContext io(tmp.dir("outside"));
  io.ctx.env["VORN_APP"] = "";
  // /Applications/Vorn.app is the last candidate; this machine's copy, if any, lacks the name.
  EXPECT_EQ(bunScript(io.ctx, "no-such-script.js", "src/none.ts", false), std::nullopt);
  io.ctx.env["VORN_APP"] = tmp / "missing.app";
  EXPECT_EQ(bunScript(io.ctx, "no-such-script.js", "src/none.ts", false), std::nullopt);
}

TEST(HostArgv, EditionConditionOnlyFromSource) {
  HeadlessHost source{"bun", "/r/src/bun/headless.ts", "/r", false};
  HeadlessHost bundled{"/A.app/Contents/MacOS/bun", "/A.app/x/headless.js", "/A.app/x", true};
  std::map<std::string, std::string> env = {{"VORN_EDITION", "markdown"}};
  EXPECT_EQ(hostArgv(source, env, std::nullopt),
            (std::vector<std::string>{"bun", "--conditions=vorn-edition-markdown",
                                      "/r/src/bun/headless.ts"}));
  EXPECT_EQ(
      hostArgv(bundled, env, "/projects/app"),
      (std::vector<std::string>{"/A.app/Contents/MacOS/bun", "/A.app/x/headless.js", "/projects/app"}));
  EXPECT_EQ(hostArgv(source, {{"VORN_EDITION", ""}}, "/projects/app"),
            (std::vector<std::string>{"bun", "/r/src/bun/headless.ts", "/projects/app"}));
  EXPECT_EQ(hostArgv(source, {}, std::nullopt),
            (std::vector<std::string>{"bun", "/r/src/bun/headless.ts"}));
}

}  // namespace
}  // namespace vorn
