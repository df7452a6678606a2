#include "shell/completion.h"

#include <gtest/gtest.h>

#include "core/test_support.h"
#include "shell/generate.h"

namespace vorn {
namespace {

// The stored scripts are exactly what the generator writes from today's tables.
TEST(CompletionVerb, PrintsTheGeneratedScriptAndANewline) {
  for (const auto& [shell, text] : generatedScripts()) {
    CapturedContext c;
    printCompletion(withArgs({shell}), c.ctx);
    EXPECT_EQ(c.out, text + "\n") << shell;
    EXPECT_EQ(c.err, "");
  }
  EXPECT_EQ(completionScripts().size(), 3u);
}

TEST(CompletionVerb, BashEndsWithItsRegistration) {
  CapturedContext c;
  printCompletion(withArgs({"bash"}), c.ctx);
  const std::string last = "\ncomplete -o default -F _vorn_complete vorn\n";
  ASSERT_GE(c.out.size(), last.size());
  EXPECT_EQ(c.out.substr(c.out.size() - last.size()), last);
}

TEST(CompletionVerb, OnlyTheFirstWordChooses) {
  CapturedContext c;
  printCompletion(withArgs({"fish", "bash"}), c.ctx);
  EXPECT_EQ(c.out, std::string(completionScripts().at("fish")) + "\n");
}

TEST(CompletionVerb, AnyOtherWordIsAUsageError) {
  for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
           {}, {"powershell"}, {"Bash"}, {""}, {"bash "}, {"sh"}}) {
    CapturedContext c;
    CliError error = thrown([&] { printCompletion(withArgs(args), c.ctx); });
    EXPECT_EQ(error, usageError("vorn shell-command completion: expected one of bash, zsh, fish"));
    EXPECT_EQ(c.out, "");
    EXPECT_EQ(c.err, "");
  }
}

}  // namespace
}  // namespace vorn
