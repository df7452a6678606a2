#include "shell/fish_completion.h"

#include <gtest/gtest.h>

namespace vorn {
namespace {

TEST(FishQuote, EscapesQuotesAndBackslashes) {
  EXPECT_EQ(fishQuote("plain"), "'plain'");
  EXPECT_EQ(fishQuote("it's"), "'it\\'s'");
  EXPECT_EQ(fishQuote("a\\b"), "'a\\\\b'");
  EXPECT_EQ(fishQuote("\"go test\" $x (y)"), "'\"go test\" $x (y)'");
  EXPECT_EQ(fishQuote(""), "''");
}

class FishScript : public ::testing::Test {
 protected:
  std::string script = fishScript(completionModel());
  bool has(const std::string& text) const { return script.find(text) != std::string::npos; }
};

TEST_F(FishScript, Header) {
  EXPECT_EQ(script.rfind("# fish completion for vorn\n"
                         "# Generated from the command table by `vorn shell-command completion "
                         "fish`; do not edit.\n"
                         "# Load it with\n"
                         "#   vorn shell-command completion fish | source\n"
                         "# or save it as ~/.config/fish/completions/vorn.fish",
                         0),
            0u);
  EXPECT_NE(script.back(), '\n');
}

TEST_F(FishScript, GlobalFlags) {
  EXPECT_TRUE(
      has("\ncomplete -c vorn -l instance -s i -x -a '(__vorn_ids)' -d 'target one "
          "instance (id or unique prefix; see vorn instance list)'\n"));
  EXPECT_TRUE(
      has("\ncomplete -c vorn -l all -s a -d 'fan out to every live instance (where it "
          "makes sense)'\n"));
  EXPECT_TRUE(
      has("\ncomplete -c vorn -l pid -r -d 'target the instance whose Bun pid is N "
          "(exact)'\n"));
  EXPECT_TRUE(has("\ncomplete -c vorn -l sock -r -d 'talk to an explicit fs.sock'\n"));
  EXPECT_TRUE(
      has("\ncomplete -c vorn -l output -s o -x -a json -d 'machine-readable JSON "
          "output'\n"));
}

TEST_F(FishScript, FirstPositionAndThePathShorthand) {
  EXPECT_TRUE(has("\ncomplete -c vorn -n '__vorn_is' -f -a 'help' -d 'help [<noun>]'\n"));
  EXPECT_TRUE(
      has("\ncomplete -c vorn -n '__vorn_is' -f -a 'version' -d 'CLI and host "
          "versions'\n"));
  EXPECT_TRUE(has("\ncomplete -c vorn -n '__vorn_is' -f -a 'dev' -d 'QA + developer tooling'\n"));
  EXPECT_TRUE(has("\ncomplete -c vorn -n '__vorn_is; and __vorn_path_like' -F\n"));
  EXPECT_TRUE(has("string match -qr -- '^[./~]' (commandline -ct)"));
}

TEST_F(FishScript, VerbsOptionsAndFirstArguments) {
  EXPECT_TRUE(
      has("\ncomplete -c vorn -n '__vorn_is instance' -f -a 'list' -d 'list every live "
          "instance; unreachable dirs are reported on stderr'\n"));
  EXPECT_TRUE(
      has("\ncomplete -c vorn -n '__vorn_starts instance list' -l quiet -s q -d 'only "
          "the ids, one per line (no stale-dir warning)'\n"));
  EXPECT_TRUE(
      has("\ncomplete -c vorn -n '__vorn_starts diagnostics list' -l source -r -d 'only "
          "rows from S (gopls, nogo, \"go test\")'\n"));
  EXPECT_TRUE(has("\ncomplete -c vorn -n '__vorn_is instance inspect' -f -a '(__vorn_ids)'\n"));
  EXPECT_TRUE(has("\ncomplete -c vorn -n '__vorn_is test rerun' -f -a 'last failed'\n"));
  EXPECT_TRUE(
      has("\ncomplete -c vorn -n '__vorn_is shell-command completion' -f -a 'bash zsh "
          "fish'\n"));
  EXPECT_TRUE(has("\ncomplete -c vorn -n '__vorn_is help' -f -a 'instance' -d "));
}

TEST_F(FishScript, DevGroup) {
  EXPECT_TRUE(has("\ncomplete -c vorn -n '__vorn_is dev' -f -a 'help' -d 'help [<noun>]'\n"));
  EXPECT_TRUE(has("\ncomplete -c vorn -n '__vorn_is dev' -f -a 'qa' -d "));
  EXPECT_TRUE(has("\ncomplete -c vorn -n '__vorn_is dev help' -f -a 'qa' -d "));
  EXPECT_TRUE(has("\ncomplete -c vorn -n '__vorn_is dev qa' -f -a 'bisect' -d "));
  EXPECT_TRUE(
      has("\ncomplete -c vorn -n '__vorn_starts dev log show' -s n -r -d 'the last N "
          "lines'\n"));
  EXPECT_TRUE(
      has("\ncomplete -c vorn -n '__vorn_starts dev rpc post' -l data -s d -r -d 'the "
          "request body'\n"));
  EXPECT_TRUE(has("\ncomplete -c vorn -n '__vorn_is dev log show' -f -a 'app host gopls'\n"));
  // The positionals skip the values of every value flag, product and dev.
  EXPECT_TRUE(has("\nset -g __vorn_value_flags --instance -i --pid --sock --output -o --source "));
  EXPECT_TRUE(has(" --data -d\n"));
}

}  // namespace
}  // namespace vorn
