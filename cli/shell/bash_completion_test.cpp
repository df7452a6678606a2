#include "shell/bash_completion.h"

#include <gtest/gtest.h>

namespace vorn {
namespace {

bool startsWith(const std::string& text, const std::string& prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

TEST(BashScript, HeaderSaysWhatItIsAndHowToLoadIt) {
  const std::string script = bashScript(completionModel());
  EXPECT_TRUE(startsWith(script,
                         "# bash completion for vorn\n"
                         "# Generated from the command table by `vorn shell-command completion "
                         "bash`; do not edit.\n"
                         "# Load it from ~/.bashrc:\n"
                         "#   eval \"$(vorn shell-command completion bash)\"\n"));
}

TEST(BashScript, RegisteredWithDefaultCompletionLast) {
  const std::string script = bashScript(completionModel());
  const std::string last = "\ncomplete -o default -F _vorn_complete vorn";
  EXPECT_EQ(script.substr(script.size() - last.size()), last);
  EXPECT_EQ(script.find("complete -"), script.size() - last.size() + 1);
}

TEST(BashScript, LiveIdsAreBoundedAndQuiet) {
  const std::string script = bashScript(completionModel());
  EXPECT_NE(script.find("< <(VORN_TIMEOUT=1 command vorn instance list -q 2>/dev/null)"),
            std::string::npos);
  EXPECT_NE(script.find("    'instance inspect') _vorn_words='@ids' ;;\n"), std::string::npos);
  EXPECT_NE(script.find("    'test rerun') _vorn_words='last failed' ;;\n"), std::string::npos);
  EXPECT_NE(script.find("    'shell-command completion') _vorn_words='bash zsh fish' ;;\n"),
            std::string::npos);
  // Candidates are matched by the script itself, never expanded by compgen -W.
  EXPECT_EQ(script.find("compgen"), std::string::npos);
}

TEST(ZshScript, AutoloadableAndLoadsTheBashFunctionsAfterCompinit) {
  const CompletionModel model = completionModel();
  const std::string zsh = zshScript(model);
  const std::string bash = bashScript(model);
  EXPECT_TRUE(startsWith(zsh, "#compdef vorn\n# zsh completion for vorn"));
  EXPECT_NE(zsh.find("# Generated from the command table by `vorn shell-command completion "
                     "zsh`; do not edit.\n"),
            std::string::npos);
  EXPECT_NE(zsh.find("#   eval \"$(vorn shell-command completion zsh)\"\n"), std::string::npos);
  size_t compinit = zsh.find("autoload -Uz compinit && compinit");
  size_t bashcompinit = zsh.find("autoload -Uz bashcompinit && bashcompinit");
  ASSERT_NE(compinit, std::string::npos);
  ASSERT_NE(bashcompinit, std::string::npos);
  EXPECT_LT(compinit, bashcompinit);
  // The same functions and registration as bash, after the setup.
  const std::string functions = bash.substr(bash.find("\n_vorn_value_flag() {"));
  size_t at = zsh.find(functions);
  ASSERT_NE(at, std::string::npos);
  EXPECT_GT(at, bashcompinit);
  EXPECT_NE(zsh.find("_bash_complete -o default -F _vorn_complete\n", at + functions.size()),
            std::string::npos);
}

}  // namespace
}  // namespace vorn
