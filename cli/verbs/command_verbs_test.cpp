#include "verbs/command_verbs.h"

#include <gtest/gtest.h>

#include "core/test_support.h"
#include "instances/instances.h"

namespace vorn {
namespace {

TEST(CommandRunBody, IdAlone) {
  EXPECT_EQ(commandRunBody(withArgs({"go-mod-tidy"})).serialized(0), R"({"id":"go-mod-tidy"})");
}

TEST(CommandRunBody, YesAddsConfirmedTrue) {
  Flags flags = withArgs({"go-mod-tidy"});
  flags.opts["--yes"] = std::nullopt;
  EXPECT_EQ(commandRunBody(flags).serialized(0), R"({"id":"go-mod-tidy","confirmed":true})");
}

TEST(CommandRunBody, ArgsStayStringsInOrder) {
  Flags flags = withArgs({"x", "a", "b", "12", "true", "{}"});
  EXPECT_EQ(commandRunBody(flags).serialized(0), R"({"id":"x","args":["a","b","12","true","{}"]})");
}

TEST(CommandRunBody, ArgsBeforeConfirmed) {
  Flags flags = withArgs({"x", "a"});
  flags.opts["--yes"] = std::nullopt;
  EXPECT_EQ(commandRunBody(flags).serialized(0), R"({"id":"x","args":["a"],"confirmed":true})");
}

TEST(DiagnosticsPath, WithoutSource) {
  EXPECT_EQ(diagnosticsPath(Flags{}), "/diagnostics");
}

TEST(DiagnosticsPath, SourceIsOneEncodedComponent) {
  Flags flags;
  flags.opts["--source"] = "go test";
  EXPECT_EQ(diagnosticsPath(flags), "/diagnostics?source=go%20test");
  flags.opts["--source"] = "nogo";
  EXPECT_EQ(diagnosticsPath(flags), "/diagnostics?source=nogo");
  flags.opts["--source"] = "a+b&c=d/é~'()*!\x01";
  EXPECT_EQ(diagnosticsPath(flags), "/diagnostics?source=a%2Bb%26c%3Dd%2F%C3%A9~'()*!%01");
}

TEST(DiagnosticsPath, EmptyValueIsSentEmpty) {
  Flags flags;
  flags.opts["--source"] = "";
  EXPECT_EQ(diagnosticsPath(flags), "/diagnostics?source=");
}

TEST(CommandVerbs, RunWithoutIdFailsBeforeAnyInstanceIsAsked) {
  CapturedContext captured;
  // A runtime directory that does not exist: resolving would find nothing, not fail with 2.
  captured.ctx.env["XDG_RUNTIME_DIR"] = "/nonexistent-vorn-test-runtime";
  Instances instances{captured.ctx};
  try {
    commandVerbs().at("run")(Flags{}, instances);
    FAIL() << "expected a usage error";
  } catch (const CliError& error) {
    EXPECT_EQ(error.message, "vorn command run: missing command id (vorn command list)");
    EXPECT_EQ(error.code, 2);
  }
  EXPECT_EQ(captured.out, "");
}

TEST(CommandVerbs, Tables) {
  EXPECT_EQ(commandVerbs().size(), 2u);
  EXPECT_TRUE(commandVerbs().count("list"));
  EXPECT_TRUE(commandVerbs().count("run"));
  EXPECT_TRUE(diagnosticsVerbs().count("list"));
  EXPECT_TRUE(nogoVerbs().count("run"));
}

}  // namespace
}  // namespace vorn
