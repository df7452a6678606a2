#include <errno.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <string>

#include "core/test_support.h"
#include "doctor/doctor.h"
#include "paths/test_files.h"

namespace vorn {
namespace {

using testing::TempDir;

// Stands in for bun: runs its last argument with sh, handing it every argument.
const char* fakeBun = "#!/bin/sh\nfor last; do :; done\nexec /bin/sh \"$last\" \"$@\"\n";

std::vector<DoctorCheck> skipped(const std::string& reason) {
  return {{"languages", "warn", "toolchain rows skipped: " + reason}};
}

struct PackChecksTest : ::testing::Test {
  TempDir tmp;
  CapturedContext io{tmp.dir("work")};
  std::string root;
  std::string script;
  PackChecksTest() {
    io.ctx.env["HOME"] = tmp.dir("home");
    io.ctx.env["PATH"] = tmp.dir("bin");
  }
  std::string executable(const std::string& rel, const std::string& text) {
    std::string path = tmp.file(rel, text);
    ::chmod(path.c_str(), 0755);
    return path;
  }
  // A checkout as the current directory, bun on PATH, and `body` as its packs script.
  void checkout(const std::optional<std::string>& body) {
    root = tmp.checkout("repo");
    io.ctx.cwd = root;
    executable("bin/bun", fakeBun);
    script = root + "/src/cli/doctor-packs.ts";
    if (body) tmp.file("repo/src/cli/doctor-packs.ts", *body);
  }
  std::vector<DoctorCheck> checks() { return Doctor{io.ctx}.packChecks(); }
};

bool systemApp() {
  struct stat st;
  return ::stat("/Applications/Vorn.app", &st) == 0;
}

TEST_F(PackChecksTest, NoCheckoutAndNoApp) {
  if (systemApp()) GTEST_SKIP() << "this machine has /Applications/Vorn.app";
  EXPECT_EQ(checks(), skipped("no Vorn checkout or Vorn.app (run from a checkout, or set "
                              "VORN_REPO_ROOT or VORN_APP)"));
}

TEST_F(PackChecksTest, ACheckoutWithoutBun) {
  checkout("echo '[]'");
  ::unlink((tmp / "bin/bun").c_str());
  EXPECT_EQ(checks(), skipped("bun not on PATH (direnv allow)"));
}

TEST_F(PackChecksTest, ACheckoutWithoutTheScript) {
  checkout(std::nullopt);
  EXPECT_EQ(checks(), skipped("no script at " + script));
}

TEST_F(PackChecksTest, RowsAsTheScriptGivesThem) {
  checkout(R"(printf '[{"name":"go","status":"ok","detail":"go1.23 in %s"},' "$PWD"
printf '{"name":"go.gopls","status":"warn","detail":"old","extra":1},'
printf '{"name":"bazel","status":"fail","detail":"missing"}]\n')");
  EXPECT_EQ(checks(), (std::vector<DoctorCheck>{{"go", "ok", "go1.23 in " + root},
                                                {"go.gopls", "warn", "old"},
                                                {"bazel", "fail", "missing"}}));
}

TEST_F(PackChecksTest, TheEditionConditionReachesTheScript) {
  checkout(R"(printf '[{"name":"args","status":"ok","detail":"%s"}]' "$*")");
  io.ctx.env["VORN_EDITION"] = "markdown";
  EXPECT_EQ(
      checks(),
      (std::vector<DoctorCheck>{{"args", "ok", "--conditions=vorn-edition-markdown " + script}}));
}

TEST_F(PackChecksTest, AnEmptyArrayGivesNoRows) {
  checkout("echo '[]'");
  EXPECT_EQ(checks(), std::vector<DoctorCheck>{});
}

TEST_F(PackChecksTest, AFailingScript) {
  checkout("echo '[]'; exit 3");
  EXPECT_EQ(checks(), skipped(script + " exited 3"));
}

TEST_F(PackChecksTest, AKilledScript) {
  checkout("kill -9 $$");
  EXPECT_EQ(checks(), skipped(script + " ended by signal 9"));
}

TEST_F(PackChecksTest, GarbageOutput) {
  checkout("echo 'go: ok'");
  std::vector<DoctorCheck> rows = checks();
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0].detail.rfind("toolchain rows skipped: " + script + " printed no JSON (", 0), 0u)
      << rows[0].detail;
}

TEST_F(PackChecksTest, MegabytesOfOutput) {
  checkout("head -c 5000000 /dev/zero | tr '\\0' ' '; echo '[]'");
  io.ctx.env["PATH"] += ":/usr/bin:/bin";
  EXPECT_EQ(checks(), skipped(script + " printed more than 1 MiB"));
}

TEST_F(PackChecksTest, TheAppsOwnScriptAndBun) {
  std::string app = tmp / "apps/Vorn.app";
  executable("apps/Vorn.app/Contents/MacOS/bun", fakeBun);
  tmp.file("apps/Vorn.app/Contents/Resources/app/bun/doctor-packs.js",
           R"(printf '[{"name":"go","status":"ok","detail":"%s|%s"}]' "$PWD" "$*")");
  io.ctx.env["VORN_APP"] = app;
  io.ctx.env["VORN_EDITION"] = "markdown";  // a built script gets no condition
  std::string appDir = app + "/Contents/Resources/app";
  EXPECT_EQ(
      checks(),
      (std::vector<DoctorCheck>{{"go", "ok", appDir + "|" + appDir + "/bun/doctor-packs.js"}}));
}

TEST_F(PackChecksTest, AnAppBunThatCannotRun) {
  std::string app = tmp / "apps/Vorn.app";
  tmp.file("apps/Vorn.app/Contents/MacOS/bun", "not a program");
  tmp.file("apps/Vorn.app/Contents/Resources/app/bun/doctor-packs.js", "");
  io.ctx.env["VORN_APP"] = app;
  EXPECT_EQ(checks(), skipped("cannot run " + app + "/Contents/MacOS/bun: Permission denied"));
}

TEST(PackRows, WrongShapes) {
  const std::string shape =
      "s.ts printed something other than an array of rows with name, status (ok, warn or fail) "
      "and detail";
  for (const char* output : {"{}", "\"x\"", "[1]", "[{\"name\":\"a\",\"status\":\"ok\"}]",
                             "[{\"name\":\"a\",\"status\":\"bad\",\"detail\":\"\"}]",
                             "[{\"name\":1,\"status\":\"ok\",\"detail\":\"\"}]",
                             "[{\"name\":\"a\",\"status\":\"ok\",\"detail\":\"d\"},null]"}) {
    Captured run;
    run.output = output;
    EXPECT_EQ(packRows("bun", "s.ts", run), skipped(shape)) << output;
  }
}

TEST(PackRows, HowTheRunEnded) {
  Captured run;
  run.startError = ENOENT;
  run.status = 127;
  EXPECT_EQ(packRows("/x/bun", "s.ts", run),
            skipped("cannot run /x/bun: No such file or directory"));
  run = Captured{};
  run.overflow = true;
  run.signal = SIGPIPE;
  run.status = 128 + SIGPIPE;
  EXPECT_EQ(packRows("bun", "s.ts", run), skipped("s.ts printed more than 1 MiB"));
  run = Captured{};
  run.output = "";
  EXPECT_EQ(packRows("bun", "s.ts", run).size(), 1u);
  EXPECT_EQ(packRows("bun", "s.ts", run)[0].status, "warn");
  run.output = " [ ] \n";
  EXPECT_EQ(packRows("bun", "s.ts", run), std::vector<DoctorCheck>{});
}

}  // namespace
}  // namespace vorn
