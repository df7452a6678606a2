#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <memory>

#include "core/test_support.h"
#include "instances/instances.h"
#include "instances/test_instances.h"
#include "paths/paths.h"

namespace vorn {
namespace {

using testing::FakeInstanceServer;
using testing::SleepingChild;
using testing::TempDir;

InstanceInfo info(const std::string& id, int64_t pid, const std::string& workspace = "") {
  InstanceInfo i;
  i.id = id;
  i.pid = pid;
  i.socketPath = "/r/" + std::to_string(pid) + "/fs.sock";
  i.reportedSocketPath = i.socketPath;
  i.workspace = workspace;
  i.platform = "darwin";
  return i;
}

std::vector<std::string> ids(const std::vector<InstanceInfo>& list) {
  std::vector<std::string> out;
  for (const auto& i : list)
    out.push_back(i.id);
  return out;
}

Flags selectId(const std::string& id) {
  Flags f;
  f.instance = id;
  return f;
}

// ---- pure parts ----

TEST(HasSelector, EachFlagCounts) {
  EXPECT_FALSE(hasSelector(Flags{}));
  Flags f;
  f.sock = "";
  EXPECT_FALSE(hasSelector(f));
  f.sock = "/x";
  EXPECT_TRUE(hasSelector(f));
  f = Flags{};
  f.pid = 0;
  EXPECT_TRUE(hasSelector(f));
  f = Flags{};
  f.instance = "";
  EXPECT_FALSE(hasSelector(f));
  f.instance = "a";
  EXPECT_TRUE(hasSelector(f));
  f = Flags{};
  f.all = true;
  EXPECT_TRUE(hasSelector(f));
  f = Flags{};
  f.json = true;
  EXPECT_FALSE(hasSelector(f));
}

TEST(MatchInstances, PrefixMayMatchSeveral) {
  std::vector<InstanceInfo> all = {info("abc", 1), info("abd", 2), info("xyz", 3)};
  EXPECT_EQ(ids(matchInstances(all, std::string("ab"), std::nullopt)),
            (std::vector<std::string>{"abc", "abd"}));
  EXPECT_TRUE(matchInstances(all, std::string("q"), std::nullopt).empty());
}

TEST(MatchInstances, ExactMatchWins) {
  std::vector<InstanceInfo> all = {info("abcd", 1), info("abc", 2)};
  EXPECT_EQ(ids(matchInstances(all, std::string("abc"), std::nullopt)),
            (std::vector<std::string>{"abc"}));
}

TEST(MatchInstances, PidWinsOverId) {
  std::vector<InstanceInfo> all = {info("abc", 1), info("abd", 2), info("abe", 2)};
  EXPECT_EQ(ids(matchInstances(all, std::string("abc"), int64_t{2})),
            (std::vector<std::string>{"abd", "abe"}));
  EXPECT_TRUE(matchInstances(all, std::nullopt, int64_t{42}).empty());
}

TEST(MatchInstances, NoSelectorPicksOnlyALoneInstance) {
  std::vector<InstanceInfo> one = {info("abc", 1)};
  std::vector<InstanceInfo> two = {info("abc", 1), info("abd", 2)};
  EXPECT_EQ(ids(matchInstances(one, std::nullopt, std::nullopt)),
            (std::vector<std::string>{"abc"}));
  EXPECT_EQ(ids(matchInstances(one, std::string(""), std::nullopt)),
            (std::vector<std::string>{"abc"}));
  EXPECT_TRUE(matchInstances(two, std::nullopt, std::nullopt).empty());
  EXPECT_TRUE(matchInstances({}, std::nullopt, std::nullopt).empty());
}

TEST(Ambiguous, CarriesMessageHintCodeIdsAndTable) {
  std::vector<InstanceInfo> list = {info("abc", 1, "/w"), info("abd", 2)};
  CliError error = ambiguous("2 instances running", list, "pass -i ID (see vorn instance list)");
  EXPECT_EQ(error.message, "2 instances running \u2014 pass -i ID (see vorn instance list)");
  EXPECT_EQ(error.code, 2);
  EXPECT_FALSE(error.instance);
  EXPECT_EQ(error.instances, (std::vector<std::string>{"abc", "abd"}));
  EXPECT_EQ(error.preface, instanceTable(list));
}

// ---- against a private runtime directory ----

struct SelectionTest : ::testing::Test {
  TempDir tmp;
  CapturedContext io;
  std::string root;
  std::string checkout;
  std::vector<std::unique_ptr<SleepingChild>> children;
  std::vector<std::unique_ptr<FakeInstanceServer>> servers;

  SelectionTest() {
    io.ctx.env["XDG_RUNTIME_DIR"] = tmp.path();
    root = tmp / "vorn";
    checkout = tmp / "co";
    std::filesystem::create_directories(root);
    std::filesystem::create_directories(tmp / "outside");
    io.ctx.cwd = tmp / "outside";
  }

  Instances instances() { return Instances{io.ctx}; }

  // Starts an instance in a folder named by a live helper process. Its record reports that
  // process's pid unless another is given.
  InstanceInfo add(const std::string& id, const std::string& workspace = "",
                   std::optional<int64_t> pid = std::nullopt,
                   const std::string& vornRoot = "/opt/vorn") {
    children.push_back(std::make_unique<SleepingChild>());
    pid_t folder = children.back()->pid();
    std::string sock = root + "/" + std::to_string(folder) + "/fs.sock";
    testing::Record r = testing::record(id, pid.value_or(folder), sock, workspace);
    r.vornRoot = vornRoot;
    servers.push_back(
        std::make_unique<FakeInstanceServer>(sock, FakeInstanceServer::answering(r.json())));
    auto parsed = InstanceInfo::fromJSON(r.json());
    parsed->foreign = isForeignHost(*parsed, sock);
    return *parsed;
  }

  void enterCheckout() {
    testing::makeCheckout(checkout);
    io.ctx.cwd = checkout;
  }

  std::string devAppFile() { return checkout + "/.cache/vorn/dev-app.json"; }

  void writeDevApp(int64_t pid, const std::string& sock) {
    testing::writeFile(devAppFile(), JSON::object({{"pid", JSON(pid)},
                                                   {"socketPath", JSON(sock)},
                                                   {"startedBy", JSON("tooling")}})
                                         .serialized(0));
  }
};

TEST_F(SelectionTest, PrefixReturnsBothAndOneTakesTheFirstByPid) {
  add("abd", "", 200);
  add("abc", "", 100);
  add("xyz", "", 50);
  EXPECT_EQ(ids(instances().resolve(selectId("ab"), true, false)),
            (std::vector<std::string>{"abc", "abd"}));
  EXPECT_EQ(instances().one(selectId("ab"), "file open").id, "abc");
}

TEST_F(SelectionTest, ExactIdWins) {
  add("abcd");
  add("abc");
  EXPECT_EQ(ids(instances().resolve(selectId("abc"), true, false)),
            (std::vector<std::string>{"abc"}));
}

TEST_F(SelectionTest, PidWithoutMatch) {
  add("abc");
  Flags f;
  f.pid = 42;
  CliError e = thrown([&] { instances().resolve(f, true, true); });
  EXPECT_EQ(e.message, "no instance matches pid 42");
  EXPECT_EQ(e.code, 1);
}

TEST_F(SelectionTest, IdWithoutMatch) {
  add("abc");
  CliError e = thrown([&] { instances().resolve(selectId("zz"), false, true); });
  EXPECT_EQ(e.message, "no instance matches zz");
  EXPECT_EQ(e.code, 1);
}

TEST_F(SelectionTest, PidSelects) {
  add("abc", "", 11);
  add("abd", "", 12);
  Flags f;
  f.pid = 12;
  f.instance = "abc";  // ignored when a pid is given
  EXPECT_EQ(ids(instances().resolve(f, true, false)), (std::vector<std::string>{"abd"}));
}

TEST_F(SelectionTest, DeadSocketIsNotHealthyEvenWhenOthersRun) {
  add("abc");
  Flags f;
  f.sock = tmp / "nothing.sock";
  CliError e = thrown([&] { instances().resolve(f, true, true); });
  EXPECT_EQ(e.message, "no healthy instance at " + tmp / "nothing.sock");
  EXPECT_EQ(e.code, 1);

  f.sock = "";
  EXPECT_EQ(thrown([&] { instances().resolve(f, true, true); }).message, "no healthy instance at ");
}

TEST_F(SelectionTest, SocketSelectsThatInstanceAlone) {
  add("abc");
  InstanceInfo other = add("abd");
  Flags f;
  f.sock = other.socketPath;
  f.instance = "abc";
  auto found = instances().resolve(f, true, false);
  ASSERT_EQ(found.size(), 1u);
  EXPECT_EQ(found[0], other);
}

TEST_F(SelectionTest, AllNeedsPermission) {
  Flags f;
  f.all = true;
  CliError e = thrown([&] { instances().resolve(f, true, false); });
  EXPECT_EQ(e.message, "--all is not valid for this command");
  EXPECT_EQ(e.code, 1);
  EXPECT_TRUE(instances().resolve(f, true, true).empty());
  add("b", "", 2);
  add("a", "", 1);
  EXPECT_EQ(ids(instances().resolve(f, true, true)), (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(thrown([&] { instances().one(f, "file open"); }).message,
            "--all is not valid for this command");
}

TEST_F(SelectionTest, NoSelectorWithTwoInstancesOutsideACheckout) {
  InstanceInfo a = add("aaa", "", 1);
  InstanceInfo b = add("bbb", "/w", 2);
  CliError e = thrown([&] { instances().resolve(Flags{}, true, false); });
  EXPECT_EQ(e.message, "2 instances running \u2014 pass -i ID (see vorn instance list)");
  EXPECT_EQ(e.code, 2);
  EXPECT_EQ(e.instances, (std::vector<std::string>{"aaa", "bbb"}));
  EXPECT_EQ(e.preface, instanceTable({a, b}));

  EXPECT_TRUE(instances().resolve(Flags{}, false, true).empty());
}

TEST_F(SelectionTest, NoSelectorWithOneInstanceOutsideACheckout) {
  InstanceInfo a = add("aaa");
  auto found = instances().resolve(Flags{}, true, false);
  ASSERT_EQ(found.size(), 1u);
  EXPECT_EQ(found[0], a);
  EXPECT_EQ(instances().one(Flags{}, "file open"), a);
}

TEST_F(SelectionTest, OneWithoutInstances) {
  CliError e = thrown([&] { instances().one(Flags{}, "file open"); });
  EXPECT_EQ(e.message, "vorn file open: no running instance (vorn workspace open <dir> first)");
  EXPECT_EQ(e.code, 1);
}

TEST_F(SelectionTest, CheckoutWithoutItsAppIsAmbiguous) {
  enterCheckout();
  add("aaa", "", 1);
  add("bbb", "", 2);
  CliError e = thrown([&] { instances().resolve(Flags{}, false, true); });
  EXPECT_EQ(e.message,
            "no app for this checkout \u2014 vorn dev app start, or pass -i ID (see vorn instance "
            "list)");
  EXPECT_EQ(e.code, 2);
  EXPECT_EQ(e.instances, (std::vector<std::string>{"aaa", "bbb"}));
  ASSERT_TRUE(e.preface);
  EXPECT_NE(e.preface->find("aaa"), std::string::npos);

  // A selector skips the checkout narrowing.
  EXPECT_EQ(ids(instances().resolve(selectId("bbb"), true, false)),
            (std::vector<std::string>{"bbb"}));
}

TEST_F(SelectionTest, CheckoutPicksTheInstanceRunningFromIt) {
  enterCheckout();
  ASSERT_EQ(::symlink(checkout.c_str(), (tmp / "co-link").c_str()), 0);
  add("other", "", 1);
  add("mine", "", 2, tmp / "co-link");  // the same root, reached through a link
  EXPECT_EQ(ids(instances().resolve(Flags{}, true, false)), (std::vector<std::string>{"mine"}));
}

TEST_F(SelectionTest, ImplicitPoolHonoursVornPid) {
  enterCheckout();
  std::vector<InstanceInfo> pool = {info("a", 10), info("b", 20)};
  pool[1].vornRoot = checkout;
  EXPECT_EQ(ids(instances().implicitPool(pool, "m")), (std::vector<std::string>{"b"}));

  io.ctx.env["VORN_PID"] = "10";
  EXPECT_EQ(ids(instances().implicitPool(pool, "m")), (std::vector<std::string>{"a", "b"}));
  io.ctx.env["VORN_PID"] = "+10";
  EXPECT_EQ(ids(instances().implicitPool(pool, "m")), (std::vector<std::string>{"a", "b"}));

  pool[1].vornRoot = "/elsewhere";
  io.ctx.env["VORN_PID"] = "10x";  // not a number: ignored
  CliError e = thrown([&] { instances().implicitPool(pool, "no app for this checkout"); });
  EXPECT_EQ(e.code, 2);
  io.ctx.env["VORN_PID"] = "";
  EXPECT_EQ(thrown([&] { instances().implicitPool(pool, "m"); }).code, 2);
  io.ctx.env["VORN_PID"] = "99999999999999999999";
  EXPECT_EQ(thrown([&] { instances().implicitPool(pool, "m"); }).code, 2);

  EXPECT_TRUE(instances().implicitPool({}, "m").empty());
}

TEST_F(SelectionTest, ImplicitPoolOutsideACheckoutKeepsEverything) {
  std::vector<InstanceInfo> pool = {info("a", 10), info("b", 20)};
  EXPECT_EQ(ids(instances().implicitPool(pool, "m")), (std::vector<std::string>{"a", "b"}));
}

// ---- the checkout's own app ----

TEST_F(SelectionTest, OwnReadsTheDevAppRecord) {
  enterCheckout();
  InstanceInfo mine = add("mine", "", 4242);
  add("other");
  writeDevApp(4242, mine.socketPath);
  auto own = instances().own();
  ASSERT_TRUE(own);
  EXPECT_EQ(*own, mine);
  // Without a selector the own app wins over the checkout narrowing and the others.
  EXPECT_EQ(instances().resolve(Flags{}, true, false), std::vector<InstanceInfo>{mine});
  EXPECT_TRUE(testing::exists(devAppFile()));
}

TEST_F(SelectionTest, OwnOutsideACheckoutIsNothing) {
  InstanceInfo mine = add("mine", "", 4242);
  writeDevApp(4242, mine.socketPath);  // a file in a folder that is not a checkout
  EXPECT_FALSE(instances().own());
}

TEST_F(SelectionTest, StaleDevAppFileIsDeleted) {
  enterCheckout();
  writeDevApp(4242, root + "/4242/fs.sock");
  EXPECT_FALSE(instances().own());
  EXPECT_FALSE(testing::exists(devAppFile()));
}

TEST_F(SelectionTest, DevAppFileWithAnotherPidIsDeleted) {
  enterCheckout();
  InstanceInfo mine = add("mine", "", 4242);
  writeDevApp(4243, mine.socketPath);
  EXPECT_FALSE(instances().own());
  EXPECT_FALSE(testing::exists(devAppFile()));
}

TEST_F(SelectionTest, DevAppSocketOutsideTheRuntimeRootIsIgnored) {
  enterCheckout();
  FakeInstanceServer far(
      tmp / "elsewhere/1/fs.sock",
      FakeInstanceServer::answering(testing::record("far", 1, tmp / "elsewhere/1/fs.sock").json()));
  writeDevApp(1, tmp / "elsewhere/1/fs.sock");
  EXPECT_FALSE(instances().own());
  EXPECT_TRUE(testing::exists(devAppFile()));
  EXPECT_TRUE(far.requests().empty());
}

TEST_F(SelectionTest, DevAppSocketThatClimbsOutOfTheRuntimeRootIsIgnored) {
  enterCheckout();
  // <root>/../agent.sock: its parent's parent looks like the root's parent, never the root,
  // but <root>/1/../../agent.sock or <root>/x/fs.sock must not pass either.
  FakeInstanceServer agent(tmp / "agent.sock", FakeInstanceServer::answering(
                                                   testing::record("agent", 1, tmp / "agent.sock")
                                                       .json()));
  for (const std::string& sock : {root + "/../agent.sock", root + "/1/../../agent.sock",
                                  root + "/1/fs.sock/../../../agent.sock"}) {
    writeDevApp(1, sock);
    EXPECT_FALSE(instances().own()) << sock;
    EXPECT_TRUE(testing::exists(devAppFile())) << sock;
  }
  EXPECT_TRUE(agent.requests().empty());

  InstanceInfo named = add("named", "", 77);
  std::filesystem::create_directories(root + "/x");
  ASSERT_EQ(::symlink(named.socketPath.c_str(), (root + "/x/fs.sock").c_str()), 0);
  writeDevApp(77, root + "/x/fs.sock");
  EXPECT_FALSE(instances().own());
  EXPECT_TRUE(testing::exists(devAppFile()));
}

TEST_F(SelectionTest, DevAppSocketIsProbedWhereItNormalisesTo) {
  enterCheckout();
  InstanceInfo mine = add("mine", "", 4242);
  std::string folder = Paths::parent(mine.socketPath);
  std::string name = folder.substr(folder.rfind('/') + 1);
  writeDevApp(4242, folder + "/./../" + name + "//fs.sock");
  auto own = instances().own();
  ASSERT_TRUE(own);
  EXPECT_EQ(own->id, "mine");
  EXPECT_EQ(own->socketPath, mine.socketPath);
}

TEST_F(SelectionTest, BadDevAppFilesAreIgnoredAndKept) {
  enterCheckout();
  InstanceInfo mine = add("mine", "", 4242);
  const std::string sock = JSON(mine.socketPath).serialized(0);
  for (const std::string& text : {std::string("not json"), std::string("{\"pid\": 4242}"),
                                  "{\"pid\": \"4242\", \"socketPath\": " + sock + "}",
                                  "{\"pid\": 4242.5, \"socketPath\": " + sock + "}",
                                  std::string("{\"pid\": 4242, \"socketPath\": \"\"}"),
                                  std::string("[]"), std::string("\xff\xfe")}) {
    testing::writeFile(devAppFile(), text);
    EXPECT_FALSE(instances().own()) << text;
    EXPECT_TRUE(testing::exists(devAppFile())) << text;
  }
}

// ---- owner ----

TEST_F(SelectionTest, OwnerOfAFileInNestedWorkspacesIsAmbiguous) {
  std::filesystem::create_directories(tmp / "ws/sub");
  testing::writeFile(tmp / "ws/sub/a.go", "package a");
  add("outer", tmp / "ws", 1);
  add("inner", tmp / "ws/sub", 2);
  add("unrelated", tmp / "outside", 3);
  std::string path = tmp / "ws/sub/a.go";
  CliError e = thrown([&] { instances().owner(path, "file open"); });
  EXPECT_EQ(e.message, "file open: 2 instances have " + path +
                           " in their workspace \u2014 pass -i ID (see vorn instance list)");
  EXPECT_EQ(e.code, 2);
  EXPECT_EQ(e.instances, (std::vector<std::string>{"outer", "inner"}));

  EXPECT_EQ(instances().owner(tmp / "ws/other.go", "file open").id, "outer");
  // The workspace folder itself belongs to its instance.
  EXPECT_EQ(instances().owner(tmp / "outside", "file open").id, "unrelated");
}

TEST_F(SelectionTest, OwnerPrefersTheCheckoutsOwnApp) {
  enterCheckout();
  std::filesystem::create_directories(tmp / "ws/sub");
  add("outer", tmp / "ws", 1);
  InstanceInfo mine = add("inner", tmp / "ws/sub", 2);
  writeDevApp(2, mine.socketPath);
  EXPECT_EQ(instances().owner(tmp / "ws/sub/a.go", "file open"), mine);
  // When the own app does not hold the file, the others are asked.
  EXPECT_EQ(instances().owner(tmp / "ws/b.go", "file open").id, "outer");
}

TEST_F(SelectionTest, OwnerWithoutInstances) {
  CliError e = thrown([&] { instances().owner("x.go", "file open"); });
  EXPECT_EQ(e.message,
            "vorn file open: no running instances \u2014 open its folder first: vorn workspace "
            "open <dir>");
  EXPECT_EQ(e.code, 1);
}

TEST_F(SelectionTest, OwnerWithoutAMatchingWorkspace) {
  std::filesystem::create_directories(tmp / "ws");
  add("one", tmp / "ws");
  add("none");  // no workspace at all
  std::string path = tmp / "elsewhere/x.go";
  CliError e = thrown([&] { instances().owner(path, "file open"); });
  EXPECT_EQ(e.message, "vorn file open: no instance has " + path +
                           " in its workspace \u2014 run vorn workspace open <dir> first");
  EXPECT_EQ(e.code, 1);
}

TEST_F(SelectionTest, DotDotNamesAtTheWorkspaceTopCountAsOutside) {
  std::filesystem::create_directories(tmp / "ws");
  testing::writeFile(tmp / "ws/..notes", "");
  add("one", tmp / "ws");
  CliError e = thrown([&] { instances().owner(tmp / "ws/..notes", "file open"); });
  EXPECT_NE(e.message.find("no instance has"), std::string::npos);
  EXPECT_EQ(instances().owner(tmp / "ws/.notes", "file open").id, "one");
}

TEST_F(SelectionTest, OwnerResolvesLinks) {
  std::filesystem::create_directories(tmp / "ws");
  testing::writeFile(tmp / "ws/a.go", "");
  ASSERT_EQ(::symlink((tmp / "ws").c_str(), (tmp / "ws-link").c_str()), 0);
  add("one", tmp / "ws-link");
  EXPECT_EQ(instances().owner(tmp / "ws/a.go", "file open").id, "one");
}

// ---- waitForExit ----

TEST_F(SelectionTest, WaitForExitSeesTheProcessGoAndClearsItsFolder) {
  InstanceInfo target = add("going");
  std::string folder = root + "/" + std::to_string(target.pid);
  children.back()->end();
  servers.back()->stop();
  EXPECT_TRUE(instances().waitForExit(target, 5));
  EXPECT_FALSE(testing::exists(folder));
}

TEST_F(SelectionTest, WaitForExitSeesAChangedRecord) {
  InstanceInfo target = add("going");
  InstanceInfo changed = target;
  changed.workspace = "/elsewhere";
  EXPECT_TRUE(instances().waitForExit(changed, 5));
}

TEST_F(SelectionTest, WaitForExitTimesOut) {
  InstanceInfo target = add("staying");
  auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(instances().waitForExit(target, 0.25));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(250));
  EXPECT_GE(servers.back()->requests().size(), 2u);  // it kept asking
  EXPECT_FALSE(instances().waitForExit(target, 0));
  EXPECT_FALSE(instances().waitForExit(target, -1));
}

}  // namespace
}  // namespace vorn
