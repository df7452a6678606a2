#include "core/help.h"

#include <gtest/gtest.h>

namespace vorn {
namespace {

TEST(OptionLines, AlignsToTheWidestLeftPart) {
  EXPECT_EQ(optionLines(globalOptions()),
            (std::vector<std::string>{
                "  -i, --instance ID  target one instance (id or unique prefix; see vorn instance "
                "list)",
                "  -a, --all          fan out to every live instance (where it makes sense)",
                "  --pid N            target the instance whose Bun pid is N (exact)",
                "  --sock PATH        talk to an explicit fs.sock",
                "  -o, --output json  machine-readable JSON output",
            }));
  EXPECT_TRUE(optionLines({}).empty());
}

TEST(VerbHelp, SearchOptionsPadToIncludeGlobs) {
  std::vector<std::string> lines = verbHelp(*findNoun("search")->verb("run"));
  ASSERT_EQ(lines.size(), 8u);
  EXPECT_EQ(lines[1],
            "      GET /search: prints path:line:col: preview (exit 1 when nothing matched)");
  EXPECT_EQ(lines[2], "      --regex          pattern is a regular expression");
  EXPECT_EQ(lines[5], "      --include GLOBS  only these files (VS Code-style: *.go, pkg/)");
  EXPECT_EQ(lines[7], "      --max N          result cap (default 10k)");
}

TEST(VerbHelp, AVerbWithoutOptionsHasTwoLines) {
  EXPECT_EQ(verbHelp(*findNoun("instance")->verb("focus")),
            (std::vector<std::string>{"  vorn instance focus",
                                      "      raise the instance's window (POST /focus)"}));
  std::string page = verbHelpPage(*findNoun("instance")->verb("focus"));
  EXPECT_EQ(page.substr(0, page.find("Global")),
            "  vorn instance focus\n      raise the instance's window (POST /focus)\n\n");
}

TEST(GlobalHelp, LeavesOutWhatTheVerbOwns) {
  std::vector<OptionSpec> own = {{"--output", "-o", "FILE", "write here"}};
  std::vector<std::string> lines = globalHelp(own);
  ASSERT_EQ(lines.size(), 9u);
  EXPECT_EQ(lines[4], "  --sock PATH        talk to an explicit fs.sock");
  EXPECT_EQ(lines[5], "  (--output; -o: this verb's own option above)");
  EXPECT_EQ(globalHelp({}).size(), 9u);
}

TEST(TopHelp, StartsAndEndsAsDocumented) {
  std::string help = topHelp();
  EXPECT_EQ(help.rfind("Vorn CLI 0.2.0\n\nUsage:\n  vorn <noun> <verb> [args] [flags]\n", 0), 0u);
  EXPECT_NE(help.find("\n\ninstance \u2014 Live Vorn instances"), std::string::npos);
  const std::string last = "\n  XDG_RUNTIME_DIR  socket root (default: tmpdir)/vorn/<pid>/fs.sock";
  EXPECT_EQ(help.substr(help.size() - last.size()), last);
  EXPECT_NE(help.back(), '\n');
}

}  // namespace
}  // namespace vorn
