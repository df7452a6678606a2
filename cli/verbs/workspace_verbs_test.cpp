#include <gtest/gtest.h>

#include "core/test_support.h"
#include "instances/test_instances.h"
#include "verbs/open.h"
#include "verbs/verbs.h"

namespace vorn {
namespace {

using testing::FakeInstanceServer;
using testing::FakeReply;
using testing::SeenRequest;
using testing::TempDir;

InstanceInfo instanceAt(const std::string& id, const std::string& sock) {
  InstanceInfo info;
  info.id = id;
  info.pid = 1;
  info.socketPath = sock;
  return info;
}

// --- openOn ---

TEST(OpenOn, PostsTheRootThenFocusesAndPrints) {
  TempDir dir;
  FakeInstanceServer server(dir / "fs.sock", [](const SeenRequest& request) {
    if (request.path == "/workspace") return FakeReply{200, "{\"ok\":true,\"root\":\"/w/app\"}"};
    return FakeReply{200, "{\"ok\":true}"};
  });
  CapturedContext captured;
  Instances instances{captured.ctx};
  openOn(instances, instanceAt("a1", server.path()), "/w/app");
  EXPECT_EQ(captured.out, "Opened /w/app on instance a1\n");
  EXPECT_EQ(captured.err, "");
  auto seen = server.requests();
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_EQ(seen[0].method, "POST");
  EXPECT_EQ(seen[0].path, "/workspace");
  EXPECT_EQ(seen[0].body, "{\"root\":\"/w/app\"}");
  EXPECT_EQ(seen[1].method, "POST");
  EXPECT_EQ(seen[1].path, "/focus");
  EXPECT_EQ(seen[1].body, "");
}

TEST(OpenOn, PrintsTheReportedRootOrElseTheFolderSent) {
  TempDir dir;
  std::string reply = "{\"ok\":true,\"root\":\"/elsewhere\"}";
  FakeInstanceServer server(dir / "fs.sock", [&](const SeenRequest& request) {
    if (request.path == "/workspace") return FakeReply{200, reply};
    return FakeReply{200, "{}"};
  });
  CapturedContext captured;
  Instances instances{captured.ctx};
  openOn(instances, instanceAt("a", server.path()), "/w/app");
  EXPECT_EQ(captured.out, "Opened /elsewhere on instance a\n");
  captured.out.clear();
  reply = "{\"root\":null}";  // no "ok" at all still counts as success
  openOn(instances, instanceAt("a", server.path()), "/w/app");
  EXPECT_EQ(captured.out, "Opened /w/app on instance a\n");
  captured.out.clear();
  reply = "[1]";
  openOn(instances, instanceAt("a", server.path()), "/w/app");
  EXPECT_EQ(captured.out, "Opened /w/app on instance a\n");
}

TEST(OpenOn, AFocusThatFailsIsIgnored) {
  TempDir dir;
  FakeInstanceServer server(dir / "fs.sock", [](const SeenRequest& request) {
    if (request.path == "/focus") return FakeReply{200, "", true};
    return FakeReply{200, "{\"ok\":true}"};
  });
  CapturedContext captured;
  Instances instances{captured.ctx};
  openOn(instances, instanceAt("a", server.path()), "/w");
  EXPECT_EQ(captured.out, "Opened /w on instance a\n");
}

TEST(OpenOn, OkFalseFailsWithTheErrorAndSkipsFocus) {
  TempDir dir;
  FakeInstanceServer server(dir / "fs.sock", [](const SeenRequest&) {
    return FakeReply{200, "{\"ok\":false,\"error\":\"denied\"}"};
  });
  CapturedContext captured;
  Instances instances{captured.ctx};
  CliError error = thrown([&] { openOn(instances, instanceAt("a", server.path()), "/w"); });
  EXPECT_EQ(error, CliError("denied", 1));
  EXPECT_EQ(captured.out, "");
  EXPECT_EQ(server.requests().size(), 1u);
}

TEST(OpenOn, WithoutAnErrorTextTheStatusIsNamed) {
  TempDir dir;
  std::string body = "{\"ok\":false}";
  int status = 200;
  FakeInstanceServer server(dir / "fs.sock", [&](const SeenRequest&) {
    return FakeReply{status, body};
  });
  CapturedContext captured;
  Instances instances{captured.ctx};
  EXPECT_EQ(thrown([&] { openOn(instances, instanceAt("x", server.path()), "/w"); }),
            CliError("open failed on x (200)", 1));
  status = 404;
  body = "{\"error\":\"\"}";
  EXPECT_EQ(thrown([&] { openOn(instances, instanceAt("x", server.path()), "/w"); }),
            CliError("open failed on x (404)", 1));
  body = "{\"error\":\"gone\"}";
  EXPECT_EQ(thrown([&] { openOn(instances, instanceAt("x", server.path()), "/w"); }),
            CliError("gone", 1));
}

TEST(OpenOn, ATransportFailureIsItsDescription) {
  TempDir dir;
  CapturedContext captured;
  Instances instances{captured.ctx};
  std::string sock = dir / "none.sock";
  CliError error = thrown([&] { openOn(instances, instanceAt("a", sock), "/w"); });
  EXPECT_EQ(error.code, 1);
  EXPECT_EQ(error.message.rfind("connect " + sock + ": ", 0), 0u) << error.message;
}

// --- waiting for a launched app ---

TEST(WaitForNewInstance, TheFirstUnknownIdWins) {
  int scans = 0;
  auto scan = [&] {
    ++scans;
    std::vector<InstanceInfo> live = {instanceAt("a", "/s/a"), instanceAt("b", "/s/b")};
    if (scans >= 3) live.push_back(instanceAt("c", "/s/c"));
    if (scans >= 3) live.push_back(instanceAt("d", "/s/d"));
    return live;
  };
  auto found = waitForNewInstance(scan, {"a", "b"}, std::chrono::milliseconds(5000),
                                  std::chrono::milliseconds(1));
  ASSERT_TRUE(found);
  EXPECT_EQ(found->id, "c");
  EXPECT_EQ(scans, 3);
}

TEST(WaitForNewInstance, WithNothingKnownTheFirstLiveOneIsTaken) {
  int scans = 0;
  auto scan = [&] {
    return ++scans < 2 ? std::vector<InstanceInfo>{}
                       : std::vector<InstanceInfo>{instanceAt("z", "/s/z")};
  };
  auto found =
      waitForNewInstance(scan, {}, std::chrono::milliseconds(5000), std::chrono::milliseconds(1));
  ASSERT_TRUE(found);
  EXPECT_EQ(found->id, "z");
}

TEST(WaitForNewInstance, GivesUpAtTheDeadlineButScansAtLeastOnce) {
  int scans = 0;
  auto scan = [&] {
    ++scans;
    return std::vector<InstanceInfo>{instanceAt("a", "/s/a")};
  };
  EXPECT_FALSE(
      waitForNewInstance(scan, {"a"}, std::chrono::milliseconds(0), std::chrono::milliseconds(1)));
  EXPECT_EQ(scans, 1);
  scans = 0;
  EXPECT_FALSE(
      waitForNewInstance(scan, {"a"}, std::chrono::milliseconds(30), std::chrono::milliseconds(5)));
  EXPECT_GE(scans, 2);
}

// --- the verbs ---

TEST(WorkspaceOpen, UsageErrorsComeFirst) {
  TempDir dir;
  CapturedContext captured(dir.path());
  captured.ctx.env["XDG_RUNTIME_DIR"] = dir.path();
  Instances instances{captured.ctx};
  auto open = workspaceVerbs().at("open");

  EXPECT_EQ(thrown([&] { open(withArgs({}), instances); }),
            usageError("vorn workspace open: missing directory"));
  Flags all = withArgs({"."});
  all.all = true;
  EXPECT_EQ(thrown([&] { open(all, instances); }),
            usageError("vorn workspace open: --all is rejected (use -i ID, --new, or a loop)"));
  testing::writeFile(dir / "main.go", "package main\n");
  EXPECT_EQ(thrown([&] { open(withArgs({"main.go"}), instances); }),
            usageError("vorn workspace open: not a directory: main.go (files: vorn file open)"));
  EXPECT_EQ(thrown([&] { open(withArgs({"nope/"}), instances); }),
            usageError("vorn workspace open: not a directory: nope/ (files: vorn file open)"));
  EXPECT_EQ(thrown([&] {
              open(withArgs({".", "x"}), instances);
            }),
            usageError("vorn workspace open: unexpected argument 'x'"));
  EXPECT_EQ(captured.out, "");
}

#if !defined(__APPLE__)
TEST(WorkspaceOpen, NoInstanceAndNoAppToLaunchFailsAtOnce) {
  TempDir dir;
  CapturedContext captured(dir.path());
  captured.ctx.env["XDG_RUNTIME_DIR"] = dir.path();
  Instances instances{captured.ctx};
  auto started = std::chrono::steady_clock::now();
  CliError error = thrown([&] { workspaceVerbs().at("open")(withArgs({"."}), instances); });
  EXPECT_EQ(error.code, 1);
  EXPECT_EQ(error.message.rfind("vorn workspace open: ", 0), 0u) << error.message;
  EXPECT_NE(error.message.find("vorn server start"), std::string::npos) << error.message;
  // The launch wait is never entered when nothing could be launched.
  EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(10));
}
#endif

TEST(WorkspaceOpen, OpensInTheOnlyInstance) {
  TempDir dir;
  CapturedContext captured(dir.path());
  captured.ctx.env["XDG_RUNTIME_DIR"] = dir.path();
  std::string sock = dir / ("vorn/" + std::to_string(::getpid()) + "/fs.sock");
  testing::Record record{"only", ::getpid(), sock, ""};
  FakeInstanceServer server(sock, FakeInstanceServer::answering(record.json()));
  Instances instances{captured.ctx};
  testing::writeFile(dir / "app/x.go", "");
  workspaceVerbs().at("open")(withArgs({"app/"}), instances);
  EXPECT_EQ(captured.out, "Opened " + dir / "app" + " on instance only\n");
  auto seen = server.requests();
  ASSERT_EQ(seen.size(), 3u);
  EXPECT_EQ(seen[1].body, "{\"root\":\"" + dir / "app" + "\"}");
}

TEST(WorkspaceShow, StrayArgumentsAndNoInstances) {
  TempDir dir;
  CapturedContext captured(dir.path());
  captured.ctx.env["XDG_RUNTIME_DIR"] = dir.path();
  Instances instances{captured.ctx};
  EXPECT_EQ(thrown([&] { workspaceVerbs().at("show")(withArgs({"x"}), instances); }),
            usageError("vorn workspace show: unexpected argument 'x'"));
  EXPECT_EQ(thrown([&] { workspaceVerbs().at("show")(withArgs({}), instances); }),
            CliError("vorn workspace show: no running instances", 1));
  EXPECT_EQ(thrown([&] { workspaceVerbs().at("tree")(withArgs({}), instances); }),
            CliError("vorn workspace tree: no running instances", 1));
}

TEST(SelectorText, SaysWhatWasAskedFor) {
  Flags flags;
  EXPECT_EQ(selectorText(flags), "");
  flags.sock = "/s/fs.sock";
  EXPECT_EQ(selectorText(flags), "/s/fs.sock");
  flags.instance = "ab";
  EXPECT_EQ(selectorText(flags), "ab");
  flags.pid = 42;
  EXPECT_EQ(selectorText(flags), "pid 42");
}

}  // namespace
}  // namespace vorn
