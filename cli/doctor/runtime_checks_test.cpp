#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "core/test_support.h"
#include "doctor/doctor.h"
#include "instances/test_instances.h"
#include "paths/test_files.h"

namespace vorn {
namespace {

using testing::TempDir;

constexpr const char* separator = " \u2014 ";

struct RuntimeDirTest : ::testing::Test {
  TempDir tmp;
  CapturedContext io{tmp.path()};
  std::string root = tmp / "xdg/vorn";
  RuntimeDirTest() {
    tmp.dir("xdg");
    io.ctx.env["XDG_RUNTIME_DIR"] = tmp / "xdg";
  }
  DoctorCheck check() { return Doctor{io.ctx}.runtimeDirCheck(); }
  void makeRoot(mode_t mode) {
    tmp.dir("xdg/vorn");
    ASSERT_EQ(::chmod(root.c_str(), mode), 0);
  }
};

TEST_F(RuntimeDirTest, MissingIsFine) {
  EXPECT_EQ(check(), (DoctorCheck{"runtime.dir", "ok",
                                  root + " not created yet" + separator +
                                      "no instance has run ($XDG_RUNTIME_DIR)"}));
}

TEST_F(RuntimeDirTest, Mode700IsFine) {
  makeRoot(0700);
  EXPECT_EQ(check(), (DoctorCheck{"runtime.dir", "ok", root + " (mode 700; $XDG_RUNTIME_DIR)"}));
}

TEST_F(RuntimeDirTest, Mode755WarnsAndNamesTmpdirWithoutXdg) {
  io.ctx.env.erase("XDG_RUNTIME_DIR");
  io.ctx.env["TMPDIR"] = tmp / "xdg";
  makeRoot(0755);
  EXPECT_EQ(check(),
            (DoctorCheck{"runtime.dir", "warn", root + " mode 755 (expected 700; tmpdir)"}));
  ASSERT_EQ(::chmod(root.c_str(), 0701), 0);
  EXPECT_EQ(check().detail, root + " mode 701 (expected 700; tmpdir)");
}

TEST_F(RuntimeDirTest, AnEmptyXdgCountsAsTmpdir) {
  // The root is then the relative "vorn": looked for in the current directory.
  io.ctx.env["XDG_RUNTIME_DIR"] = "";
  EXPECT_EQ(check(), (DoctorCheck{"runtime.dir", "ok",
                                  std::string("vorn not created yet") + separator +
                                      "no instance has run (tmpdir)"}));
  tmp.dir("vorn");
  ASSERT_EQ(::chmod((tmp / "vorn").c_str(), 0700), 0);
  EXPECT_EQ(check(), (DoctorCheck{"runtime.dir", "ok", "vorn (mode 700; tmpdir)"}));
}

TEST_F(RuntimeDirTest, AFileFails) {
  tmp.file("xdg/vorn", "");
  EXPECT_EQ(check(), (DoctorCheck{"runtime.dir", "fail", root + " is not a directory"}));
}

TEST_F(RuntimeDirTest, ALinkToADirectoryFails) {
  std::string real = tmp.dir("real");
  ::chmod(real.c_str(), 0700);
  ASSERT_EQ(::symlink(real.c_str(), root.c_str()), 0);
  EXPECT_EQ(check(), (DoctorCheck{"runtime.dir", "fail", root + " is not a directory"}));
}

TEST_F(RuntimeDirTest, AnotherOwnerFailsBeforeTheModeIsLookedAt) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can give a folder to another user";
  makeRoot(0755);
  ASSERT_EQ(::chown(root.c_str(), 65534, 65534), 0);
  EXPECT_EQ(check(), (DoctorCheck{"runtime.dir", "fail", root + " owned by uid 65534, not you"}));
}

struct SupportDirTest : ::testing::Test {
  TempDir tmp;
  CapturedContext io{tmp.path()};
  std::string current = tmp / "home/Library/Application Support/Vorn";
  std::string legacy = tmp / "home/Library/Application Support/vorn";
  SupportDirTest() { io.ctx.env["HOME"] = tmp.dir("home"); }
  DoctorCheck check() { return Doctor{io.ctx}.supportDirCheck(); }
};

TEST_F(SupportDirTest, OkWithTheCurrentFolderAloneOrNeither) {
  EXPECT_EQ(check(), (DoctorCheck{"support.dir", "ok", current}));
  tmp.dir("home/Library/Application Support/Vorn");
  EXPECT_EQ(check(), (DoctorCheck{"support.dir", "ok", current}));
}

TEST_F(SupportDirTest, ALegacyFolderWarnsWithItsSortedEntries) {
  tmp.file("home/Library/Application Support/vorn/settings.json");
  tmp.file("home/Library/Application Support/vorn/History/x");
  tmp.file("home/Library/Application Support/vorn/.hidden");
  std::string tail = " (newer copies in " + current + " win; delete it once checked)";
  EXPECT_EQ(check(), (DoctorCheck{"support.dir", "warn",
                                  legacy + " still holds .hidden, History, settings.json" + tail}));
  tmp.dir("home/Library/Application Support/Vorn");
  EXPECT_EQ(check().status, "warn");
}

TEST_F(SupportDirTest, AnEmptyLegacyFolderHoldsNothing) {
  tmp.dir("home/Library/Application Support/vorn");
  EXPECT_EQ(check().detail, legacy + " still holds nothing (newer copies in " + current +
                                " win; delete it once checked)");
}

TEST_F(SupportDirTest, OneFolderUnderBothNamesIsFine) {
  // What a file system that ignores case shows: both names lead to the same folder.
  tmp.dir("home/Library/Application Support/Vorn");
  ASSERT_EQ(::symlink(current.c_str(), legacy.c_str()), 0);
  EXPECT_EQ(check(), (DoctorCheck{"support.dir", "ok", current}));
}

TEST_F(SupportDirTest, VornHomeTrimmedWinsOverHome) {
  std::string other = tmp.dir("other");
  io.ctx.env["VORN_HOME"] = "  " + other + "\n";
  EXPECT_EQ(Doctor{io.ctx}.supportDir(), other + "/Library/Application Support/Vorn");
  tmp.dir("other/Library/Application Support/vorn");
  EXPECT_EQ(check().detail.rfind(other + "/Library/Application Support/vorn still holds", 0), 0u);
  io.ctx.env["VORN_HOME"] = " ";
  EXPECT_EQ(Doctor{io.ctx}.supportDir(), current);
}

InstanceInfo instance(const std::string& id, int64_t pid, const std::string& name) {
  InstanceInfo info;
  info.id = id;
  info.pid = pid;
  info.workspaceName = name;
  return info;
}

TEST(ScanChecks, PrunedStaleThenTheSummary) {
  Scan scan;
  scan.removed = {{12, "/r/vorn/12", "/r/vorn/12/fs.sock", "dead-pid"}};
  scan.stale = {{7, "/r/vorn/7", "/r/vorn/7/fs.sock", "no-sock"},
                {9, "/r/vorn/9", "/r/vorn/9/fs.sock", "unreachable"}};
  scan.live = {instance("a1", 3, "app"), instance("b2", 5, "")};
  EXPECT_EQ(Doctor::scanChecks(scan),
            (std::vector<DoctorCheck>{
                {"runtime.pruned", "ok", "removed dead-pid dir /r/vorn/12"},
                {"runtime.stale", "warn",
                 std::string("/r/vorn/7 (no-sock)") + separator + "run vorn instance prune"},
                {"runtime.stale", "warn",
                 std::string("/r/vorn/9 (unreachable)") + separator + "run vorn instance prune"},
                {"instances", "ok", "2 live: a1, b2"},
            }));
  EXPECT_EQ(Doctor::scanChecks(Scan{}),
            (std::vector<DoctorCheck>{
                {"instances", "ok", "none running (vorn workspace open <dir> launches one)"}}));
}

const JSON healthy = JSON::parse(R"({"ok": true, "protocol": 1})");

TEST(InstanceRow, HealthyWithLanguageAndDetail) {
  JSON language = JSON::parse(R"({"language": "go", "ready": true, "detail": "gopls v0.16.0"})");
  EXPECT_EQ(
      instanceRow(instance("a1", 3, "app"), healthy, language),
      (DoctorCheck{"instance.a1", "ok", "protocol 1 \u00b7 app \u00b7 go ready (gopls v0.16.0)"}));
}

TEST(InstanceRow, NoFolderNotReadyNoName) {
  JSON language = JSON::parse(R"({"languageId": "go", "ready": "yes", "detail": ""})");
  EXPECT_EQ(instanceRow(instance("a1", 3, ""), healthy, language).detail,
            "protocol 1 \u00b7 No Folder \u00b7 language not ready");
  JSON odd = JSON::parse(R"({"language": 7, "ready": false, "detail": 3})");
  EXPECT_EQ(instanceRow(instance("a1", 3, "w"), healthy, odd).detail,
            "protocol 1 \u00b7 w \u00b7 language not ready");
}

TEST(InstanceRow, ALanguageErrorIsShown) {
  JSON language = JSON::parse(R"({"error": "connect /s: Connection refused"})");
  EXPECT_EQ(instanceRow(instance("a1", 3, "app"), healthy, language).detail,
            "protocol 1 \u00b7 app \u00b7 language status: connect /s: Connection refused");
}

TEST(InstanceRow, AnotherProtocolWarns) {
  JSON language = JSON::parse(R"({"language": "go", "ready": true})");
  DoctorCheck two = instanceRow(instance("a1", 3, "app"),
                                JSON::parse(R"({"ok": true, "protocol": 2})"), language);
  EXPECT_EQ(two, (DoctorCheck{"instance.a1", "warn", "protocol 2 \u00b7 app \u00b7 go ready"}));
  EXPECT_EQ(instanceRow(instance("a1", 3, "app"), JSON::parse(R"({"ok": true, "protocol": 1.5})"),
                        language)
                .detail,
            "protocol 1.5 \u00b7 app \u00b7 go ready");
  for (const char* health : {R"({"ok": true})", R"({"ok": true, "protocol": "1"})"}) {
    DoctorCheck row = instanceRow(instance("a1", 3, "app"), JSON::parse(health), language);
    EXPECT_EQ(row, (DoctorCheck{"instance.a1", "warn", "protocol ? \u00b7 app \u00b7 go ready"}))
        << health;
  }
}

TEST(InstanceRow, AnUnhealthyInstanceFails) {
  InstanceInfo info = instance("a1", 3, "app");
  EXPECT_EQ(instanceRow(info, JSON::parse(R"({"ok": false, "error": "bridge down"})"), JSON()),
            (DoctorCheck{"instance.a1", "fail", "pid 3 \u00b7 app: /health bridge down"}));
  EXPECT_EQ(instanceRow(info, JSON::parse(R"({"ok": "true"})"), JSON()).detail,
            "pid 3 \u00b7 app: /health not ok");
  EXPECT_EQ(
      instanceRow(instance("a1", 3, ""), JSON::parse(R"({"error": "HTTP 500"})"), JSON()).detail,
      "pid 3 \u00b7 No Folder: /health HTTP 500");
}

TEST(InstanceCheck, AsksHealthThenLanguageStatus) {
  TempDir tmp;
  InstanceInfo info = instance("a1", 3, "app");
  info.socketPath = tmp / "fs.sock";
  testing::FakeInstanceServer server(info.socketPath, [](const testing::SeenRequest& request) {
    if (request.path == "/health") return testing::FakeReply{200, R"({"ok":true,"protocol":1})"};
    return testing::FakeReply{200, R"({"language":"go","ready":true,"detail":"gopls"})"};
  });
  EXPECT_EQ(Doctor::instanceCheck(info),
            (DoctorCheck{"instance.a1", "ok", "protocol 1 \u00b7 app \u00b7 go ready (gopls)"}));
  std::vector<testing::SeenRequest> seen = server.requests();
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_EQ(seen[0].method + " " + seen[0].path, "GET /health");
  EXPECT_EQ(seen[1].method + " " + seen[1].path, "GET /language/status");
}

TEST(InstanceCheck, AnUnreachableSocketFails) {
  TempDir tmp;
  InstanceInfo info = instance("a1", 3, "app");
  info.socketPath = tmp / "fs.sock";
  DoctorCheck row = Doctor::instanceCheck(info);
  EXPECT_EQ(row.status, "fail");
  EXPECT_EQ(row.detail,
            "pid 3 \u00b7 app: /health connect " + info.socketPath + ": No such file or directory");
}

}  // namespace
}  // namespace vorn
