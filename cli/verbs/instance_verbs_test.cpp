#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "core/cli_error.h"
#include "core/test_support.h"
#include "verbs/verbs.h"

namespace vorn {

// Defined in instance_verbs.cpp and version.cpp.
namespace InstanceVerbs {
std::optional<std::string> isoTimestamp(double ms);
JSON diagnosticsSummary(const JSON& reply);
JSON listEntry(const InstanceInfo& instance);
struct ListOutput {
  std::string out;
  std::string err;
};
ListOutput listOutput(const Scan& scan, bool quiet, bool json);
std::string pruneOutput(const Scan& scan, bool json);
std::vector<InstanceInfo> inspectTargets(const std::vector<InstanceInfo>& live,
                                         const std::vector<std::string>& ids);
JSON inspectEntry(const InstanceInfo& instance, double nowMs, JSON health, JSON workspace,
                  JSON language, const JSON& diagnostics);
}  // namespace InstanceVerbs
namespace Version {
std::string renderProtocol(const JSON& protocol);
std::string versionOutput(const std::vector<std::pair<std::string, JSON>>& protocols, bool json);
}  // namespace Version

namespace {

using namespace InstanceVerbs;

InstanceInfo info(std::string id, int64_t pid, std::string workspace = "",
                  std::optional<std::string> mode = std::nullopt) {
  InstanceInfo i;
  i.id = std::move(id);
  i.pid = pid;
  i.socketPath = "/run/vorn/" + std::to_string(pid) + "/fs.sock";
  i.reportedSocketPath = i.socketPath;
  i.workspace = workspace;
  i.workspaceName = workspace.empty() ? "" : workspace.substr(workspace.rfind('/') + 1);
  i.vornRoot = "/src/vorn";
  i.startedAt = 1700000000000;
  i.platform = "darwin";
  i.mode = std::move(mode);
  return i;
}

StaleEntry stale(int64_t pid, std::string reason) {
  std::string dir = "/run/vorn/" + std::to_string(pid);
  return StaleEntry{pid, dir, dir + "/fs.sock", std::move(reason)};
}

TEST(IsoTimestamp, FormatsUtcWithMilliseconds) {
  EXPECT_EQ(isoTimestamp(0), "1970-01-01T00:00:00.000Z");
  EXPECT_EQ(isoTimestamp(1795294275123.0), "2026-11-21T20:51:15.123Z");
  EXPECT_EQ(isoTimestamp(951782400000.0), "2000-02-29T00:00:00.000Z");   // leap day
  EXPECT_EQ(isoTimestamp(1700000000000.9), "2023-11-14T22:13:20.000Z");  // fraction dropped
}

TEST(IsoTimestamp, BeforeTheEpochCountsBackwards) {
  EXPECT_EQ(isoTimestamp(-1), "1969-12-31T23:59:59.999Z");
  EXPECT_EQ(isoTimestamp(-86400000), "1969-12-31T00:00:00.000Z");
}

TEST(IsoTimestamp, FarYearsUseTheExpandedForm) {
  EXPECT_EQ(isoTimestamp(253402300799999.0), "9999-12-31T23:59:59.999Z");
  EXPECT_EQ(isoTimestamp(253402300800000.0), "+010000-01-01T00:00:00.000Z");
  EXPECT_EQ(isoTimestamp(-62167219200001.0), "-000001-12-31T23:59:59.999Z");
  EXPECT_EQ(isoTimestamp(8.64e15), "+275760-09-13T00:00:00.000Z");
}

TEST(IsoTimestamp, OutOfRangeHasNone) {
  EXPECT_EQ(isoTimestamp(8.64e15 + 1), std::nullopt);
  EXPECT_EQ(isoTimestamp(-1e300), std::nullopt);
  EXPECT_EQ(isoTimestamp(std::numeric_limits<double>::infinity()), std::nullopt);
  EXPECT_EQ(isoTimestamp(std::numeric_limits<double>::quiet_NaN()), std::nullopt);
}

TEST(DiagnosticsSummary, CountsBySourceInFirstAppearanceOrder) {
  JSON reply =
      JSON::parse(R"({"diagnostics":[{"source":"gopls"},{"source":"go test"},{"source":"gopls"},)"
                  R"({"message":"no source"},{"source":3}],"analyzers":{}})");
  EXPECT_EQ(diagnosticsSummary(reply).serialized(0),
            R"({"count":5,"bySource":{"gopls":2,"go test":1}})");
}

TEST(DiagnosticsSummary, FailedOrOddRepliesCountNothing) {
  EXPECT_EQ(diagnosticsSummary(JSON::parse(R"({"error":"connect x: refused"})")).serialized(0),
            R"({"count":0,"bySource":{}})");
  EXPECT_EQ(diagnosticsSummary(JSON::parse(R"({"diagnostics":{"a":1}})")).serialized(0),
            R"({"count":0,"bySource":{}})");
  EXPECT_EQ(diagnosticsSummary(JSON::parse("[1,2]")).serialized(0), R"({"count":0,"bySource":{}})");
}

TEST(ListEntry, HasTheDocumentedKeysInOrder) {
  EXPECT_EQ(listEntry(info("abc", 42, "/w/app")).serialized(0),
            R"({"id":"abc","pid":42,"sock":"/run/vorn/42/fs.sock","mode":"app",)"
            R"("workspace":{"root":"/w/app","name":"app"},)"
            R"("health":{"ok":true,"transport":"af_unix"}})");
  EXPECT_EQ(listEntry(info("h", 7, "", "headless")).get("mode")->serialized(0), "\"headless\"");
}

TEST(ListOutput, TableWithStaleWarningAndPrunedLines) {
  Scan scan;
  scan.live = {info("abc", 42, "/w/app"), info("def", 43, "", "remote")};
  scan.stale = {stale(50, "no-sock"), stale(51, "unreachable")};
  scan.removed = {stale(60, "dead-pid")};
  ListOutput o = listOutput(scan, false, false);
  EXPECT_EQ(o.out,
            "ID   PID  MODE    WORKSPACE  SOCK                  \n"
            "abc  42   app     /w/app     /run/vorn/42/fs.sock  \n"
            "def  43   remote  (none)     /run/vorn/43/fs.sock  \n");
  EXPECT_EQ(o.err,
            "vorn: pruned /run/vorn/60 (dead-pid)\n"
            "vorn: 2 unreachable instance dir(s): 50 (no-sock), 51 (unreachable) — run vorn "
            "instance prune\n");
}

TEST(ListOutput, QuietPrintsOnlyIds) {
  Scan scan;
  scan.live = {info("abc", 42), info("def", 43)};
  scan.stale = {stale(50, "no-sock")};
  scan.removed = {stale(60, "dead-pid")};
  ListOutput o = listOutput(scan, true, false);
  EXPECT_EQ(o.out, "abc\ndef\n");
  EXPECT_EQ(o.err, "");
}

TEST(ListOutput, NoInstances) {
  ListOutput o = listOutput(Scan{}, false, false);
  EXPECT_EQ(o.out, "No running Vorn instances.\n");
  EXPECT_EQ(o.err, "");
  EXPECT_EQ(listOutput(Scan{}, true, false).out, "");
}

TEST(ListOutput, JsonCarriesInstancesAndStaleOnly) {
  Scan scan;
  scan.live = {info("abc", 42)};
  scan.stale = {stale(50, "no-sock")};
  scan.removed = {stale(60, "dead-pid")};
  for (bool quiet : {false, true}) {
    ListOutput o = listOutput(scan, quiet, true);
    EXPECT_EQ(o.err, "");
    JSON parsed = JSON::parse(o.out);
    EXPECT_EQ(parsed.get("instances")->list().size(), 1u);
    EXPECT_EQ(parsed.get("stale")->serialized(0),
              R"([{"pid":50,"dir":"/run/vorn/50","reason":"no-sock"}])");
    EXPECT_EQ(o.out.back(), '\n');
  }
  EXPECT_EQ(listOutput(Scan{}, false, true).out, "{\n  \"instances\": [],\n  \"stale\": []\n}\n");
}

TEST(PruneOutput, TextNamesPrunedAndKept) {
  Scan scan;
  scan.live = {info("abc", 42)};
  scan.removed = {stale(60, "dead-pid"), stale(61, "no-sock")};
  scan.stale = {stale(70, "unreachable")};
  EXPECT_EQ(pruneOutput(scan, false),
            "Pruned /run/vorn/60 (dead-pid)\n"
            "Pruned /run/vorn/61 (no-sock)\n"
            "Kept /run/vorn/70 (unreachable; younger than 10s or not ours)\n"
            "1 live instance(s).\n");
  EXPECT_EQ(pruneOutput(Scan{}, false), "Nothing to prune.\n0 live instance(s).\n");
}

TEST(PruneOutput, Json) {
  Scan scan;
  scan.live = {info("abc", 42), info("def", 43)};
  scan.removed = {stale(60, "dead-pid")};
  EXPECT_EQ(JSON::parse(pruneOutput(scan, true)).serialized(0),
            R"({"pruned":[{"pid":60,"dir":"/run/vorn/60","reason":"dead-pid"}],"kept":[],)"
            R"("live":["abc","def"]})");
}

TEST(InspectTargets, ExactPrefixRepeatsAndOrder) {
  std::vector<InstanceInfo> live = {info("abc", 1), info("abcd", 2), info("xyz", 3)};
  auto ids = [](const std::vector<InstanceInfo>& v) {
    std::vector<std::string> out;
    for (const auto& i : v)
      out.push_back(i.id);
    return out;
  };
  EXPECT_EQ(ids(inspectTargets(live, {"abc"})), std::vector<std::string>{"abc"});
  EXPECT_EQ(ids(inspectTargets(live, {"x", "abcd", "xyz"})),
            (std::vector<std::string>{"xyz", "abcd"}));
}

TEST(InspectTargets, NoMatchAndAmbiguity) {
  std::vector<InstanceInfo> live = {info("abc", 1), info("abd", 2)};
  try {
    inspectTargets(live, {"abc", "q"});
    FAIL() << "no error";
  } catch (const CliError& e) {
    EXPECT_EQ(e.message, "vorn instance inspect: no instance matches q");
    EXPECT_EQ(e.code, 1);
  }
  try {
    inspectTargets(live, {"ab"});
    FAIL() << "no error";
  } catch (const CliError& e) {
    EXPECT_EQ(e.message,
              "vorn instance inspect: 2 instances match ab — pass a longer ID (see vorn "
              "instance list)");
    EXPECT_EQ(e.code, 2);
    EXPECT_EQ(e.instances, (std::vector<std::string>{"abc", "abd"}));
    EXPECT_EQ(e.preface, instanceTable(live));
  }
}

TEST(InspectEntry, KeysInOrderWithTimesAndCounts) {
  InstanceInfo i = info("abc", 42, "/w/app");
  i.startedAt = 1795294275123.0;
  JSON entry = inspectEntry(i, 1795294276000.0, JSON::parse(R"({"ok":true,"protocol":1})"),
                            JSON::parse(R"({"open":false})"), JSON::parse(R"({"ready":true})"),
                            JSON::parse(R"({"diagnostics":[{"source":"gopls"}]})"));
  EXPECT_EQ(entry.serialized(0),
            R"({"id":"abc","pid":42,"sock":"/run/vorn/42/fs.sock",)"
            R"("startedAt":"2026-11-21T20:51:15.123Z","uptimeMs":877,"vornRoot":"/src/vorn",)"
            R"("platform":"darwin","health":{"ok":true,"protocol":1},"workspace":{"open":false},)"
            R"("language":{"ready":true},"diagnostics":{"count":1,"bySource":{"gopls":1}}})");
}

TEST(RenderProtocol, Forms) {
  using Version::renderProtocol;
  EXPECT_EQ(renderProtocol(JSON()), "unknown");
  EXPECT_EQ(renderProtocol(JSON(3)), "3");
  EXPECT_EQ(renderProtocol(JSON(3.0)), "3");
  EXPECT_EQ(renderProtocol(JSON(-0.0)), "0");
  EXPECT_EQ(renderProtocol(JSON(2.5)), "2.5");
  EXPECT_EQ(renderProtocol(JSON(1e21)), "1000000000000000000000");
  EXPECT_EQ(renderProtocol(JSON(-9.3e18)), "-9300000000000000000");
  EXPECT_EQ(renderProtocol(JSON("2.1-beta")), "2.1-beta");
  EXPECT_EQ(renderProtocol(JSON(true)), "true");
  EXPECT_EQ(renderProtocol(JSON(false)), "false");
  EXPECT_EQ(renderProtocol(JSON::parse(R"({"major":2, "minor":[1,0]})")),
            R"({"major":2,"minor":[1,0]})");
}

TEST(VersionOutput, TextAndJson) {
  std::vector<std::pair<std::string, JSON>> p = {{"a", JSON(3)}, {"b", JSON()}};
  EXPECT_EQ(Version::versionOutput(p, false),
            "vorn 0.2.0\ninstance a: bridge protocol 3\ninstance b: bridge protocol unknown\n");
  EXPECT_EQ(Version::versionOutput(p, true),
            "{\n  \"cli\": \"0.2.0\",\n  \"instances\": [\n    {\n      \"id\": \"a\",\n"
            "      \"protocol\": 3\n    },\n    {\n      \"id\": \"b\",\n"
            "      \"protocol\": null\n    }\n  ]\n}\n");
  EXPECT_EQ(Version::versionOutput({}, false), "vorn 0.2.0\n");
  EXPECT_EQ(Version::versionOutput({}, true), "{\n  \"cli\": \"0.2.0\",\n  \"instances\": []\n}\n");
}

// The verbs against an empty runtime directory: nothing is running.
class EmptyRuntime : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern =
        (std::filesystem::temp_directory_path() / "vorn-instance-verbs-XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    dir = pattern;
    captured.ctx.env["XDG_RUNTIME_DIR"] = dir;
    captured.ctx.env["HOME"] = dir;
  }
  void TearDown() override { std::filesystem::remove_all(dir); }

  CliError failure(const std::string& verb, const Flags& flags) {
    try {
      instanceVerbs().at(verb)(flags, instances);
    } catch (const CliError& e) {
      return e;
    }
    ADD_FAILURE() << verb << " did not fail";
    return {};
  }

  std::string dir;
  CapturedContext captured{"/"};
  Instances instances{captured.ctx};
};

TEST_F(EmptyRuntime, ListAndPruneSucceed) {
  instanceVerbs().at("list")(Flags{}, instances);
  instanceVerbs().at("prune")(Flags{}, instances);
  EXPECT_EQ(captured.out, "No running Vorn instances.\nNothing to prune.\n0 live instance(s).\n");
  EXPECT_EQ(captured.err, "");
}

TEST_F(EmptyRuntime, VerbsThatNeedAnInstanceFail) {
  EXPECT_EQ(failure("inspect", Flags{}).message, "vorn instance inspect: no running instances");
  EXPECT_EQ(failure("focus", Flags{}).message, "vorn instance focus: no running instances");
  EXPECT_EQ(failure("health", Flags{}).message, "vorn instance health: no running instances");
  EXPECT_EQ(failure("quit", Flags{}).message,
            "vorn instance quit: pass -i ID, --pid N, -a, or --sock (see vorn instance list)");
  Flags all;
  all.all = true;
  EXPECT_EQ(failure("quit", all).message, "vorn instance quit: no matching instances");
  EXPECT_EQ(captured.out, "");
}

TEST_F(EmptyRuntime, InspectRejectsAnEmptyIdAsUsage) {
  Flags flags;
  flags.args = {""};
  CliError e = failure("inspect", flags);
  EXPECT_EQ(e.message, "vorn instance inspect: an instance ID cannot be empty");
  EXPECT_EQ(e.code, 2);
}

TEST_F(EmptyRuntime, VersionPrintsOnlyTheCliLine) {
  printVersion(Flags{}, instances);
  EXPECT_EQ(captured.out, "vorn 0.2.0\n");
}

}  // namespace
}  // namespace vorn
