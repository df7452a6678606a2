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
using testing::writeFile;

// --- taking the word apart ---

TEST(LocalTarget, PositionSuffixIsSplitOffAnExistingFile) {
  TempDir dir;
  writeFile(dir / "main.go", "");
  EXPECT_EQ(localTarget("main.go", dir.path()), (TypedTarget{"main.go", {}, {}}));
  EXPECT_EQ(localTarget("main.go:12", dir.path()), (TypedTarget{"main.go", 12, {}}));
  EXPECT_EQ(localTarget("main.go:12:5", dir.path()), (TypedTarget{"main.go", 12, 5}));
  EXPECT_EQ(localTarget("./main.go:0", dir.path()), (TypedTarget{"./main.go", 0, {}}));
}

TEST(LocalTarget, AFileWhoseNameHasAColonStaysWhole) {
  TempDir dir;
  writeFile(dir / "notes:12", "");
  writeFile(dir / "a:b.go", "");
  EXPECT_EQ(localTarget("notes:12", dir.path()), (TypedTarget{"notes:12", {}, {}}));
  // Up to two trailing numbers are the position, so this one asks for a file "notes".
  EXPECT_EQ(localTarget("notes:12:3", dir.path()), (TypedTarget{"notes", 12, 3}));
  EXPECT_EQ(localTarget("a:b.go:7:1", dir.path()), (TypedTarget{"a:b.go", 7, 1}));
}

TEST(LocalTarget, DirectoriesAndMissingFilesKeepTheirTypedPath) {
  TempDir dir;
  writeFile(dir / "pkg/x.go", "");
  writeFile(dir / "odd:1/x.go", "");
  EXPECT_EQ(localTarget("pkg", dir.path()), (TypedTarget{"pkg", {}, {}}));
  EXPECT_EQ(localTarget("odd:1", dir.path()), (TypedTarget{"odd:1", {}, {}}));
  EXPECT_EQ(localTarget("pkg:4", dir.path()), (TypedTarget{"pkg", 4, {}}));
  EXPECT_EQ(localTarget("gone.go:3:2", dir.path()), (TypedTarget{"gone.go", 3, 2}));
  EXPECT_EQ(localTarget("gone.go:x", dir.path()), (TypedTarget{"gone.go:x", {}, {}}));
}

TEST(RemoteTarget, SplitsWithoutLooking) {
  EXPECT_EQ(remoteTarget("pkg/x.go:12"), (TypedTarget{"pkg/x.go", 12, {}}));
  EXPECT_EQ(remoteTarget("/abs/x.go:1:2"), (TypedTarget{"/abs/x.go", 1, 2}));
  EXPECT_EQ(remoteTarget("x.go"), (TypedTarget{"x.go", {}, {}}));
  EXPECT_EQ(remoteTarget("x.go:"), (TypedTarget{"x.go:", {}, {}}));
  EXPECT_EQ(remoteTarget(":12"), (TypedTarget{":12", {}, {}}));
}

// --- the printed line ---

TEST(OpenedFileText, RendersEachValueAsAScriptWould) {
  JSON reply = JSON::parse(R"({"ok":true,"path":"/w/main.go","line":12,"col":5})");
  EXPECT_EQ(openedFileText(reply, "a1"), "Opened /w/main.go:12:5 on instance a1\n");
  reply = JSON::parse(R"({"ok":true,"path":"/w/main.go","line":12})");
  EXPECT_EQ(openedFileText(reply, "a1"), "Opened /w/main.go:12:undefined on instance a1\n");
  reply = JSON::parse(R"({"path":null,"line":1.5,"col":true})");
  EXPECT_EQ(openedFileText(reply, "b"), "Opened null:1.5:true on instance b\n");
  reply = JSON::parse(R"({"path":7,"line":[1,"x"],"col":{"a":false}})");
  EXPECT_EQ(openedFileText(reply, "b"), "Opened 7:[1,\"x\"]:{\"a\":false} on instance b\n");
  EXPECT_EQ(openedFileText(JSON::parse("[]"), "c"),
            "Opened undefined:undefined:undefined on instance c\n");
  reply = JSON::parse(R"({"path":"x","line":1e3,"col":-0.25})");
  EXPECT_EQ(openedFileText(reply, "c"), "Opened x:1000:-0.25 on instance c\n");
}

// --- file open ---

struct Fixture {
  TempDir dir;
  CapturedContext captured{dir.path()};
  Instances instances{captured.ctx};
  Fixture() { captured.ctx.env["XDG_RUNTIME_DIR"] = dir.path(); }
  std::string sock() const { return dir / ("vorn/" + std::to_string(::getpid()) + "/fs.sock"); }
};

TEST(FileOpen, UsageErrorsComeBeforeAnySocket) {
  Fixture f;
  writeFile(f.dir / "w/main.go", "");
  writeFile(f.dir / "w/pkg/a.go", "");
  auto open = fileVerbs().at("open");
  EXPECT_EQ(thrown([&] { open(withArgs({}), f.instances); }),
            usageError("vorn file open: missing file"));
  Flags all = withArgs({"w/main.go"});
  all.all = true;
  EXPECT_EQ(thrown([&] { open(all, f.instances); }),
            usageError("vorn file open: --all is not valid when opening a file"));
  EXPECT_EQ(thrown([&] {
              open(withArgs({"w/main.go", "x"}), f.instances);
            }),
            usageError("vorn file open: unexpected argument 'x'"));
  EXPECT_EQ(thrown([&] { open(withArgs({"w/pkg"}), f.instances); }),
            usageError("vorn file open: w/pkg is a directory (vorn workspace open)"));
  EXPECT_EQ(thrown([&] { open(withArgs({"w/pkg:3"}), f.instances); }),
            usageError("vorn file open: w/pkg is a directory (vorn workspace open)"));
  EXPECT_EQ(thrown([&] { open(withArgs({"w/nope.go:3:1"}), f.instances); }),
            usageError("vorn file open: no such file: w/nope.go"));
  EXPECT_EQ(thrown([&] { open(withArgs({"w/main.go:0"}), f.instances); }),
            usageError("vorn file open: no line or column 0 in w/main.go:0 \u2014 lines and "
                       "columns count from 1"));
  EXPECT_EQ(thrown([&] { open(withArgs({"w/main.go:3:0"}), f.instances); }),
            usageError("vorn file open: no line or column 0 in w/main.go:3:0 \u2014 lines and "
                       "columns count from 1"));
  EXPECT_EQ(f.captured.out, "");
}

TEST(FileOpen, TheOwnerGetsTheAbsolutePathAndPosition) {
  Fixture f;
  writeFile(f.dir / "w/main.go", "");
  testing::Record record{"own", ::getpid(), f.sock(), f.dir / "w"};
  FakeInstanceServer server(f.sock(), [&](const SeenRequest& request) {
    if (request.path == "/instance") return FakeReply{200, record.json().serialized(0)};
    return FakeReply{200, "{\"ok\":true,\"path\":\"P\",\"line\":12,\"col\":5}"};
  });
  fileVerbs().at("open")(withArgs({"w/main.go:12:5"}), f.instances);
  EXPECT_EQ(f.captured.out, "Opened P:12:5 on instance own\n");
  auto seen = server.requests();
  ASSERT_FALSE(seen.empty());
  EXPECT_EQ(seen.back().path, "/openFile");
  EXPECT_EQ(seen.back().body, "{\"path\":\"" + f.dir / "w/main.go" + "\",\"line\":12,\"col\":5}");
}

TEST(FileOpen, JSONModePutsTheInstanceFirst) {
  Fixture f;
  writeFile(f.dir / "w/main.go", "");
  testing::Record record{"own", ::getpid(), f.sock(), f.dir / "w"};
  FakeInstanceServer server(f.sock(), [&](const SeenRequest& request) {
    if (request.path == "/instance") return FakeReply{200, record.json().serialized(0)};
    return FakeReply{200, "{\"ok\":true,\"path\":\"P\",\"instance\":\"theirs\"}"};
  });
  Flags flags = withArgs({"w/main.go"});
  flags.json = true;
  fileVerbs().at("open")(flags, f.instances);
  EXPECT_EQ(f.captured.out,
            "{\n  \"instance\": \"theirs\",\n  \"ok\": true,\n  \"path\": \"P\"\n}\n");
}

TEST(FileOpen, AFailedReplyNamesTheInstance) {
  Fixture f;
  writeFile(f.dir / "w/main.go", "");
  testing::Record record{"own", ::getpid(), f.sock(), f.dir / "w"};
  std::string reply = "{\"ok\":false,\"error\":\"no editor\"}";
  int status = 200;
  FakeInstanceServer server(f.sock(), [&](const SeenRequest& request) {
    if (request.path == "/instance") return FakeReply{200, record.json().serialized(0)};
    return FakeReply{status, reply};
  });
  auto open = fileVerbs().at("open");
  EXPECT_EQ(thrown([&] { open(withArgs({"w/main.go"}), f.instances); }),
            CliError("vorn file open [own]: no editor", 1));
  reply = "{\"path\":\"x\"}";  // "ok" must be the boolean true
  EXPECT_EQ(thrown([&] { open(withArgs({"w/main.go"}), f.instances); }),
            CliError("vorn file open [own]: openFile failed (200)", 1));
  status = 500;
  reply = "{\"ok\":true}";
  EXPECT_EQ(thrown([&] { open(withArgs({"w/main.go"}), f.instances); }),
            CliError("vorn file open [own]: openFile failed (500)", 1));
  EXPECT_EQ(f.captured.out, "");
}

TEST(FileRead, MissingPathAndStrayArgument) {
  Fixture f;
  auto read = fileVerbs().at("read");
  EXPECT_EQ(thrown([&] { read(withArgs({}), f.instances); }),
            usageError("vorn file read: missing path"));
  EXPECT_EQ(thrown([&] {
              read(withArgs({"a", "b"}), f.instances);
            }),
            usageError("vorn file read: unexpected argument 'b'"));
  EXPECT_EQ(thrown([&] { read(withArgs({"a"}), f.instances); }),
            CliError("vorn file read: no running instances", 1));
}

TEST(FileRead, ThePathIsComponentEncoded) {
  Fixture f;
  testing::Record record{"own", ::getpid(), f.sock(), f.dir / "w"};
  FakeInstanceServer server(f.sock(), [&](const SeenRequest& request) {
    if (request.path == "/instance") return FakeReply{200, record.json().serialized(0)};
    return FakeReply{200, "{\"content\":\"x\"}"};
  });
  fileVerbs().at("read")(withArgs({"src/a b~(1)+é.go"}), f.instances);
  EXPECT_EQ(f.captured.out, "{\n  \"content\": \"x\"\n}\n");
  auto seen = server.requests();
  ASSERT_FALSE(seen.empty());
  EXPECT_EQ(seen.back().method, "GET");
  EXPECT_EQ(seen.back().path, "/read?path=src%2Fa%20b~(1)%2B%C3%A9.go");
}

}  // namespace
}  // namespace vorn
